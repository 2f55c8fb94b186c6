// lumamark-sample: writes a deterministic synthetic test clip as raw planar
// YUV, so that demos and tests have realistic content without downloading
// anything or needing a video tool.
//
// The scene is a slow camera pan over a landscape: a smooth gradient sky with
// soft clouds, a mountain ridge, a textured meadow with fine grain, and a flat
// road with dashed markings that scroll faster (parallax). A bright bar with a
// finely striped sign sweeps across the frame and a flat disc bounces through
// it, so every frame holds smooth gradients, flat areas, sharp edges, fine
// detail and texture, and everything moves.
//
// Only integer arithmetic is used (hashes, tables and fixed-point
// interpolation), so the output is byte-identical on every machine and with
// every compiler. The textures are precomputed once into a tile; a frame then
// costs a few table reads per pixel.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace lumamark {
namespace {

constexpr int32_t kTileW = 2048;  // texture tile width, a power of two (wraps with a mask)
constexpr int32_t kTileH = 1024;  // texture tile height, a power of two
constexpr int32_t kRidgeLen = 4096;  // length of the wrapping 1-D ridge profile

uint32_t mix32(uint32_t x) {
  x ^= x >> 16;
  x *= 0x7feb352dU;
  x ^= x >> 15;
  x *= 0x846ca68bU;
  x ^= x >> 16;
  return x;
}

uint32_t lattice(uint32_t x, uint32_t y, uint32_t salt) {
  return mix32(x * 0x9e3779b1U ^ mix32(y + salt * 0x85ebca6bU));
}

// Smoothstep weights in 1/256 steps: w(f) = 3f^2 - 2f^3 for f = i / 256.
struct Smooth {
  int32_t w[256];
  Smooth() {
    for (int32_t i = 0; i < 256; ++i) w[i] = (i * i * (768 - 2 * i)) >> 16;
  }
};

int32_t lerp256(int32_t a, int32_t b, int32_t w) { return a + (((b - a) * w) >> 8); }

// Multi-octave value noise over a seamless kTileW x kTileH tile, values 0..255.
std::vector<uint8_t> make_tile(uint32_t salt) {
  static const Smooth smooth;
  struct Octave {
    int32_t shift;   // lattice period is 1 << shift pixels
    int32_t amp;     // weight of the octave
  };
  static constexpr Octave kOctaves[] = {{8, 96}, {7, 64}, {6, 40}, {5, 26}, {4, 16}, {3, 10}, {2, 6}};
  int32_t amp_sum = 0;
  for (const Octave& o : kOctaves) amp_sum += o.amp;
  std::vector<int32_t> acc(size_t(kTileW) * kTileH, 0);
  std::vector<int32_t> grid;
  uint32_t octave_index = 0;
  for (const Octave& o : kOctaves) {
    const int32_t period = 1 << o.shift;
    const int32_t nx = kTileW >> o.shift, ny = kTileH >> o.shift;
    const uint32_t s = salt * 131U + octave_index++;
    // Lattice values, with one wrapped extra column and row so that the tile is seamless.
    grid.assign(size_t(nx + 1) * (ny + 1), 0);
    for (int32_t gy = 0; gy <= ny; ++gy)
      for (int32_t gx = 0; gx <= nx; ++gx)
        grid[size_t(gy) * (nx + 1) + gx] = int32_t(lattice(uint32_t(gx % nx), uint32_t(gy % ny), s) & 255);
    for (int32_t y = 0; y < kTileH; ++y) {
      const int32_t* g0 = &grid[size_t(y >> o.shift) * (nx + 1)];
      const int32_t* g1 = g0 + (nx + 1);
      const int32_t wy = smooth.w[((y & (period - 1)) << 8) >> o.shift];
      int32_t* row = &acc[size_t(y) * kTileW];
      for (int32_t x = 0; x < kTileW; ++x) {
        const int32_t gx = x >> o.shift;
        const int32_t wx = smooth.w[((x & (period - 1)) << 8) >> o.shift];
        const int32_t top = lerp256(g0[gx], g0[gx + 1], wx), bottom = lerp256(g1[gx], g1[gx + 1], wx);
        row[x] += o.amp * lerp256(top, bottom, wy);
      }
    }
  }
  // Stretch the sum's narrow bell-shaped histogram to use most of 0..255.
  std::vector<uint8_t> tile(acc.size());
  for (size_t i = 0; i < acc.size(); ++i) {
    const int32_t v = acc[i] / amp_sum;  // 0..255, mostly near 128
    int32_t s = 128 + (v - 128) * 5 / 2;
    tile[i] = uint8_t(s < 0 ? 0 : s > 255 ? 255 : s);
  }
  return tile;
}

// A wrapping 1-D fractal profile, values 0..1023, for the mountain ridge.
std::vector<int32_t> make_ridge() {
  static const Smooth smooth;
  std::vector<int32_t> ridge(kRidgeLen, 0);
  static constexpr int32_t kShifts[] = {9, 7, 5, 3};
  static constexpr int32_t kAmps[] = {560, 280, 120, 40};
  for (int32_t o = 0; o < 4; ++o) {
    const int32_t shift = kShifts[o], period = 1 << shift;
    const uint32_t n = uint32_t(kRidgeLen >> shift);
    for (int32_t x = 0; x < kRidgeLen; ++x) {
      const uint32_t g0 = uint32_t(x >> shift), g1 = (g0 + 1) % n;
      const int32_t w = smooth.w[((x & (period - 1)) << 8) >> shift];
      const int32_t a = int32_t(lattice(g0, 7, 900 + o) & 255), b = int32_t(lattice(g1, 7, 900 + o) & 255);
      ridge[x] += kAmps[o] * lerp256(a, b, w) / 256;
    }
  }
  return ridge;
}

uint8_t clamp8(int32_t v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

struct Options {
  int32_t width = 1920;          // frame width in pixels, even for subsampled chroma
  int32_t height = 1080;         // frame height in pixels, even for yuv420p
  int32_t frames = 72;           // number of frames to write
  int32_t sub_x = 1;             // chroma subsampling shift, horizontal (1 for 420/422)
  int32_t sub_y = 1;             // chroma subsampling shift, vertical (1 for 420)
  std::string pix_fmt = "yuv420p";  // yuv420p, yuv422p or yuv444p
  std::string output;            // output path; empty = standard output
};

class SampleClip {
 public:
  explicit SampleClip(const Options& opt)
      : o_(opt), sky_(make_tile(1)), land_(make_tile(2)), ridge_(make_ridge()) {
    const size_t cw = size_t(o_.width >> o_.sub_x), ch = size_t(o_.height >> o_.sub_y);
    frame_.resize(size_t(o_.width) * o_.height + 2 * cw * ch);
  }

  const std::vector<uint8_t>& render(int32_t t) {
    const int32_t W = o_.width, H = o_.height;
    const int32_t cw = W >> o_.sub_x;
    uint8_t* Y = frame_.data();
    uint8_t* U = Y + size_t(W) * H;
    uint8_t* V = U + size_t(cw) * (H >> o_.sub_y);
    const int32_t sx_mask = (1 << o_.sub_x) - 1, sy_mask = (1 << o_.sub_y) - 1;

    // Geometry scales with the frame so that every size looks alike.
    const int32_t horizon = H * 34 / 100;          // lowest point of the sky
    const int32_t ridge_span = H * 22 / 100 + 1;   // height range of the ridge
    const int32_t ground_top = H * 56 / 100;
    const int32_t road_top = H * 82 / 100;
    const int32_t unit = W / 320 + 1;              // motion step per frame

    // Mountain ridge per column: the ridge scrolls slowly.
    ridge_y_.resize(size_t(W));
    for (int32_t x = 0; x < W; ++x) {
      const int32_t rx = (x * 1024 / W * 2 + t * 2) & (kRidgeLen - 1);
      ridge_y_[size_t(x)] = horizon - ridge_span + ridge_[size_t(rx)] * ridge_span / 1024;
    }

    // Moving objects.
    const int32_t bar_w = W / 40 + 2;
    const int32_t bar_x = (t * unit * 3) % (W + bar_w) - bar_w;
    const int32_t bar_top = H / 10, bar_bottom = road_top;
    const int32_t sign_top = H / 5, sign_bottom = H * 2 / 5;
    const int32_t radius = H / 9 + 1;
    const int32_t disc_x = W / 5 + (t * unit * 2) % (W * 3 / 5 + 1);
    const int32_t bounce = (t * unit * 3) % (2 * (H / 3) + 1);
    const int32_t disc_y = H / 3 + (bounce <= H / 3 ? bounce : 2 * (H / 3) - bounce);
    const int32_t r2 = radius * radius;
    const int32_t dash_len = W / 12 + 1, lane_y0 = road_top + (H - road_top) * 45 / 100;
    const int32_t lane_y1 = lane_y0 + H / 90 + 1;

    for (int32_t y = 0; y < H; ++y) {
      uint8_t* yrow = Y + size_t(y) * W;
      const bool chroma_row = (y & sy_mask) == 0;
      uint8_t* urow = U + size_t(y >> o_.sub_y) * cw;
      uint8_t* vrow = V + size_t(y >> o_.sub_y) * cw;
      const int32_t sky_grad = 64 + 120 * y / (horizon + 1);  // darker zenith, bright horizon
      const uint8_t* cloud_row = &sky_[size_t(((y >> 1) + 300) & (kTileH - 1)) * kTileW];
      const uint8_t* rock_row = &land_[size_t((y + 517) & (kTileH - 1)) * kTileW];
      const int32_t gy = y - ground_top;
      const uint8_t* grass_row = &land_[size_t((gy * 2 + 40) & (kTileH - 1)) * kTileW];
      const bool in_lane = y >= lane_y0 && y < lane_y1;
      const int32_t dy = y - disc_y;
      for (int32_t x = 0; x < W; ++x) {
        int32_t l, u, v;
        if (y < ridge_y_[size_t(x)]) {
          // Sky: vertical gradient with soft, slowly drifting clouds.
          const int32_t cloud = cloud_row[((x + t) >> 1) & (kTileW - 1)] - 150;
          const int32_t c = cloud > 0 ? cloud * 3 / 2 : 0;
          l = sky_grad + c;
          u = 160 - 24 * y / (horizon + 1) - c / 4;
          v = 108 + c / 5;
        } else if (y < ground_top) {
          // Mountains: rocky mid-frequency texture, darker with distance from the ridge.
          // Ridged noise (folded around mid-grey) gives crease-like rock structure.
          const int32_t fold = rock_row[(x + 2 * t) & (kTileW - 1)] - 128;
          const int32_t rock = 255 - 2 * (fold < 0 ? -fold : fold);
          const int32_t depth = (y - ridge_y_[size_t(x)]) * 48 / (ground_top - horizon + ridge_span);
          l = 40 + rock / 2 + depth;
          u = 118 + rock / 16;
          v = 134 - rock / 32;
        } else if (y < road_top) {
          // Meadow: strong texture plus per-pixel grain that moves with the pan.
          const int32_t wx = x + 4 * t;
          const int32_t grass = grass_row[wx & (kTileW - 1)];
          const int32_t grain = int32_t(lattice(uint32_t(wx), uint32_t(y), 5) & 63) - 32;
          l = 30 + grass * 3 / 5 + grain;
          u = 96 + grass / 16;
          v = 104 + (grass >> 3) - (grain >> 3);
        } else {
          // Road: flat asphalt with dashed lane markings scrolling fast.
          const bool dash = in_lane && ((x + t * unit * 8) / dash_len) % 2 == 0;
          l = dash ? 225 : 62;
          u = 128;
          v = dash ? 132 : 126;
        }
        if (x >= bar_x && x < bar_x + bar_w && y >= bar_top && y < bar_bottom) {
          if (y >= sign_top && y < sign_bottom && x >= bar_x + 2 && x < bar_x + bar_w - 2) {
            l = ((y + x / 3) & 1) ? 230 : 24;  // fine stripes: detail at the pixel scale
            u = 128;
            v = 128;
          } else {
            l = 205;
            u = 100;
            v = 196;
          }
        }
        const int32_t dx = x - disc_x;
        if (dx * dx + dy * dy <= r2) {
          l = 188;  // flat disc with a hard edge
          u = 52;
          v = 150;
        }
        yrow[x] = clamp8(l);
        if (chroma_row && (x & sx_mask) == 0) {
          urow[x >> o_.sub_x] = clamp8(u);
          vrow[x >> o_.sub_x] = clamp8(v);
        }
      }
    }
    return frame_;
  }

 private:
  Options o_;
  std::vector<uint8_t> sky_;      // cloud texture tile
  std::vector<uint8_t> land_;     // rock and grass texture tile
  std::vector<int32_t> ridge_;    // 1-D ridge profile, 0..1023
  std::vector<int32_t> ridge_y_;  // per-column ridge row of the current frame
  std::vector<uint8_t> frame_;    // current frame, Y then U then V
};

void usage(FILE* out) {
  std::fputs(
      "Usage: lumamark-sample [options]\n"
      "Writes a synthetic raw planar YUV clip (a deterministic panning landscape).\n"
      "  --width <int>     frame width (default 1920)\n"
      "  --height <int>    frame height (default 1080)\n"
      "  --frames <int>    number of frames (default 72)\n"
      "  --pix-fmt <str>   yuv420p (default), yuv422p or yuv444p\n"
      "  --output <path>   output file (default: standard output)\n",
      out);
}

bool parse_int(const char* text, int32_t lo, int32_t hi, int32_t* out) {
  char* end = nullptr;
  const long v = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || v < lo || v > hi) return false;
  *out = int32_t(v);
  return true;
}

int run(int argc, char** argv) {
  Options opt;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      usage(stdout);
      return 0;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "lumamark-sample: unknown option or missing argument: %s\n", arg.c_str());
      return 1;
    }
    const char* val = argv[++i];
    bool ok = true;
    if (arg == "--width") {
      ok = parse_int(val, 1, 16384, &opt.width);
    } else if (arg == "--height") {
      ok = parse_int(val, 1, 16384, &opt.height);
    } else if (arg == "--frames") {
      ok = parse_int(val, 0, 1000000, &opt.frames);
    } else if (arg == "--pix-fmt") {
      opt.pix_fmt = val;
    } else if (arg == "--output") {
      opt.output = val;
    } else {
      std::fprintf(stderr, "lumamark-sample: unknown option: %s\n", arg.c_str());
      return 1;
    }
    if (!ok) {
      std::fprintf(stderr, "lumamark-sample: bad value for %s: %s\n", arg.c_str(), val);
      return 1;
    }
  }
  if (opt.pix_fmt == "yuv420p") {
    opt.sub_x = 1;
    opt.sub_y = 1;
  } else if (opt.pix_fmt == "yuv422p") {
    opt.sub_x = 1;
    opt.sub_y = 0;
  } else if (opt.pix_fmt == "yuv444p") {
    opt.sub_x = 0;
    opt.sub_y = 0;
  } else {
    std::fprintf(stderr, "lumamark-sample: unsupported pixel format: %s\n", opt.pix_fmt.c_str());
    return 1;
  }
  // Odd sizes would need rounded-up chroma planes, which raw tools disagree on.
  if ((opt.width & ((1 << opt.sub_x) - 1)) != 0 || (opt.height & ((1 << opt.sub_y) - 1)) != 0) {
    std::fprintf(stderr, "lumamark-sample: %s needs an even width%s\n", opt.pix_fmt.c_str(),
                 opt.sub_y ? " and height" : "");
    return 1;
  }

  FILE* out = stdout;
  if (!opt.output.empty()) {
    out = std::fopen(opt.output.c_str(), "wb");
    if (!out) {
      std::fprintf(stderr, "lumamark-sample: cannot open %s\n", opt.output.c_str());
      return 1;
    }
  }
  SampleClip clip(opt);
  for (int32_t t = 0; t < opt.frames; ++t) {
    const std::vector<uint8_t>& frame = clip.render(t);
    if (std::fwrite(frame.data(), 1, frame.size(), out) != frame.size()) {
      std::fprintf(stderr, "lumamark-sample: write failed after %d frames\n", int(t));
      if (out != stdout) std::fclose(out);
      return 1;
    }
  }
  if (out != stdout) {
    if (std::fclose(out) != 0) {
      std::fprintf(stderr, "lumamark-sample: write failed: %s\n", opt.output.c_str());
      return 1;
    }
  } else if (std::fflush(stdout) != 0) {
    return 1;
  }
  return 0;
}

}  // namespace
}  // namespace lumamark

int main(int argc, char** argv) { return lumamark::run(argc, argv); }
