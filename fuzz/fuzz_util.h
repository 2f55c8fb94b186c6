// Helpers shared by the fuzz targets.
#pragma once

#include <cstdlib>
#include <streambuf>

namespace lumamark::fuzz {

// A stream buffer that swallows what the code under test prints.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c == traits_type::eof() ? 0 : c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Stops the run at a broken invariant, so that the fuzzer keeps the input.
inline void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace lumamark::fuzz
