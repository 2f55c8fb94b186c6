// Watermark identifier: validation against the payload bit count, conversion
// to a fixed-width '0'/'1' string, and the 32-bit hash of the organisation URN.
#include "payload/wm_id.h"

#include <cstdlib>
#include <cstring>

namespace lumamark {

namespace {

// Hexadecimal digits as the default locale classifies them; every byte of 128
// or more is outside the set.
int hex_value(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Four-character binary forms of the nibbles 0..15, most significant bit
// first, each NUL-terminated; entry d starts at byte 5 * d.
constexpr char kNibbles[] =
    "0000\0" "0001\0" "0010\0" "0011\0" "0100\0" "0101\0" "0110\0" "0111\0"
    "1000\0" "1001\0" "1010\0" "1011\0" "1100\0" "1101\0" "1110\0" "1111";

// Position of the highest set bit of a nonzero nibble (1 for 1, 4 for 8..15).
int nibble_bitlen(int d) { return d >= 8 ? 4 : d >= 4 ? 3 : d >= 2 ? 2 : 1; }

}  // namespace

int32_t wm_id_validate(const char* id, int32_t nbits) {
  if (nbits > 2048) return -3;
  if (id == nullptr) return -2;
  for (const char* p = id; *p != '\0'; ++p) {
    if (hex_value(static_cast<unsigned char>(*p)) < 0) return -5;
  }
  if (id[0] == '\0') return -2;
  const char* sig = id;
  while (*sig == '0') ++sig;
  if (*sig == '\0') return nbits < 0 ? -4 : 0;
  // Bits needed: the first significant digit's own length plus four per digit
  // after it. Counted in 64 bits so that an absurdly long ID cannot wrap.
  const int64_t trailing = static_cast<int64_t>(std::strlen(sig + 1));
  const int64_t needed = nibble_bitlen(hex_value(static_cast<unsigned char>(*sig))) + 4 * trailing;
  return nbits < needed ? -4 : 0;
}

char* hex_to_bits(const char* id, uint32_t nbits) {
  const size_t n = nbits;
  char* out = static_cast<char*>(std::malloc(n + 1));
  if (out == nullptr) return nullptr;
  std::memset(out, '0', n);
  out[n] = '\0';
  if (id == nullptr) return out;
  const char* sig = id;
  while (*sig == '0') ++sig;
  const size_t digits = std::strlen(sig);
  // Walk from the last digit to the first; the k-th digit from the right
  // lands at position nbits - 4k, and a digit that only partly fits keeps its
  // low-order characters.
  for (size_t k = 1; k <= digits; ++k) {
    const int d = hex_value(static_cast<unsigned char>(sig[digits - k]));
    if (d < 0) std::exit(1);
    const int64_t p = static_cast<int64_t>(n) - 4 * static_cast<int64_t>(k);
    const char* nib = kNibbles + 5 * d;
    if (p >= 0) {
      std::memcpy(out + p, nib, 4);
    } else if (p > -4) {
      std::memcpy(out, nib - p, static_cast<size_t>(4 + p));
    }
  }
  return out;
}

uint32_t urn_hash(const char* urn) {
  const size_t len = urn == nullptr ? 0 : std::strlen(urn);
  uint32_t w[4];
  for (int g = 0; g < 4; ++g) {
    char buf[9] = {};
    const size_t start = static_cast<size_t>(8 * g);
    // A group that starts at or past the end of a short URN stays empty (0).
    if (start < len) std::strncpy(buf, urn + start, 8);
    // strtoul accepts white space, a sign and a 0x prefix; a '-' negates in
    // unsigned long arithmetic. Only the low 32 bits are kept.
    w[g] = static_cast<uint32_t>(std::strtoul(buf, nullptr, 16));
  }
  // Groups are mixed from the last to the first.
  uint32_t h = w[3];
  for (int g = 2; g >= 0; --g) {
    h *= 1025u;
    h ^= h >> 6;
    h += w[g];
  }
  h *= 1025u;
  h ^= h >> 6;
  h *= 9u;
  h ^= h >> 11;
  h *= 32769u;
  return h;
}

}  // namespace lumamark
