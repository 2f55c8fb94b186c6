// The kernel tables and the choice made at start-up.
#include "kernels/dispatch.h"

#include "kernels/cells.h"
#include "kernels/embed.h"
#include "kernels/measure.h"
#include "kernels/x86/avx2.h"

namespace lumamark {
namespace {

constexpr KernelTable kPlain = {
    "plain",          cell_sums,        texture_rows_direct, embed_band,
    embed_band_prepare, embed_superpixel, signal_measure,
};

constexpr KernelTable kAvx2 = {
    "avx2",           cell_sums_avx2,   texture_rows_avx2,   embed_band_avx2,
    embed_band_prepare_avx2, embed_superpixel_avx2, signal_measure_avx2,
};

// The plain table until start-up has looked at the processor.
const KernelTable* g_table = &kPlain;
KernelSet g_set = KernelSet::Plain;

bool cpu_has_avx2() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2") &&
         __builtin_cpu_supports("popcnt");
#else
  return false;
#endif
}

// Installs the fastest table before main runs.
const bool g_started = use_kernel_set(best_kernel_set());

}  // namespace

const KernelTable& kernels() { return *g_table; }

const KernelTable& kernel_table(KernelSet set) { return set == KernelSet::Avx2 ? kAvx2 : kPlain; }

bool kernel_set_supported(KernelSet set) {
  if (set == KernelSet::Plain) return true;
  static const bool avx2 = cpu_has_avx2();
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
