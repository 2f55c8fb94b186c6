// Superpixel seed from the luma content: a hash over coarse cell sums.
#include "filter/seed.h"

#include <cstddef>
#include <cstdlib>

#include "kernels/dispatch.h"
#include "kernels/intmath.h"

namespace lumamark {

namespace {

constexpr int32_t kModulus = 9001;

// h = (h * 31 + v) mod 9001 over the values, from h, in wrapping 32-bit
// arithmetic with a remainder that keeps the sign of the dividend.
int32_t hash_chain(const int32_t* values, int64_t n, int32_t h) {
  for (int64_t i = 0; i < n; ++i) h = wrap_add(wrap_mul(h, 31), values[i]) % kModulus;
  return h;
}

// The same chain for values that are never negative: then nothing wraps and
// every step is ordinary arithmetic modulo 9001, so eight steps fold into
// h' = (31^8 h + sum of 31^(7 - j) v_j) mod 9001, and only one remainder per
// eight values stays on the chain. h0 is a hash of such values (0..9000).
int32_t hash_chain_non_negative(const int32_t* values, int64_t n, int32_t h0) {
  uint64_t power[9];
  power[0] = 1;
  for (int k = 1; k <= 8; ++k) power[k] = power[k - 1] * 31 % kModulus;
  uint64_t h = static_cast<uint64_t>(h0);
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t acc = h * power[8];
    for (int j = 0; j < 8; ++j) acc += power[7 - j] * static_cast<uint64_t>(values[i + j]);
    h = acc % kModulus;
  }
  for (; i < n; ++i) h = (h * 31 + static_cast<uint64_t>(values[i])) % kModulus;
  return static_cast<int32_t>(h);
}

// Whether every cell value of the grid is non-negative: a cell whose sum
// stays below 2^31 has a non-negative value.
bool non_negative_cells(const SeedGrid& g) {
  return static_cast<int64_t>(g.cw) * g.ch * 255 < (int64_t{1} << 31);
}

// The chain over n more values, from h.
int32_t hash_more(const SeedGrid& g, const int32_t* values, int64_t n, int32_t h) {
  return non_negative_cells(g) ? hash_chain_non_negative(values, n, h) : hash_chain(values, n, h);
}

}  // namespace

SeedGrid seed_grid(int32_t width, int32_t height, int32_t cells_x, int32_t cells_y, int32_t cols,
                   int32_t rows) {
  SeedGrid g{};
  g.gx = wrap_mul(cols, cells_x);
  g.gy = wrap_mul(rows, cells_y);
  g.cells = wrap_mul(g.gx, g.gy);
  // No cell at all (including a cell count that wraps to a non-positive one).
  if (g.cells < 1 || g.gx < 1 || g.gy < 1) {
    g.cells = 0;
    return g;
  }
  g.cw = width / g.gx;
  g.ch = height / g.gy;
  return g;
}

bool seed_grid_has_samples(const SeedGrid& g) { return g.cells >= 1 && g.cw >= 1 && g.ch >= 1; }

int32_t seed_from_cells(const SeedGrid& g, const int32_t* values) {
  if (g.cells < 1) return 0;
  return hash_more(g, values, g.cells, 0) % 32;
}

bool seed_scan_init(SeedScan* s, const SeedGrid& grid) {
  *s = SeedScan{};
  s->grid = grid;
  if (!seed_grid_has_samples(grid)) return false;
  s->row = static_cast<int32_t*>(std::malloc(static_cast<size_t>(grid.gx) * sizeof(int32_t)));
  return s->row != nullptr;
}

void seed_scan_restart(SeedScan* s) {
  s->rows_done = 0;
  s->hash = 0;
}

void seed_scan_rows(SeedScan* s, const uint8_t* luma, int32_t stride, int64_t rows) {
  const SeedGrid& g = s->grid;
  if (s->row == nullptr) return;
  const int64_t ready = rows / g.ch;
  const KernelTable& k = kernels();
  for (; s->rows_done < g.gy && s->rows_done < ready; ++s->rows_done) {
    k.cell_sums(luma + static_cast<ptrdiff_t>(s->rows_done) * g.ch * stride, stride, g.cw, g.ch, g.gx, 0, 1,
                s->row);
    s->hash = hash_more(g, s->row, g.gx, s->hash);
  }
}

bool seed_scan_done(const SeedScan& s) { return s.row != nullptr && s.rows_done == s.grid.gy; }

int32_t seed_scan_seed(const SeedScan& s) { return s.hash % 32; }

void seed_scan_free(SeedScan* s) {
  std::free(s->row);
  s->row = nullptr;
}

int32_t image_seed(const uint8_t* luma, int32_t width, int32_t height, int32_t stride,
                   int32_t cells_x, int32_t cells_y, int32_t cols, int32_t rows) {
  const SeedGrid g = seed_grid(width, height, cells_x, cells_y, cols, rows);
  // Without samples every cell value is 0, and so is the hash.
  if (!seed_grid_has_samples(g)) return 0;
  SeedScan scan;
  if (!seed_scan_init(&scan, g)) {
    // Without room for a row of cell values: cell by cell.
    int32_t h = 0;
    for (int32_t r = 0; r < g.gy; ++r) {
      for (int32_t c = 0; c < g.gx; ++c) {
        int32_t v = 0;
        const uint8_t* cell = luma + static_cast<ptrdiff_t>(r) * g.ch * stride +
                              static_cast<ptrdiff_t>(c) * g.cw;
        kernels().cell_sums(cell, stride, g.cw, g.ch, 1, 0, 1, &v);
        h = wrap_add(wrap_mul(h, 31), v) % kModulus;
      }
    }
    return h % 32;
  }
  seed_scan_restart(&scan);
  seed_scan_rows(&scan, luma, stride, static_cast<int64_t>(g.gy) * g.ch);
  const int32_t seed = seed_scan_seed(scan);
  seed_scan_free(&scan);
  return seed;
}

}  // namespace lumamark
