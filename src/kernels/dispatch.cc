// The kernel tables and the choice made at start-up.
#include "kernels/dispatch.h"

#include <cstdlib>
#include <cstring>

#include "kernels/cells.h"
#include "kernels/embed.h"
#include "kernels/measure.h"
#include "kernels/x86/avx2.h"

namespace lumamark {
namespace {

constexpr KernelTable kPlain = {
    "plain",          cell_sums,        texture_rows_direct, embed_band,
    embed_band_prepare, embed_superpixel, embed_superpixel_repeat, signal_measure,
    signal_measure_grid, embed_repeat_run,
};

constexpr KernelTable kAvx2 = {
    "avx2",           cell_sums_avx2,   texture_rows_avx2,   embed_band_avx2,
    embed_band_prepare_avx2, embed_superpixel_avx2, embed_superpixel_repeat_avx2,
    signal_measure_avx2, signal_measure_grid_avx2, embed_repeat_run_avx2,
};

// The plain table until start-up has looked at the processor.
const KernelTable* g_table = &kPlain;
KernelSet g_set = KernelSet::Plain;

// Every instruction-set flag the files under x86/ are compiled with
// (-mavx2 -mfma -mbmi2; AVX2 brings AVX and POPCNT with it). The compiler's
// check also asks the operating system whether it saves the AVX registers.
bool cpu_has_avx2() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx") && __builtin_cpu_supports("avx2") &&
         __builtin_cpu_supports("fma") && __builtin_cpu_supports("bmi2") &&
         __builtin_cpu_supports("popcnt");
#else
  return false;
#endif
}

// LUMAMARK_CPU=plain keeps the vector kernels out of the process, for tests
// and for chasing a problem; read once, on first use.
bool plain_forced() {
  static const bool forced = [] {
    const char* value = std::getenv("LUMAMARK_CPU");
    return value != nullptr && std::strcmp(value, "plain") == 0;
  }();
  return forced;
}

// Installs the fastest table before main runs. This file is compiled for
// the baseline processor; nothing built for AVX2 runs before this check.
const bool g_started = use_kernel_set(best_kernel_set());

}  // namespace

const KernelTable& kernels() { return *g_table; }

const KernelTable& kernel_table(KernelSet set) { return set == KernelSet::Avx2 ? kAvx2 : kPlain; }

bool kernel_set_supported(KernelSet set) {
  if (set == KernelSet::Plain) return true;
  static const bool avx2 = !plain_forced() && cpu_has_avx2();
  return avx2;
}

KernelSet best_kernel_set() {
  return kernel_set_supported(KernelSet::Avx2) ? KernelSet::Avx2 : KernelSet::Plain;
}

bool use_kernel_set(KernelSet set) {
  if (!kernel_set_supported(set)) return false;
  g_table = &kernel_table(set);
  g_set = set;
  return true;
}

KernelSet current_kernel_set() { return g_set; }

}  // namespace lumamark
