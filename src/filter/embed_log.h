// Embedding log: a JSON file whose first line is a fixed 1024-character
// statistics line, rewritten at the end of the frame, followed by the entries.
#pragma once

#include <cstdint>
#include <cstdio>

namespace lumamark {

struct EmbedLog {
  FILE* file;                  // the log file, opened "w"
  int32_t first_entry;         // 1 until the first entry is written
  int64_t total_sp_count;      // number of entries
  int64_t noise_sum;           // sum of the embedded values
  double signal_sum;           // sum of signal_val
  int32_t noise_min;           // smallest embedded value; starts at INT32_MAX
  int32_t noise_max;           // largest embedded value; starts at INT32_MIN
  double signal_min;           // smallest signal_val; starts at 1e9
  double signal_max;           // largest signal_val; starts at -1e9
  int32_t inner_area;          // normalising pixel count of one superpixel, >= 1
  int32_t init_value;          // the frame's seed
  int32_t sp_w;                // superpixel width
  int32_t sp_h;                // superpixel height
  int32_t border_w;            // border width setting (below 1 = automatic)
  int32_t border_h;            // border height setting (below 1 = automatic)
  int32_t stride;              // bytes between luma rows
  int64_t bin_count[21];       // entries per absolute value 0..20
  double bin_signal_sum[21];   // sum of |signal_val| per absolute value
  double bin_extr_sum[21];     // sum of |signal_val_extr| per absolute value
};

// Opens the log and writes the placeholder line and "\"entries\": [". Null for
// a null or empty path or when the file cannot be opened.
EmbedLog* embed_log_open(const char* path, int32_t sp_w, int32_t sp_h, int32_t border_w,
                         int32_t border_h, int32_t init_value, int32_t stride);

// Records one superpixel (measures it again for signal_val_extr).
void embed_log_add(EmbedLog* log, const uint8_t* luma, int32_t sx, int32_t sy, int32_t value,
                   int32_t signal);

// Records one superpixel whose after-embedding measure is already known.
void embed_log_add_measured(EmbedLog* log, int32_t sx, int32_t sy, int32_t value, int32_t signal,
                            int32_t extr);

// Writes the statistics line, closes and releases the log; null does nothing.
void embed_log_finish(EmbedLog* log);

}  // namespace lumamark
