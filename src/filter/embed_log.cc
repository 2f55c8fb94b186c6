// The embedding log: a JSON file with a fixed-width statistics line at the
// top (a placeholder until the frame is finished), then one entry per
// embedded superpixel.
#include "filter/embed_log.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kernels/intmath.h"
#include "kernels/measure.h"

namespace lumamark {

namespace {

constexpr int32_t kBins = 21;            // absolute values 0..20 get a bin
constexpr size_t kDictLimit = 511;       // characters of one per-value dictionary
constexpr size_t kStatsBufferSize = 2048;  // statistics text buffer, terminator included

// Twice the border of one side: the setting, or the automatic one.
int32_t doubled_border(int32_t border, int32_t size) {
  if (border > 0) return wrap_mul(2, border);
  if (size <= 7) return 2;
  return wrap_mul(2, size / 8);
}

// "\"name\": {" + "\"k\": avg" items joined by ", " + "}", cut to the size of
// its buffer.
std::string per_value_dict(const char* name, const int64_t* counts, const double* sums) {
  std::string text = "\"";
  text += name;
  text += "\": {";
  bool first = true;
  for (int32_t k = 0; k < kBins; ++k) {
    if (counts[k] <= 0) continue;
    char item[96];
    std::snprintf(item, sizeof item, "%s\"%d\": %.4f", first ? "" : ", ", k,
                  sums[k] / static_cast<double>(counts[k]));
    text += item;
    first = false;
  }
  text += "}";
  if (text.size() > kDictLimit) text.resize(kDictLimit);
  return text;
}

}  // namespace

EmbedLog* embed_log_open(const char* path, int32_t sp_w, int32_t sp_h, int32_t border_w,
                         int32_t border_h, int32_t init_value, int32_t stride) {
  if (path == nullptr || path[0] == '\0') return nullptr;
  FILE* file = std::fopen(path, "w");
  if (file == nullptr) return nullptr;
  EmbedLog* log = static_cast<EmbedLog*>(std::calloc(1, sizeof(EmbedLog)));
  if (log == nullptr) {
    std::fclose(file);
    return nullptr;
  }
  log->file = file;
  log->first_entry = 1;
  log->noise_min = INT32_MAX;
  log->noise_max = INT32_MIN;
  log->signal_min = 1e9;
  log->signal_max = -1e9;
  log->init_value = init_value;
  log->sp_w = sp_w;
  log->sp_h = sp_h;
  log->border_w = border_w;
  log->border_h = border_h;
  log->stride = stride;
  const int32_t bw2 = doubled_border(border_w, sp_w);
  const int32_t bh2 = doubled_border(border_h, sp_h);
  const int32_t area = wrap_mul(wrap_sub(sp_h, bh2), wrap_sub(sp_w, bw2));
  log->inner_area = area > 1 ? area : 1;

  std::fprintf(file, "%-1024s\n", "{\"stats\": {},");
  std::fputs("\"entries\": [\n", file);
  return log;
}

void embed_log_add(EmbedLog* log, const uint8_t* luma, int32_t sx, int32_t sy, int32_t value,
                   int32_t signal) {
  // The measure reads no frame size.
  const FrameGeometry geometry{0, 0, log->stride, log->sp_w, log->sp_h, log->border_w, log->border_h};
  const int32_t extr =
      signal_measure(luma, &geometry, wrap_mul(sx, log->sp_w), wrap_mul(sy, log->sp_h));
  embed_log_add_measured(log, sx, sy, value, signal, extr);
}

void embed_log_add_measured(EmbedLog* log, int32_t sx, int32_t sy, int32_t value, int32_t signal,
                            int32_t extr) {
  const double area = static_cast<double>(log->inner_area);
  const double signal_val = static_cast<double>(signal) / area;
  const double extr_val = static_cast<double>(extr) / area;

  log->total_sp_count += 1;
  log->noise_sum += value;
  log->signal_sum += signal_val;
  if (value < log->noise_min) log->noise_min = value;
  if (value > log->noise_max) log->noise_max = value;
  if (log->signal_min > signal_val) log->signal_min = signal_val;
  if (signal_val > log->signal_max) log->signal_max = signal_val;

  const int64_t mag = value < 0 ? -static_cast<int64_t>(value) : value;
  if (mag <= 20) {
    log->bin_count[mag] += 1;
    log->bin_signal_sum[mag] += std::abs(signal_val);
    log->bin_extr_sum[mag] += std::abs(extr_val);
  }

  if (log->first_entry == 0) std::fputs(",\n", log->file);
  std::fprintf(log->file,
               "  {\"sp_x\": %d, \"sp_y\": %d, \"noise_val\": %d, \"signal_val\": %.4f, "
               "\"signal_val_extr\": %.4f}",
               sx, sy, value, signal_val, extr_val);
  log->first_entry = 0;
}

void embed_log_finish(EmbedLog* log) {
  if (log == nullptr) return;
  if (log->file == nullptr) {
    std::free(log);
    return;
  }
  std::fputs("\n]}\n", log->file);
  std::fseek(log->file, 0, SEEK_SET);

  double noise_avg = 0.0;
  double signal_avg = 0.0;
  if (log->total_sp_count != 0) {
    noise_avg = static_cast<double>(log->noise_sum) / static_cast<double>(log->total_sp_count);
    signal_avg = log->signal_sum / static_cast<double>(log->total_sp_count);
  }
  const std::string dict = per_value_dict("str_stats", log->bin_count, log->bin_signal_sum);
  const std::string dict_extr =
      per_value_dict("str_stats_extr", log->bin_count, log->bin_extr_sum);

  // Untouched extremes are printed as 0.
  const int32_t noise_min = log->noise_min == INT32_MAX ? 0 : log->noise_min;
  const int32_t noise_max = log->noise_max == INT32_MIN ? 0 : log->noise_max;
  const double signal_min = log->signal_min > 1e8 ? 0.0 : log->signal_min;
  const double signal_max = log->signal_max < -1e8 ? 0.0 : log->signal_max;

  char stats[kStatsBufferSize];
  std::snprintf(stats, sizeof stats,
                "{\"stats\": {\"init_value\": %d, \"total_sp_count\": %" PRId64
                ", \"noise_val\": {\"min\": %d, \"max\": %d, \"avg\": %.2f, \"sum\": %" PRId64
                "}, \"signal_val\": {\"min\": %.4f, \"max\": %.4f, \"avg\": %.4f, \"sum\": %.4f}, "
                "%s, %s},",
                log->init_value, log->total_sp_count, noise_min, noise_max, noise_avg,
                log->noise_sum, signal_min, signal_max, signal_avg, log->signal_sum, dict.c_str(),
                dict_extr.c_str());
  // A statistics text longer than the placeholder runs on over the start of
  // the next line.
  std::fprintf(log->file, "%-1024s\n", stats);
  std::fclose(log->file);
  std::free(log);
}

}  // namespace lumamark
