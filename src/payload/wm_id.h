// Watermark identifier: validation, bit string, and the URN hash.
#pragma once

#include <cstdint>

namespace lumamark {

// 0 when the hexadecimal id fits in nbits bits; -3 nbits > 2048, -5 a
// non-hexadecimal character, -2 empty id, -4 too long for nbits (or nbits < 0).
int32_t wm_id_validate(const char* id, int32_t nbits);

// The id's value in binary, right-aligned and zero-padded to exactly nbits
// '0'/'1' characters, NUL-terminated. Allocated with malloc; the caller frees it.
char* hex_to_bits(const char* id, uint32_t nbits);

// 32-bit hash of a 32-digit hexadecimal URN, read as four 8-digit words.
uint32_t urn_hash(const char* urn);

}  // namespace lumamark
