// The blind detector.
//
// Every frame is turned into soft values and decoded on its own first; its
// confidence z tells how clearly the frame carries a mark (a video encoder
// keeps the mark best in its intra frames and blurs it in the predicted ones),
// and the frame enters the running sum with the weight z squared. Frames
// with no surviving mark decode to the noise level and weigh little next to
// the frames that carry it, while a run of equally weak frames still adds up.
// The ID is decoded from the weighted sum.
#include "decode/detector.h"

#include <cstdlib>
#include <cstring>

#include "kernels/intmath.h"
#include "payload/fec.h"
#include "payload/layout.h"
#include "payload/wm_id.h"

namespace lumamark {

namespace {

// Selection of one seed, spread over the repetitions exactly as a frame's
// mask is spread by the embedder: with the index table symbol k of repetition
// j takes the mask byte of the coded symbol that row j mod 16 names; without
// it every repetition copies the first L bytes. Cells past the last whole
// repetition are never embedded.
std::vector<uint8_t> selection_for_seed(const Detector& d, int32_t seed) {
  std::vector<uint8_t> mask(static_cast<size_t>(d.cells), 0);
  std::vector<uint8_t> sel(static_cast<size_t>(d.cells), 0);
  mark_selection(d.layout, d.indexes.empty() ? nullptr : d.indexes.data(), d.config.sp_density,
                 seed, mask.data(), sel.data());
  return sel;
}

// Decodes one vector of cell values; returns the strength of the mark in it
// (the decode confidence in Reed-Muller mode, the rms reliability of the
// coded bits in parity mode) and leaves the decision in the detector.
double decode_cells(Detector* d, const float* cells, double* confidence) {
  if (d->config.fec == 2) {
    const double z = rm_decode_with_plan(d->plan, cells, d->bits.data(), d->decisions.data(),
                                         &d->rm_scratch);
    if (confidence != nullptr) *confidence = z;
    return z;
  }
  parity_decode(cells, d->reps, d->indexes.data(), d->length, d->config.bit_profile, &d->parity);
  d->bits = d->parity.bits;
  if (confidence != nullptr) *confidence = d->parity.min_z;
  return d->parity.rms_z;
}

}  // namespace

int32_t detector_init(Detector* d, const DetectConfig& c, std::string* error) {
  auto bad = [error](const std::string& message) {
    if (error != nullptr) *error = message;
    return -1;
  };
  if (c.threads < 0) return bad("--threads must be >= 0 (0 = auto-detect)");
  if (c.sp_width < 5 || c.sp_width > 64) return bad("--sp-width must be in [5, 64]");
  // Twice the border wraps in 32 bits exactly as in the embedder's check, so
  // both accept the same borders (a border near the 32-bit limit passes and
  // leaves no inner area).
  if (c.sp_width <= wrap_mul(2, c.spb_width)) {
    return bad("SP size and border mismatch, reduce borders");
  }
  if (c.fec != 0 && c.fec != 2) {
    return bad("Unsupported FEC mode (" + std::to_string(c.fec) + "), use 0 or 2");
  }
  if (c.bit_profile < 1 || c.bit_profile > 2048) {
    return bad("--bit-profile must be in [1, 2048]");
  }
  if (c.strength < 1) return bad("--strength must be at least 1");
  if (c.sp_density < 0 || c.sp_density > 100) {
    return bad("--sp-density must be in [0, 100]");
  }
  const int32_t cols = c.width / c.sp_width;
  const int32_t rows = c.height / c.sp_width;
  if (c.width < 1 || c.height < 1 || cols < 1 || rows < 1) {
    return bad("the frame holds no superpixel");
  }
  const int64_t cells = static_cast<int64_t>(cols) * rows;
  if (cells > kMaxDetectorCells) {
    return bad("the frame has " + std::to_string(cells) + " superpixels; at most " +
               std::to_string(kMaxDetectorCells) + " are supported");
  }

  d->config = c;
  d->grid = SoftGrid{cols, rows, c.sp_width, c.spb_width};
  d->layout = mark_layout(c.width, c.height, c.sp_width, c.bit_profile, c.fec, c.user_urn.c_str());
  d->cells = d->layout.cells;
  d->length = d->layout.length;
  d->reps = d->layout.reps;
  const uint32_t seed = d->layout.urn_seed;
  if (c.fec == 2) {
    if (c.bit_profile > d->length) {
      return bad("--bit-profile exceeds the " + std::to_string(d->length) +
                            " superpixels of the frame");
    }
    if (rm_decode_plan(&d->plan, c.bit_profile, d->length, seed) != 0) {
      return bad("the payload code cannot be built for these settings");
    }
    d->decisions.assign(d->plan.blocks.size(), RmBlockDecision{});
    d->indexes.clear();
  } else {
    if (d->reps < 1) {
      return bad("the frame holds no whole repetition of the " +
                            std::to_string(d->length) + " coded bits");
    }
    d->indexes.assign(static_cast<size_t>(mark_index_table_bytes(d->length)), 0);
    mark_index_table(d->layout, d->indexes.data());
  }
  d->bits.assign(static_cast<size_t>(c.bit_profile), '0');

  d->signs.assign(static_cast<size_t>(d->cells), 0);
  mark_sign_pattern(d->layout, c.strength, d->signs.data());

  d->selections.clear();
  d->selection_seeds.clear();
  if (c.sp_density < 100) {
    for (int32_t s = 0; s < 32; ++s) {
      if (c.seed >= 0 && s != (c.seed & 31)) continue;
      d->selections.push_back(selection_for_seed(*d, s));
      d->selection_seeds.push_back(s);
    }
  }

  detector_reset(d);
  d->measures.assign(static_cast<size_t>(d->cells), 0);
  d->soft.assign(static_cast<size_t>(d->cells), 0.0f);
  d->masked.assign(static_cast<size_t>(d->cells), 0.0f);
  d->best.assign(static_cast<size_t>(d->cells), 0.0f);
  d->decode_in.assign(static_cast<size_t>(d->cells), 0.0f);
  return 0;
}

void detector_add_frame(Detector* d, const uint8_t* luma, int32_t stride) {
  measure_frame(luma, stride, d->grid, d->measures.data(), d->config.threads);
  soft_values(d->measures.data(), d->grid, d->signs.data(), d->soft.data(), &d->soft_scratch);
  detector_add_soft(d, d->soft.data());
}

void detector_add_soft(Detector* d, const float* soft) {
  const size_t n = static_cast<size_t>(d->cells);
  // Only the cells of whole repetitions carry a symbol.
  const size_t used = static_cast<size_t>(d->reps) * static_cast<size_t>(d->length);
  std::memcpy(d->best.data(), soft, n * sizeof(float));
  for (size_t i = used; i < n; ++i) d->best[i] = 0.0f;

  FrameScore score;
  if (d->selections.empty()) {
    score.z = decode_cells(d, d->best.data(), nullptr);
  } else {
    // The frame's selection seed is unknown unless it was given: keep the
    // candidate selection under which the frame decodes most clearly.
    double top = -1;
    for (size_t s = 0; s < d->selections.size(); ++s) {
      const std::vector<uint8_t>& sel = d->selections[s];
      for (size_t i = 0; i < n; ++i) d->masked[i] = sel[i] != 0 ? d->best[i] : 0.0f;
      const double z = decode_cells(d, d->masked.data(), nullptr);
      if (z > top) {
        top = z;
        score.z = z;
        score.seed = d->selection_seeds[s];
        d->decode_in.swap(d->masked);
      }
    }
    d->best.swap(d->decode_in);
  }
  const double w = score.z * score.z;
  for (size_t i = 0; i < n; ++i) d->sum[i] += w * d->best[i];
  if (score.z > d->top_z) {
    d->top_z = score.z;
    d->top.assign(d->best.begin(), d->best.end());
  }
  d->scores.push_back(score);
}

void detector_reset(Detector* d) {
  d->sum.assign(static_cast<size_t>(d->cells), 0.0);
  d->scores.clear();
  d->top.clear();
  d->top_z = -1;
}

DetectResult detector_result(Detector* d) {
  DetectResult r;
  r.frames = static_cast<int32_t>(d->scores.size());
  const size_t n = static_cast<size_t>(d->cells);
  for (size_t i = 0; i < n; ++i) d->decode_in[i] = static_cast<float>(d->sum[i]);
  double z = 0;
  decode_cells(d, d->decode_in.data(), &z);
  // A frame that decodes more clearly alone than the weighted sum does (a
  // lone intra frame among predicted frames that carry noise) gives the answer.
  if (r.frames > 1 && !d->top.empty()) {
    double top_z = 0;
    decode_cells(d, d->top.data(), &top_z);
    if (top_z > z) {
      z = top_z;
    } else {
      decode_cells(d, d->decode_in.data(), &z);
    }
  }
  if (r.frames == 0) z = 0;
  r.bits = d->bits;
  r.wm_id = bits_to_hex(r.bits);
  r.z = z;
  r.verdict = verdict_for(z);
  if (d->config.fec == 2) {
    r.blocks = d->decisions;
  } else {
    r.parity_ok = d->parity.parity_ok;
  }
  return r;
}

std::string detector_expected_symbols(const Detector& d, const std::string& bits) {
  const DetectConfig& c = d.config;
  if (bits.size() != static_cast<size_t>(c.bit_profile)) return {};
  const std::string hex = bits_to_hex(bits);
  std::string cells(static_cast<size_t>(d.cells), '-');
  if (c.fec == 2) {
    if (rm_encode_payload(cells.data(), hex.c_str(), c.bit_profile, d.length, d.layout.urn_seed) !=
        0) {
      return {};
    }
    return cells;
  }
  char* coded = fec_encode(hex.c_str(), c.bit_profile, d.length, 0);
  if (coded == nullptr) return {};
  for (int32_t i = 0; i < d.reps; ++i) {
    for (int32_t j = 0; j < d.length; ++j) {
      const uint8_t idx = d.indexes[static_cast<size_t>((i % kIndexRows) * d.length + j)];
      cells[static_cast<size_t>(i) * d.length + j] = coded[idx];
    }
  }
  std::free(coded);
  return cells;
}

double detector_bit_error_rate(const Detector& d, const std::string& expected) {
  int64_t counted = 0;
  int64_t wrong = 0;
  for (size_t i = 0; i < expected.size() && i < d.sum.size(); ++i) {
    if (expected[i] == '-' || d.sum[i] == 0.0) continue;
    ++counted;
    wrong += (d.sum[i] < 0) != (expected[i] == '1');
  }
  return counted > 0 ? static_cast<double>(wrong) / static_cast<double>(counted) : 0.0;
}

Verdict verdict_for(double z) {
  if (z >= kDetectedZ) return Verdict::kDetected;
  if (z >= kWeakZ) return Verdict::kWeak;
  return Verdict::kNone;
}

const char* verdict_name(Verdict v) {
  switch (v) {
    case Verdict::kDetected:
      return "detected";
    case Verdict::kWeak:
      return "weak";
    case Verdict::kAmbiguous:
      return "ambiguous";
    case Verdict::kNone:
      break;
  }
  return "none";
}

std::string bits_to_hex(const std::string& bits) {
  const size_t digits = (bits.size() + 3) / 4;
  const size_t pad = digits * 4 - bits.size();
  std::string hex;
  hex.reserve(digits);
  int32_t v = 0;
  for (size_t i = 0; i < digits * 4; ++i) {
    const int32_t bit = i < pad ? 0 : bits[i - pad] == '1';
    v = v * 2 + bit;
    if (i % 4 == 3) {
      hex.push_back("0123456789abcdef"[v]);
      v = 0;
    }
  }
  return hex;
}

}  // namespace lumamark
