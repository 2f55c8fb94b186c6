// Geometric resynchronisation.
//
// A hypothesis is a scale per axis, a phase per axis (where the superpixel
// grid starts within one superpixel, in marked pixels), a whole-superpixel
// offset per axis and a mirror flag. The copy is resampled once per scale and
// phase onto a canvas at the marked resolution whose superpixel grid follows
// the hypothesis, and measured there like a marked frame; the offsets and the
// mirror then only re-index the canvas's superpixels onto the marked ones
// (the measure of a superpixel is the same when its pixels are mirrored), so
// they cost one decode each and no pixel work.
//
// The search runs in three passes:
//  1. coarse: every candidate scale at a few phases, on the first frame,
//     over the offsets around where the copy's centre or edges would put
//     the picture;
//  2. refine: the best hypotheses are moved by single pixels of phase and
//     small steps of scale while their decode improves;
//  3. final: the best refined hypotheses are read by the detector itself
//     over every kept frame, and the strongest is the answer.
// Every decode on the way is counted; the verdict threshold grows with that
// count so that the chance of a false verdict stays bounded (see
// threshold_for_hypotheses).
#include "decode/resync.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "decode/resample.h"
#include "decode/rm_decode.h"
#include "decode/soft_values.h"

namespace lumamark {

namespace {

constexpr uint32_t kSignBit = 0x80000000u;
constexpr uint32_t kPointMask = 0x7fffffffu;

// Offsets per axis are searched through between the anchors when these lie
// at most this many superpixels apart (a crop of up to about 5% per side at
// 1080p), and only around them otherwise.
constexpr int32_t kMaxSpan = 16;

// Grids of at least this many superpixels are checked on their middle part.
constexpr int64_t kWholeFrameCells = 16384;

// Standard normal upper tail, and its inverse by bisection.
double normal_tail(double t) { return 0.5 * std::erfc(t / std::sqrt(2.0)); }

double inverse_normal_tail(double p) {
  double lo = 0, hi = 40;
  for (int i = 0; i < 200; ++i) {
    const double mid = 0.5 * (lo + hi);
    if (normal_tail(mid) > p) {
      lo = mid;
    } else {
      hi = mid;
    }
  }
  return hi;
}

// One scale and phase of the copy: canvas cell (c', r') covers marked-grid
// cell (c' + kx, r' + ky) for offsets (kx, ky) (or (kx - c', r' + ky)
// mirrored), and canvas pixel X' reads copy x = (X' + phase_x) / scale_x.
struct Geometry {
  double sx = 1, sy = 1;
  double phx = 0, phy = 0;
};

// Soft values of a block of canvas cells (unit signs: the sign pattern is
// applied when the cells are mapped onto the marked grid).
struct CanvasBlock {
  Geometry g;
  int32_t c0 = 0, r0 = 0;       // first canvas cell of the block
  int32_t cols = 0, rows = 0;   // cells in the block
  std::vector<float> sum;       // soft values summed over the frames measured
  std::vector<double> energy;   // per row, running sums of the squared values (cols + 1 each)
  std::vector<std::vector<float>> frames;  // per frame, when kept
};

// A decoded hypothesis.
struct Hypothesis {
  Geometry g;
  int32_t kx = 0, ky = 0;
  bool flip = false;
  double z = 0;
  std::string bits;
};

int32_t canvas_cells(double scale, double phase, int32_t copy_size, int32_t sp) {
  const double span = scale * (copy_size - 1) - phase + 1;
  return span < sp ? 0 : static_cast<int32_t>(std::floor(span / sp));
}

class Search {
 public:
  Search(const DetectConfig& c, const CopyFrames& copy, Detector* d)
      : c_(c), copy_(copy), d_(d), sp_(c.sp_width), cols_(d->grid.cols), rows_(d->grid.rows) {
    if (c.fec == 2) build_fold();
  }

  int64_t decodes() const { return decodes_; }

  // Measures a block of the canvas of geometry g over frames [first, first + n).
  CanvasBlock measure(const Geometry& g, int32_t c0, int32_t r0, int32_t cols, int32_t rows,
                      int32_t first, int32_t n, bool keep_frames) {
    CanvasBlock b;
    b.g = g;
    b.c0 = c0;
    b.r0 = r0;
    b.cols = std::max(cols, 0);
    b.rows = std::max(rows, 0);
    const size_t cells = static_cast<size_t>(b.cols) * b.rows;
    b.sum.assign(cells, 0.0f);
    if (cells == 0) return b;
    const int32_t w = b.cols * sp_;
    const int32_t h = b.rows * sp_;
    const ResampleTaps tx = resample_taps({(sp_ * c0 + g.phx) / g.sx, 1.0 / g.sx}, w, copy_.width);
    const ResampleTaps ty = resample_taps({(sp_ * r0 + g.phy) / g.sy, 1.0 / g.sy}, h, copy_.height);
    pixels_.resize(static_cast<size_t>(w) * h);
    measures_.resize(cells);
    soft_.resize(cells);
    unit_signs_.assign(cells, 1);
    const SoftGrid grid{b.cols, b.rows, sp_, c_.spb_width};
    const int32_t end = std::min<int32_t>(first + n, static_cast<int32_t>(copy_.luma.size()));
    for (int32_t f = first; f < end; ++f) {
      resample_plane(copy_.luma[static_cast<size_t>(f)].data(), copy_.width, tx, ty,
                     pixels_.data(), w);
      measure_frame(pixels_.data(), w, grid, measures_.data(), c_.threads);
      soft_values(measures_.data(), grid, unit_signs_.data(), soft_.data(), &scratch_);
      for (size_t i = 0; i < cells; ++i) b.sum[i] += soft_[i];
      if (keep_frames) b.frames.push_back(soft_);
    }
    b.energy.assign(static_cast<size_t>(b.cols + 1) * b.rows, 0.0);
    for (int32_t r = 0; r < b.rows; ++r) {
      double* e = b.energy.data() + static_cast<size_t>(r) * (b.cols + 1);
      const float* v = b.sum.data() + static_cast<size_t>(r) * b.cols;
      for (int32_t c = 0; c < b.cols; ++c) e[c + 1] = e[c] + static_cast<double>(v[c]) * v[c];
    }
    return b;
  }

  // Maps canvas values onto the marked grid with the sign pattern applied:
  // calls put(marked cell index, value) for every canvas cell that lands on
  // the grid.
  template <typename Put>
  void map_cells(const CanvasBlock& b, const float* values, int32_t kx, int32_t ky, bool flip,
                 Put put) const {
    for (int32_t r = 0; r < b.rows; ++r) {
      const int32_t mr = b.r0 + r + ky;
      if (mr < 0 || mr >= rows_) continue;
      const float* row = values + static_cast<size_t>(r) * b.cols;
      const size_t base = static_cast<size_t>(mr) * cols_;
      for (int32_t c = 0; c < b.cols; ++c) {
        const int32_t mc = flip ? kx - (b.c0 + c) : b.c0 + c + kx;
        if (mc < 0 || mc >= cols_ || row[c] == 0.0f) continue;
        const size_t i = base + static_cast<size_t>(mc);
        put(i, d_->signs[i] < 0 ? -row[c] : row[c]);
      }
    }
  }

  // Decodes the summed values of a block at one offset; z, and the bits.
  double score(const CanvasBlock& b, int32_t kx, int32_t ky, bool flip, std::string* bits) {
    ++decodes_;
    bits->assign(static_cast<size_t>(c_.bit_profile), '0');
    if (c_.fec != 2) {
      dense_.assign(static_cast<size_t>(d_->cells), 0.0f);
      map_cells(b, b.sum.data(), kx, ky, flip, [this](size_t i, float v) { dense_[i] = v; });
      detector_reset(d_);
      detector_add_soft(d_, dense_.data());
      const DetectResult r = detector_result(d_);
      *bits = r.bits;
      return r.z;
    }
    std::fill(points_.begin(), points_.end(), 0.0f);
    std::fill(energy_.begin(), energy_.end(), 0.0);
    float* pts = points_.data();
    const uint32_t* fold = fold_.data();
    const uint16_t* blk = block_.data();
    double* energy = energy_.data();
    const bool one_block = energy_.size() == 1;
    double sum2 = 0;
    for (int32_t r = 0; r < b.rows; ++r) {
      const int32_t mr = b.r0 + r + ky;
      if (mr < 0 || mr >= rows_) continue;
      const float* row = b.sum.data() + static_cast<size_t>(r) * b.cols;
      const size_t base = static_cast<size_t>(mr) * cols_;
      // Canvas cells c whose marked column lies on the grid.
      int32_t lo = 0, hi = b.cols;
      if (flip) {
        lo = std::max(lo, kx - b.c0 - cols_ + 1);
        hi = std::min(hi, kx - b.c0 + 1);
      } else {
        lo = std::max(lo, -b.c0 - kx);
        hi = std::min(hi, cols_ - b.c0 - kx);
      }
      if (lo >= hi) continue;
      if (one_block) {
        const double* e = b.energy.data() + static_cast<size_t>(r) * (b.cols + 1);
        sum2 += e[hi] - e[lo];
      }
      for (int32_t c = lo; c < hi; ++c) {
        const float v = row[c];
        const size_t i = base + static_cast<size_t>(flip ? kx - (b.c0 + c) : b.c0 + c + kx);
        const uint32_t f = fold[i];
        pts[f & kPointMask] += (f & kSignBit) != 0 ? -v : v;
        if (!one_block) energy[blk[i]] += static_cast<double>(v) * v;
      }
    }
    if (one_block) energy_[0] = sum2;
    double weakest = 0;
    const std::vector<RmPlanBlock>& blocks = d_->plan.blocks;
    for (size_t k = 0; k < blocks.size(); ++k) {
      const RmBlockDecision dec =
          rm_decide_block(blocks[k], points_.data() + point_base_[k], energy_[k], bits->data());
      if (k == 0 || dec.z < weakest) weakest = dec.z;
    }
    return weakest;
  }

  // The detector's reading of a hypothesis over the frames kept in b.
  DetectResult read(const CanvasBlock& b, int32_t kx, int32_t ky, bool flip) {
    ++decodes_;
    detector_reset(d_);
    for (const std::vector<float>& f : b.frames) {
      dense_.assign(static_cast<size_t>(d_->cells), 0.0f);
      map_cells(b, f.data(), kx, ky, flip, [this](size_t i, float v) { dense_[i] = v; });
      detector_add_soft(d_, dense_.data());
    }
    return detector_result(d_);
  }

  // The transform of a hypothesis, copy to marked pixels.
  GeoTransform transform(const Geometry& g, int32_t kx, int32_t ky, bool flip) const {
    GeoTransform t;
    t.scale_x = g.sx;
    t.scale_y = g.sy;
    t.offset_y = sp_ * static_cast<double>(ky) - g.phy;
    t.flip = flip;
    if (flip) {
      t.offset_x = sp_ * static_cast<double>(kx) + (sp_ - 1) + g.phx - g.sx * (copy_.width - 1);
    } else {
      t.offset_x = sp_ * static_cast<double>(kx) - g.phx;
    }
    return t;
  }

  // The phases and whole-superpixel offsets of the transform with scales
  // g->sx, g->sy and offsets ox, oy (the inverse of transform()).
  void place(Geometry* g, int32_t* kx, int32_t* ky, bool flip, double ox, double oy) const {
    if (flip) {
      const double a = ox - (sp_ - 1) + g->sx * (copy_.width - 1);
      *kx = static_cast<int32_t>(std::floor(a / sp_));
      g->phx = a - sp_ * static_cast<double>(*kx);
    } else {
      *kx = static_cast<int32_t>(std::ceil(ox / sp_));
      g->phx = sp_ * static_cast<double>(*kx) - ox;
    }
    *ky = static_cast<int32_t>(std::ceil(oy / sp_));
    g->phy = sp_ * static_cast<double>(*ky) - oy;
  }

  // Whole-superpixel offsets that put marked pixel m at copy position p
  // (no mirror / mirrored), along x.
  int32_t offset_x_for(const Geometry& g, double p, double m, bool flip) const {
    if (flip) {
      return static_cast<int32_t>(
          std::lround((m - (sp_ - 1) - g.phx + g.sx * (copy_.width - 1) - g.sx * p) / sp_));
    }
    return static_cast<int32_t>(std::lround((m - g.sx * p + g.phx) / sp_));
  }
  int32_t offset_y_for(const Geometry& g, double p, double m) const {
    return static_cast<int32_t>(std::lround((m - g.sy * p + g.phy) / sp_));
  }

  int32_t sp() const { return sp_; }
  int32_t cols() const { return cols_; }
  int32_t rows() const { return rows_; }

 private:
  // The Reed-Muller plan flattened per superpixel: the point it folds onto
  // (over all blocks' points laid end to end), with the sign pattern's sign
  // and the pad's sign combined in the top bit, and its block. Superpixels
  // past the coded length (none in this mode) fold nothing.
  void build_fold() {
    const std::vector<RmPlanBlock>& blocks = d_->plan.blocks;
    const size_t n = static_cast<size_t>(d_->cells);
    fold_.assign(n, 0);
    block_.assign(n, 0);
    point_base_.assign(blocks.size(), 0);
    size_t points = 0;
    for (size_t k = 0; k < blocks.size(); ++k) {
      point_base_[k] = points;
      points += size_t{1} << (blocks[k].bits - 1);
    }
    points_.assign(points, 0.0f);
    energy_.assign(blocks.size(), 0.0);
    const size_t stride = static_cast<size_t>(d_->plan.stride);
    for (size_t i = 0; i < n && i < static_cast<size_t>(d_->plan.length); ++i) {
      const size_t k = i % stride;
      const uint32_t f = blocks[k].fold[i / stride];
      const uint32_t sign = d_->signs[i] < 0 ? kSignBit : 0u;
      fold_[i] = ((f & kSignBit) ^ sign) | static_cast<uint32_t>(point_base_[k] + (f & kPointMask));
      block_[i] = static_cast<uint16_t>(k);
    }
  }

  const DetectConfig& c_;
  const CopyFrames& copy_;
  Detector* d_;
  int32_t sp_, cols_, rows_;
  int64_t decodes_ = 0;
  std::vector<uint32_t> fold_;
  std::vector<uint16_t> block_;
  std::vector<size_t> point_base_;
  std::vector<float> points_;
  std::vector<double> energy_;
  std::vector<float> dense_;
  std::vector<uint8_t> pixels_;
  std::vector<int32_t> measures_;
  std::vector<float> soft_;
  std::vector<int8_t> unit_signs_;
  SoftScratch scratch_;
};

// The scales (marked pixels per copy pixel) worth trying for a copy of
// cw x ch of a mark made at mw x mh: the copy as the whole picture stretched
// to fit, the copy unscaled (shifted or cropped), the picture kept at its
// aspect ratio inside the copy with bars, the picture squeezed to common
// display aspect ratios inside bars, and with zoom, the picture cropped and
// scaled back up to the copy's size.
enum class Region { kWhole, kHalf, kQuarter };

struct ScaleCandidate {
  double sx = 1, sy = 1;
  // Where the coarse pass measures: a crop-and-zoom scale is tried on the
  // middle of the picture, where a scale a step off still meets the grid.
  Region region = Region::kWhole;
};

std::vector<ScaleCandidate> candidate_scales(int32_t mw, int32_t mh, int32_t cw, int32_t ch,
                                             bool zoom) {
  std::vector<ScaleCandidate> out;
  Region region = Region::kWhole;
  auto add = [&out, &region](double sx, double sy) {
    if (!(sx > 0.2 && sx < 8 && sy > 0.2 && sy < 8)) return;
    for (const ScaleCandidate& s : out) {
      if (std::fabs(s.sx / sx - 1) < 5e-4 && std::fabs(s.sy / sy - 1) < 5e-4) return;
    }
    out.push_back(ScaleCandidate{sx, sy, region});
  };
  const double fx = static_cast<double>(mw) / cw;
  const double fy = static_cast<double>(mh) / ch;
  add(fx, fy);
  add(1, 1);
  add(std::max(fx, fy), std::max(fx, fy));
  for (double aspect : {4.0 / 3.0, 16.0 / 9.0, 1.85, 2.39}) {
    // Pillarbox: the picture is the copy's height and aspect * height wide.
    if (aspect * ch <= cw + 1) add(mw / (aspect * ch), fy);
    // Letterbox: the picture is the copy's width and width / aspect high.
    if (cw / aspect <= ch + 1) add(fx, mh * aspect / cw);
  }
  if (!zoom) return out;
  // A crop of up to about 6% per side scaled back up, the same in both
  // directions, in steps that leave the grid within about two pixels over
  // the middle half of the picture (the refine pass closes the rest) ...
  region = Region::kHalf;
  for (int32_t i = 1; i <= 12; ++i) add(fx * (1 - 0.01 * i), fy * (1 - 0.01 * i));
  // ... and different in each direction, in coarser steps over the middle
  // quarter.
  region = Region::kQuarter;
  for (int32_t i = 0; i <= 6; ++i) {
    for (int32_t j = 0; j <= 6; ++j) {
      if (i != j) add(fx * (1 - 0.02 * i), fy * (1 - 0.02 * j));
    }
  }
  return out;
}

struct Budget {
  int32_t coarse_frames;
  int32_t refine_frames;
  int32_t phases;        // phases per axis in the coarse pass
  int32_t window;        // offsets tried around the anchors, per axis, each way
  bool zoom;             // crop-and-zoom scales
  int32_t zoom_window;   // offsets around the centre anchor for those
  bool refine_scale;     // refine moves the scale too (from 0.4% down to 0.1% steps)
  int32_t keep;          // hypotheses refined
};

Budget budget_for(SearchMode mode) {
  if (mode == SearchMode::kFull) return Budget{1, 1, 3, 4, true, 2, true, 3};
  return Budget{1, 1, 3, 2, false, 0, false, 2};
}

// Keeps the keep strongest hypotheses, one per decoded ID.
void insert_best(std::vector<Hypothesis>* best, const Hypothesis& h, size_t keep) {
  for (Hypothesis& o : *best) {
    if (o.bits != h.bits) continue;
    if (h.z > o.z) o = h;
    std::sort(best->begin(), best->end(),
              [](const Hypothesis& a, const Hypothesis& b) { return a.z > b.z; });
    return;
  }
  best->push_back(h);
  std::sort(best->begin(), best->end(),
            [](const Hypothesis& a, const Hypothesis& b) { return a.z > b.z; });
  if (best->size() > keep) best->resize(keep);
}

}  // namespace

double threshold_for_hypotheses(double base_z, double hypotheses) {
  if (hypotheses <= 1) return base_z;
  return inverse_normal_tail(normal_tail(base_z) / (100.0 * hypotheses));
}

namespace {

// One search; prior decodes made before it count towards its thresholds.
// With zoom_only the scales of the fast search are left out (it has just
// tried them).
int32_t search_once(const DetectConfig& config, const CopyFrames& copy, SearchMode mode,
                    const std::string& expected_bits, int64_t prior, bool zoom_only,
                    ResyncResult* out, std::string* error) {
  Detector d;
  if (detector_init(&d, config, error) != 0) return -1;
  *out = ResyncResult{};
  if (copy.luma.empty() || copy.width < 1 || copy.height < 1) {
    if (error != nullptr) *error = "no frame to search";
    return -1;
  }
  Search s(config, copy, &d);
  const int32_t sp = s.sp();
  const int32_t kept = static_cast<int32_t>(copy.luma.size());

  if (mode == SearchMode::kNone) {
    const Geometry g;
    const CanvasBlock b =
        s.measure(g, 0, 0, canvas_cells(1, 0, copy.width, sp), canvas_cells(1, 0, copy.height, sp),
                  0, kept, true);
    out->result = s.read(b, 0, 0, false);
    if (!expected_bits.empty()) {
      out->ber = detector_bit_error_rate(d, detector_expected_symbols(d, expected_bits));
    }
    out->hypotheses = 1;
    out->result.verdict = verdict_for(out->result.z);
    out->candidates.push_back(SearchCandidate{out->transform, out->result.wm_id, out->result.z});
    return 0;
  }

  const Budget bud = budget_for(mode);
  const double mcx = 0.5 * (config.width - 1), mcy = 0.5 * (config.height - 1);
  const double ccx = 0.5 * (copy.width - 1), ccy = 0.5 * (copy.height - 1);
  std::vector<Hypothesis> best;
  const size_t keep = static_cast<size_t>(bud.keep);
  std::string bits;

  // 1. Coarse pass.
  const auto scales = candidate_scales(config.width, config.height, copy.width, copy.height,
                                       bud.zoom);
  for (const ScaleCandidate& sc : scales) {
    if (zoom_only && sc.region == Region::kWhole) continue;
    for (int32_t py = 0; py < bud.phases; ++py) {
      for (int32_t px = 0; px < bud.phases; ++px) {
        Geometry g;
        g.sx = sc.sx;
        g.sy = sc.sy;
        g.phx = static_cast<double>(sp) * px / bud.phases;
        g.phy = static_cast<double>(sp) * py / bud.phases;
        const int32_t ncols = canvas_cells(g.sx, g.phx, copy.width, sp);
        const int32_t nrows = canvas_cells(g.sy, g.phy, copy.height, sp);
        if (ncols < 2 || nrows < 2) continue;
        const CanvasBlock b =
            sc.region == Region::kHalf
                ? s.measure(g, ncols / 4, nrows / 4, ncols / 2, nrows / 2, 0, 1, false)
            : sc.region == Region::kQuarter
                ? s.measure(g, ncols * 3 / 8, nrows * 3 / 8, ncols / 4, nrows / 4, 0, 1, false)
                : s.measure(g, 0, 0, ncols, nrows, 0, bud.coarse_frames, false);
        const bool zoomed = sc.region != Region::kWhole;
        // Offsets per axis: around the copy's centre on the marked centre
        // and its edges on the marked edges; when those lie close together
        // (a shift, or a crop kept at its size) everything between them.
        // A zoom that differs per direction is tried around the centre only.
        const bool centred = sc.region == Region::kQuarter;
        const int32_t w = centred ? 1 : zoomed ? bud.zoom_window : bud.window;
        auto axis_offsets = [w, centred](int32_t start, int32_t centre, int32_t end) {
          std::vector<int32_t> v;
          if (centred) start = end = centre;
          const int32_t lo = std::min({start, centre, end}), hi = std::max({start, centre, end});
          if (hi - lo <= kMaxSpan) {
            for (int32_t k = lo - w; k <= hi + w; ++k) v.push_back(k);
          } else {
            for (int32_t a : {start, centre, end}) {
              for (int32_t k = a - w; k <= a + w; ++k) v.push_back(k);
            }
            std::sort(v.begin(), v.end());
            v.erase(std::unique(v.begin(), v.end()), v.end());
          }
          return v;
        };
        const std::vector<int32_t> oys =
            axis_offsets(s.offset_y_for(g, 0, 0), s.offset_y_for(g, ccy, mcy),
                         s.offset_y_for(g, copy.height - 1, config.height - 1));
        for (int32_t flip = 0; flip < (zoomed ? 1 : 2); ++flip) {
          const bool f = flip != 0;
          const std::vector<int32_t> oxs =
              axis_offsets(s.offset_x_for(g, f ? copy.width - 1 : 0, 0, f),
                           s.offset_x_for(g, ccx, mcx, f),
                           s.offset_x_for(g, f ? 0 : copy.width - 1, config.width - 1, f));
          std::vector<std::pair<int32_t, int32_t>> offsets;
          for (int32_t ky : oys) {
            for (int32_t kx : oxs) offsets.emplace_back(kx, ky);
          }
          for (const auto& [kx, ky] : offsets) {
            const double z = s.score(b, kx, ky, f, &bits);
            if (best.size() < keep || z > best.back().z) {
              insert_best(&best, Hypothesis{g, kx, ky, f, z, bits}, keep);
            }
          }
        }
      }
    }
  }

  // 2. Refine: single-pixel phase moves and small scale steps while the
  // decode over the first frames improves.
  // The coarse steps compare hypotheses on the middle half of the picture
  // in each direction (a quarter of the work); the last on all of it.
  auto evaluate = [&](Hypothesis* h, bool middle) {
    const int32_t ncols = canvas_cells(h->g.sx, h->g.phx, copy.width, sp);
    const int32_t nrows = canvas_cells(h->g.sy, h->g.phy, copy.height, sp);
    if (ncols < 2 || nrows < 2) {
      h->z = 0;
      return;
    }
    const bool part = middle && static_cast<int64_t>(ncols) * nrows >= kWholeFrameCells;
    const CanvasBlock b =
        part ? s.measure(h->g, ncols / 4, nrows / 4, ncols / 2, nrows / 2, 0, bud.refine_frames, false)
             : s.measure(h->g, 0, 0, ncols, nrows, 0, bud.refine_frames, false);
    h->z = s.score(b, h->kx, h->ky, h->flip, &h->bits);
  };
  // A phase moved past a superpixel edge is the same grid one superpixel
  // over: the offset sp * k - phase stays.
  auto normalise = [sp](double* phase, int32_t* k) {
    while (*phase < 0) {
      *phase += sp;
      ++*k;
    }
    while (*phase >= sp) {
      *phase -= sp;
      --*k;
    }
  };
  std::vector<Hypothesis> refined;
  for (Hypothesis h : best) {
    // Far weaker than the best: not worth moving (it still gets read).
    const bool worth = h.z >= 0.3 * best.front().z;
    // Phase steps in pixels, scale steps as fractions.
    const std::vector<std::pair<double, double>> steps =
        bud.refine_scale ? std::vector<std::pair<double, double>>{{1.0, 0.004}, {1.0, 0.002}, {0.5, 0.001}}
                         : std::vector<std::pair<double, double>>{{1.0, 0.0}, {0.5, 0.0}};
    for (const auto& [step, scale_step] : steps) {
      const bool middle = step >= 1;
      if (worth) evaluate(&h, middle);
      const int32_t rounds = step < 1 ? 1 : scale_step > 0.003 ? 6 : 3;
      for (int32_t round = 0; round < rounds && worth; ++round) {
        bool moved = false;
        // Moves 0-3: the phase; 4-15: the scale of either direction, about a
        // point a quarter, half or three quarters across the copy, which stays
        // where it was (a partly aligned hypothesis is aligned around some
        // point, and a step about it extends the aligned part).
        for (int32_t m = 0; m < (bud.refine_scale ? 16 : 4); ++m) {
          Hypothesis t = h;
          const double dir = (m & 1) != 0 ? -1.0 : 1.0;
          if (m < 4) {
            // A mirrored canvas runs the other way over the marked grid, so
            // a phase moved past a superpixel edge steps the offset backwards.
            int32_t kx = t.flip ? -t.kx : t.kx;
            if (m < 2) {
              t.g.phx += dir * step;
              normalise(&t.g.phx, &kx);
            } else {
              t.g.phy += dir * step;
              normalise(&t.g.phy, &t.ky);
            }
            t.kx = t.flip ? -kx : kx;
          } else {
            const double pivot = 0.25 * ((m - 4) / 4 + 1);
            const GeoTransform before = s.transform(t.g, t.kx, t.ky, t.flip);
            double ox = before.offset_x, oy = before.offset_y;
            if ((m / 2) % 2 == 0) {
              t.g.sx *= 1 + dir * scale_step;
              ox += (before.scale_x - t.g.sx) * pivot * (copy.width - 1);
            } else {
              t.g.sy *= 1 + dir * scale_step;
              oy += (before.scale_y - t.g.sy) * pivot * (copy.height - 1);
            }
            s.place(&t.g, &t.kx, &t.ky, t.flip, ox, oy);
          }
          evaluate(&t, middle);
          if (t.z > h.z) {
            h = t;
            moved = true;
          }
        }
        if (!moved) break;
      }
    }
    refined.push_back(h);
  }

  // 3. Final: the detector over every kept frame.
  std::vector<SearchCandidate> finals;
  const Hypothesis* winner = nullptr;
  for (const Hypothesis& h : refined) {
    const int32_t ncols = canvas_cells(h.g.sx, h.g.phx, copy.width, sp);
    const int32_t nrows = canvas_cells(h.g.sy, h.g.phy, copy.height, sp);
    if (ncols < 2 || nrows < 2) continue;
    const CanvasBlock b = s.measure(h.g, 0, 0, ncols, nrows, 0, kept, true);
    const DetectResult r = s.read(b, h.kx, h.ky, h.flip);
    const GeoTransform t = s.transform(h.g, h.kx, h.ky, h.flip);
    if (winner == nullptr || r.z > out->result.z) {
      winner = &h;
      out->result = r;
      out->transform = t;
    }
    finals.push_back(SearchCandidate{t, r.wm_id, r.z});
  }
  // One candidate per ID, strongest first.
  std::stable_sort(finals.begin(), finals.end(),
                   [](const SearchCandidate& a, const SearchCandidate& b) { return a.z > b.z; });
  for (const SearchCandidate& c : finals) {
    bool seen = false;
    for (const SearchCandidate& o : out->candidates) seen = seen || o.wm_id == c.wm_id;
    if (!seen) out->candidates.push_back(c);
  }
  if (winner != nullptr && !expected_bits.empty()) {
    const CanvasBlock b = s.measure(winner->g, 0, 0, canvas_cells(winner->g.sx, winner->g.phx, copy.width, sp),
                                    canvas_cells(winner->g.sy, winner->g.phy, copy.height, sp), 0,
                                    kept, true);
    s.read(b, winner->kx, winner->ky, winner->flip);
    out->ber = detector_bit_error_rate(d, detector_expected_symbols(d, expected_bits));
  }

  out->hypotheses = prior + s.decodes();
  out->detected_z = threshold_for_hypotheses(kDetectedZ, static_cast<double>(out->hypotheses));
  out->weak_z = threshold_for_hypotheses(kWeakZ, static_cast<double>(out->hypotheses));
  const DetectResult& top = out->result;
  const double z = top.z;
  Verdict v = z >= out->detected_z ? Verdict::kDetected
              : z >= out->weak_z   ? Verdict::kWeak
                                   : Verdict::kNone;
  // Another ID that fits almost as well: no ID is named. It must stand out
  // of the noise of the hypotheses tried (at most a 1e-4-scale chance of a
  // noise decode reaching the floor per read, as for the thresholds).
  const double floor = threshold_for_hypotheses(kAmbiguousFloorZ, static_cast<double>(out->hypotheses));
  if (v == Verdict::kDetected) {
    for (const SearchCandidate& c : out->candidates) {
      if (c.wm_id != top.wm_id && c.z >= floor && c.z >= kAmbiguousRatio * z) {
        v = Verdict::kAmbiguous;
      }
    }
  }
  out->result.verdict = v;
  return 0;
}

}  // namespace

int32_t resync_search(const DetectConfig& config, const CopyFrames& copy, SearchMode mode,
                      const std::string& expected_bits, ResyncResult* out, std::string* error) {
  if (mode != SearchMode::kAuto) {
    return search_once(config, copy, mode, expected_bits, 0, false, out, error);
  }
  if (search_once(config, copy, SearchMode::kFast, expected_bits, 0, false, out, error) != 0) {
    return -1;
  }
  if (out->result.verdict == Verdict::kDetected || out->result.verdict == Verdict::kAmbiguous) {
    return 0;
  }
  return search_once(config, copy, SearchMode::kFull, expected_bits, out->hypotheses, true, out,
                     error);
}

bool aligned_read_confirmed(const DetectConfig& config, const CopyFrames& copy,
                            const std::string& bits) {
  Detector d;
  if (copy.luma.empty() || detector_init(&d, config, nullptr) != 0) return true;
  Search s(config, copy, &d);
  const int32_t sp = s.sp();
  double aligned_z = -1;
  double other_z = -1;
  std::string decoded;
  for (int32_t py = 0; py < 3; ++py) {
    for (int32_t px = 0; px < 3; ++px) {
      Geometry g;
      g.phx = static_cast<double>(sp) * px / 3;
      g.phy = static_cast<double>(sp) * py / 3;
      const int32_t ncols = canvas_cells(1, g.phx, copy.width, sp);
      const int32_t nrows = canvas_cells(1, g.phy, copy.height, sp);
      // On a large frame the middle half in each direction is plenty.
      const bool part = static_cast<int64_t>(ncols) * nrows >= kWholeFrameCells;
      const CanvasBlock b = part ? s.measure(g, ncols / 4, nrows / 4, ncols / 2, nrows / 2, 0, 1, false)
                                 : s.measure(g, 0, 0, ncols, nrows, 0, 1, false);
      for (int32_t ky = -1; ky <= 1; ++ky) {
        for (int32_t kx = -1; kx <= 1; ++kx) {
          if ((px == 0 && kx != 0) || (py == 0 && ky != 0)) continue;
          const double z = s.score(b, kx, ky, false, &decoded);
          if (px == 0 && py == 0) {
            aligned_z = z;
          } else if (decoded != bits) {
            other_z = std::max(other_z, z);
          }
        }
      }
    }
  }
  return other_z <= aligned_z;
}

}  // namespace lumamark
