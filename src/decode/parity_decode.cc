// Parity-mode decoding. Each coded bit is carried by up to one superpixel per
// repetition; summing its soft values and dividing by the root of their
// summed squares gives a reliability that, on pure noise with random signs,
// is at most a standard normal deviate in size.
#include "decode/parity_decode.h"

#include <cmath>
#include <cstddef>

#include "payload/fec.h"
#include "payload/layout.h"

namespace lumamark {

bool parity_decode(const float* soft, int32_t reps, const uint8_t* indexes, int32_t L,
                   int32_t nbits, ParityDecision* out) {
  const int32_t g = fec_parity_group_size(nbits);
  if (g < 1) return false;
  const int32_t groups = (nbits + 7) / 8;
  if (L != nbits + groups) return false;

  out->soft.assign(static_cast<size_t>(L), 0.0);
  std::vector<double> energy(static_cast<size_t>(L), 0.0);
  for (int32_t i = 0; i < reps; ++i) {
    const uint8_t* row = indexes + static_cast<ptrdiff_t>(i % kIndexRows) * L;
    const float* cells = soft + static_cast<ptrdiff_t>(i) * L;
    for (int32_t j = 0; j < L; ++j) {
      const int32_t bit = row[j];
      if (bit >= L) continue;  // a table entry naming no coded bit
      out->soft[static_cast<size_t>(bit)] += cells[j];
      energy[static_cast<size_t>(bit)] += static_cast<double>(cells[j]) * cells[j];
    }
  }

  out->coded.assign(static_cast<size_t>(L), '0');
  out->z.assign(static_cast<size_t>(L), 0.0);
  double sum_z2 = 0;
  out->min_z = 0;
  for (int32_t j = 0; j < L; ++j) {
    const double s = out->soft[static_cast<size_t>(j)];
    const double e = energy[static_cast<size_t>(j)];
    const double z = e > 0 ? std::fabs(s) / std::sqrt(e) : 0.0;
    out->coded[static_cast<size_t>(j)] = s < 0 ? '1' : '0';
    out->z[static_cast<size_t>(j)] = z;
    sum_z2 += z * z;
    if (j == 0 || z < out->min_z) out->min_z = z;
  }
  out->rms_z = std::sqrt(sum_z2 / L);

  // Data group i: payload bits i * g .. min((i + 1) * g, nbits) - 1 sit at
  // coded positions shifted by i, followed by the parity character.
  out->bits.assign(static_cast<size_t>(nbits), '0');
  out->parity_ok.assign(static_cast<size_t>(groups), 0);
  for (int32_t i = 0; i < groups; ++i) {
    const int32_t start = i * g;
    const int32_t end = start + g < nbits ? start + g : nbits;
    int32_t ones = 0;
    for (int32_t b = start; b < end; ++b) {
      const char c = out->coded[static_cast<size_t>(b + i)];
      out->bits[static_cast<size_t>(b)] = c;
      ones += c == '1';
    }
    const int32_t parity = out->coded[static_cast<size_t>(end + i)] == '1';
    out->parity_ok[static_cast<size_t>(i)] = ((ones + parity) & 1) == 0;
  }
  return true;
}

}  // namespace lumamark
