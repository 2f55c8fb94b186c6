// The embedding driver: one pattern bank per frame, optional deep-fake
// targets, and a static split of the superpixels over worker threads.
#include "filter/embed_driver.h"

#include <pthread.h>

#include <cstddef>
#include <cstdlib>

#include "common/parallel.h"
#include "kernels/dispatch.h"
#include "kernels/embed.h"
#include "kernels/embed_band.h"
#include "kernels/intmath.h"
#include "kernels/measure.h"

namespace lumamark {

namespace {

// Serialises every use of an embedding log (statistics, measuring for the
// log, file writes) across all worker threads of the process.
pthread_mutex_t g_log_mutex = PTHREAD_MUTEX_INITIALIZER;

constexpr int32_t kClasses = 4;
constexpr int32_t kVariants = 16;
constexpr int32_t kKeyLength = 12;
// Density adjustments of the position classes, in percentage points:
// corners, edge bands, dividing lines, centre.
constexpr int32_t kClassAdjust[kClasses] = {20, 15, 5, -5};

enum Zone { kOuter, kLine, kInner };

Zone zone_of(int32_t s, int32_t quarter, int32_t count) {
  const int32_t far_line = count - quarter;
  if (s == quarter || s == far_line) return kLine;
  if (s < quarter || s > far_line) return kOuter;
  return kInner;
}

int64_t magnitude(int32_t v) { return v < 0 ? -static_cast<int64_t>(v) : v; }

void embed_worker_entry(void* arg) { embed_worker(static_cast<EmbedTask*>(arg)); }

// Map rows per stretch at least: the box window's rows are summed afresh at
// the start of every stretch.
constexpr int32_t kTextureStretchRows = 96;

}  // namespace

void texture_until(TextureOnDemand* t, int32_t limit) {
  const int32_t h = t->rows.height;
  if (limit > h) limit = h;
  if (t->done >= limit) return;
  const int64_t longer = int64_t{t->done} + kTextureStretchRows;
  t->rows.first_row = t->done;
  t->rows.end_row = static_cast<int32_t>(longer > h ? h : (longer > limit ? longer : limit));
  kernels().texture_rows(&t->rows);
  t->done = t->rows.end_row;
}

namespace {

// The class from the two zones; centre is whether tc < sx < cols - tc.
int32_t class_of_zones(Zone zx, Zone zy, bool centre) {
  if (zx == kLine || zy == kLine) return 2;
  if (zx == kOuter && zy == kOuter) return 0;
  if (zx == kOuter || zy == kOuter) return 1;
  return centre ? 3 : 2;
}

bool in_centre(int32_t sx, int32_t cols) {
  const int32_t tc = cols / 3;
  return tc < sx && sx < cols - tc;
}

}  // namespace

int32_t position_class(int32_t sx, int32_t sy, int32_t cols, int32_t rows) {
  return class_of_zones(zone_of(sx, cols / 4, cols), zone_of(sy, rows / 4, rows),
                        in_centre(sx, cols));
}

namespace {

// Which bank pattern each superpixel takes, worked out once per worker: the
// level of every map byte, as pattern_select picks it (level 0 for the value
// 0, else (|value| - 1) mod levels), and for each kind of row zone the number
// of every column's level-0 pattern of its class and variant. Pattern (class,
// variant, level) is number (class x variants + variant) x levels + level,
// and starts at number x level_stride in the bank.
struct PatternNumbers {
  int32_t level_of[256];
  int32_t* first = nullptr;  // 3 x cols numbers, one row of columns per row zone
};

bool pattern_numbers_init(PatternNumbers* p, const EmbedTask* t) {
  const int32_t cols = t->cols;
  p->first = static_cast<int32_t*>(std::malloc(static_cast<size_t>(cols) * 3 * sizeof(int32_t)));
  if (p->first == nullptr) return false;
  const int32_t levels = t->layout->levels;
  for (int32_t byte = 0; byte < 256; ++byte) {
    const int32_t value = wrap_sub(byte, t->strength);
    p->level_of[byte] = value == 0 ? 0 : static_cast<int32_t>(magnitude(value) - 1) % levels;
  }
  for (int32_t z = 0; z < 3; ++z) {
    for (int32_t sx = 0; sx < cols; ++sx) {
      const int32_t cls = class_of_zones(zone_of(sx, cols / 4, cols), static_cast<Zone>(z),
                                         in_centre(sx, cols));
      p->first[z * cols + sx] = (cls * kVariants + sx % kVariants) * levels;
    }
  }
  return true;
}

// The superpixels of a worker's range that lie on one superpixel row.
struct Run {
  int32_t y;                // top luma row of the superpixel row
  int32_t sx0;              // column of the first superpixel
  int32_t count;            // superpixels in the run
  const int32_t* first_of;  // level-0 pattern numbers of the run's columns
};

// The run that starts at superpixel i of t's range; false past the grid.
// The texture map is made ready for every row the run reads.
bool run_at(EmbedTask* t, const PatternNumbers& numbers, int32_t i, Run* run) {
  const int32_t cols = t->cols;
  const int32_t sy = i / cols;
  if (sy >= t->rows) return false;
  const int32_t sp_h = t->geometry->sp_h;
  run->y = sy * sp_h;
  run->sx0 = i - sy * cols;
  run->count = imin(t->end, (sy + 1) * cols) - i;
  run->first_of = numbers.first + zone_of(sy, t->rows / 4, t->rows) * cols + run->sx0;
  if (t->texture_on_demand != nullptr) {
    // Every map row that reads a luma row of this superpixel row.
    const int64_t limit = int64_t{run->y} + sp_h + t->texture_on_demand->rows.radius;
    texture_until(t->texture_on_demand, static_cast<int32_t>(limit < INT32_MAX ? limit : INT32_MAX));
  }
  return true;
}

// Without deep-fake passes and without a log nothing needs the sum of one
// superpixel, so the selected superpixels of each superpixel row are embedded
// together as runs. Returns false (having changed nothing) when the work
// space cannot be had.
bool embed_runs(EmbedTask* t) {
  const int32_t cols = t->cols;
  const FrameGeometry& g = *t->geometry;
  const int64_t scratch_bytes = embed_band_scratch_bytes(g.sp_w, g.sp_h, cols);
  uint8_t* scratch = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(scratch_bytes)));
  EmbedPick* picks = static_cast<EmbedPick*>(std::malloc(static_cast<size_t>(cols) * sizeof(EmbedPick)));
  PatternNumbers numbers;
  if (scratch == nullptr || picks == nullptr || !pattern_numbers_init(&numbers, t)) {
    std::free(scratch);
    std::free(picks);
    return false;
  }
  const EmbedBandFn embed = kernels().embed_band;
  Run run;
  for (int32_t i = t->first; i < t->end && run_at(t, numbers, i, &run); i += run.count) {
    const uint8_t* selection = t->selection + i;
    const uint8_t* map = t->map + i;
    for (int32_t k = 0; k < run.count; ++k) {
      picks[k].pattern = selection[k] == 1 ? run.first_of[k] + numbers.level_of[map[k]] : -1;
      picks[k].value = wrap_sub(map[k], t->strength);
    }
    const EmbedBand band{t->luma,  t->geometry,    run.y,      run.sx0 * g.sp_w, run.count,
                         picks,    t->patterns,    t->pattern_count, t->texture, t->pm_mode,
                         scratch,  t->prepared};
    embed(&band);
  }
  std::free(numbers.first);
  std::free(picks);
  std::free(scratch);
  return true;
}

// In deep-fake mode, unless the log is written superpixel by superpixel as
// the workers go, the selected superpixels of each superpixel row are
// embedded together as runs, pass by pass across the run. Returns false
// (having changed nothing) when the work space cannot be had.
bool embed_repeat_runs(EmbedTask* t) {
  const int32_t cols = t->cols;
  const FrameGeometry& g = *t->geometry;
  const int64_t scratch_bytes = embed_repeat_run_scratch_bytes(g.sp_w, g.sp_h, cols);
  if (scratch_bytes < 0) return false;
  uint8_t* scratch = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(scratch_bytes)));
  RepeatItem* items = static_cast<RepeatItem*>(std::malloc(static_cast<size_t>(cols) * sizeof(RepeatItem)));
  int32_t* signals = static_cast<int32_t*>(std::malloc(static_cast<size_t>(cols) * 2 * sizeof(int32_t)));
  PatternNumbers numbers;
  if (scratch == nullptr || items == nullptr || signals == nullptr || !pattern_numbers_init(&numbers, t)) {
    std::free(scratch);
    std::free(items);
    std::free(signals);
    return false;
  }
  const ptrdiff_t level_stride = t->layout->level_stride;
  const KernelTable& k = kernels();
  int32_t* measured_here = signals + cols;
  Run run;
  for (int32_t i = t->first; i < t->end && run_at(t, numbers, i, &run); i += run.count) {
    if (t->measures == nullptr && t->measure_in_place != 0) {
      // The targets of the run, before any of its pixels change: each
      // superpixel's measure reads only its own pixels, and the row pitch
      // (the frame width) is the stride.
      k.measure_grid(t->luma + static_cast<ptrdiff_t>(run.y) * g.stride + static_cast<ptrdiff_t>(run.sx0) * g.sp_w,
                     run.count, 1, measured_here, g.stride, g.sp_w, g.sp_h, g.border_w, g.border_h);
    }
    for (int32_t j = 0; j < run.count; ++j) {
      RepeatItem& item = items[j];
      if (t->selection[i + j] != 1) {
        item.pattern = nullptr;
        continue;
      }
      const uint8_t byte = t->map[i + j];
      // The target is the superpixel's measure before embedding.
      int32_t measured = 0;
      if (t->measures != nullptr) {
        measured = t->measures[i + j];
      } else if (t->measure_in_place != 0) {
        measured = measured_here[j];
      }
      const ptrdiff_t number = run.first_of[j] + numbers.level_of[byte];
      item = RepeatItem{t->bank + number * level_stride, wrap_sub(byte, t->strength), magnitude(measured)};
    }
    const EmbedRepeatRun repeat{t->luma, t->geometry, run.y, run.sx0 * g.sp_w, run.count, items,
                                t->texture, t->pm_mode, t->strength, signals, scratch};
    k.embed_repeat_run(&repeat);
    if (t->records != nullptr) {
      // Measured right away (only each superpixel's own pixels are read);
      // the driver writes the entries after all workers have finished.
      for (int32_t j = 0; j < run.count; ++j) {
        if (items[j].pattern == nullptr) continue;
        EmbedRecord& rec = t->records[i + j];
        rec.value = items[j].value;
        rec.signal = signals[j];
        rec.extr = k.signal_measure(t->luma, &g, (run.sx0 + j) * g.sp_w, run.y);
        rec.embedded = 1;
      }
    }
  }
  std::free(numbers.first);
  std::free(signals);
  std::free(items);
  std::free(scratch);
  return true;
}

}  // namespace

void embed_worker(EmbedTask* t) {
  if (t->deep_fake == 0 && t->log == nullptr && t->patterns != nullptr && embed_runs(t)) return;
  if (t->deep_fake != 0 && (t->log == nullptr || t->records != nullptr) && embed_repeat_runs(t)) return;
  if (t->texture_on_demand != nullptr) texture_until(t->texture_on_demand, INT32_MAX);

  const KernelTable& k = kernels();
  const FrameGeometry* g = t->geometry;
  const int32_t area = g->sp_w * g->sp_h;
  int8_t* scratch = nullptr;
  if (t->deep_fake != 0) scratch = static_cast<int8_t*>(std::malloc(static_cast<size_t>(area)));

  for (int32_t i = t->first; i < t->end; ++i) {
    const int32_t sx = i % t->cols;
    const int32_t sy = i / t->cols;
    if (sy >= t->rows) break;
    if (t->selection[i] != 1) continue;

    const int32_t value = wrap_sub(t->map[i], t->strength);
    const int32_t cls = position_class(sx, sy, t->cols, t->rows);
    const int8_t* pattern = pattern_select(t->bank, t->layout, cls, sx % 16, value);
    const int32_t x = sx * g->sp_w;
    const int32_t y = sy * g->sp_h;

    int32_t signal = 0;
    if (t->deep_fake == 0 || scratch == nullptr) {
      signal = k.embed_superpixel(t->luma, g, x, y, 1, value, pattern, t->texture, t->pm_mode);
    } else {
      // The target is the superpixel's measure before embedding. Measured
      // here, it reads only this superpixel's own pixels, which nothing has
      // changed yet (and the row pitch, the frame width, is the stride).
      int32_t measured = 0;
      if (t->measures != nullptr) {
        measured = t->measures[i];
      } else if (t->measure_in_place != 0) {
        measured = k.signal_measure(t->luma, g, x, y);
      }
      // Embed again and again with a growing amplitude on the same pixels
      // until the amplitude reaches the strength or the signal reaches the
      // superpixel's measure before embedding.
      signal = k.embed_repeat(t->luma, g, x, y, value, pattern, t->texture, t->pm_mode, t->strength,
                              magnitude(measured), scratch);
    }

    if (t->log == nullptr) continue;
    if (t->records != nullptr) {
      // Measured right away (only this superpixel's own pixels are read);
      // the driver writes the entry after all workers have finished.
      EmbedRecord& rec = t->records[i];
      rec.value = value;
      rec.signal = signal;
      rec.extr = k.signal_measure(t->luma, g, x, y);
      rec.embedded = 1;
    } else {
      pthread_mutex_lock(&g_log_mutex);
      if (t->log->file != nullptr) embed_log_add(t->log, t->luma, sx, sy, value, signal);
      pthread_mutex_unlock(&g_log_mutex);
    }
  }
  std::free(scratch);
}

void embed_frame(uint8_t* luma, const FrameGeometry* geometry, const EmbedSettings* settings,
                 const uint8_t* map, const uint8_t* selection, const uint8_t* texture,
                 EmbedLog* log, TextureOnDemand* texture_on_demand) {
  const int32_t width = geometry->width;
  const int32_t stride = geometry->stride;
  const int32_t sp_w = geometry->sp_w;
  const int32_t sp_h = geometry->sp_h;
  const int32_t strength = settings->strength;
  const int32_t deep_fake = settings->deep_fake;
  const int32_t pm_mode = settings->pm_mode;
  // Without amplitude levels there is nothing to embed (and no pattern to
  // pick); an empty grid has no superpixel.
  if (strength < 1 || sp_w < 1 || sp_h < 1) return;
  const int32_t cols = width / sp_w;
  const int32_t rows = geometry->height / sp_h;
  if (cols < 1 || rows < 1) return;
  const int32_t total = wrap_mul(rows, cols);
  if (total < 1) return;

  PatternLayout layout;
  pattern_layout(&layout, kClasses, kVariants, strength, sp_w, sp_h, geometry->border_w,
                 geometry->border_h);
  // A bank too large for its 32-bit size cannot be addressed.
  const int64_t bank_bytes = int64_t{kClasses} * kVariants * strength * sp_w * sp_h;
  if (bank_bytes != layout.total) return;
  int8_t* bank = static_cast<int8_t*>(std::malloc(static_cast<size_t>(layout.total)));
  if (bank == nullptr) return;

  // The first twelve map values key the bank; a grid of fewer superpixels
  // counts the missing ones as '0'.
  char key[kKeyLength + 1];
  for (int32_t k = 0; k < kKeyLength; ++k) {
    key[k] = (k < total && static_cast<int32_t>(map[k]) > strength) ? '1' : '0';
  }
  key[kKeyLength] = '\0';
  pattern_bank_fill(bank, &layout, settings->p_density, kClassAdjust, key,
                    static_cast<uint32_t>(settings->seed), pm_mode != 3);

  // The deep-fake targets are measured on the untouched frame, with the frame
  // width as the row pitch. When the width is the stride, a superpixel's
  // measure reads only its own pixels, so the worker that embeds it measures
  // it right before, on its own thread. Otherwise the whole grid is measured
  // first, with the grid kernel.
  int32_t* measures = nullptr;
  int32_t measure_in_place = 0;
  if (deep_fake != 0 && width == stride) {
    measure_in_place = 1;
  } else if (deep_fake != 0) {
    measures = static_cast<int32_t*>(std::malloc(static_cast<size_t>(total) * sizeof(int32_t)));
    if (measures != nullptr) {
      kernels().measure_grid(luma, cols, rows, measures, width, sp_w, sp_h, geometry->border_w,
                             geometry->border_h);
    }
  }

  // What the run kernels need to know of every pattern of the bank.
  const int32_t bank_patterns = kClasses * kVariants * strength;
  EmbedPattern* patterns = nullptr;
  if (deep_fake == 0 && log == nullptr) {
    patterns = static_cast<EmbedPattern*>(std::malloc(static_cast<size_t>(bank_patterns) * sizeof(EmbedPattern)));
    for (int32_t p = 0; patterns != nullptr && p < bank_patterns; ++p) {
      describe_pattern(bank + static_cast<ptrdiff_t>(p) * layout.level_stride, sp_w, sp_h, &patterns[p]);
    }
  }
  // What the run kernel can work out once per pattern instead of once per
  // superpixel.
  uint8_t* prepared = nullptr;
  if (patterns != nullptr) {
    const EmbedPrepareFn prepare = kernels().embed_prepare;
    const int64_t bytes = prepare(patterns, bank_patterns, sp_w, sp_h, pm_mode, nullptr);
    if (bytes > 0) prepared = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(bytes)));
    if (prepared != nullptr) prepare(patterns, bank_patterns, sp_w, sp_h, pm_mode, prepared);
  }

  const int32_t n = embed_worker_count(settings->threads);
  if (texture_on_demand != nullptr && n != 1) {
    // Several workers embed rows far apart: the whole map comes first.
    texture_until(texture_on_demand, INT32_MAX);
    texture_on_demand = nullptr;
  }
  if (n < 1) {
    std::free(prepared);
    std::free(patterns);
    std::free(measures);
    std::free(bank);
    return;
  }

  // Log entries are collected per superpixel and written in superpixel order
  // once all workers are done, so the log does not depend on the thread
  // count. That needs the log to measure exactly the superpixels embedded
  // here; otherwise the workers write to the log themselves.
  EmbedRecord* records = nullptr;
  if (log != nullptr && log->sp_w == sp_w && log->sp_h == sp_h && log->stride == stride &&
      log->border_w == geometry->border_w && log->border_h == geometry->border_h) {
    records =
        static_cast<EmbedRecord*>(std::calloc(static_cast<size_t>(total), sizeof(EmbedRecord)));
  }

  run_split<EmbedTask>(embed_worker_entry, n, total, [&](EmbedTask* t, int32_t first, int32_t end, int32_t) {
    *t = EmbedTask{luma,     geometry, strength,         deep_fake, pm_mode, map,   selection,
                   cols,     rows,     texture,          measures,  measure_in_place,
                   bank,     &layout,  first,            end,       log,     records, patterns,
                   bank_patterns, prepared, texture_on_demand};
  });

  if (records != nullptr) {
    pthread_mutex_lock(&g_log_mutex);
    if (log->file != nullptr) {
      for (int32_t i = 0; i < total; ++i) {
        const EmbedRecord& rec = records[i];
        if (rec.embedded == 0) continue;
        embed_log_add_measured(log, i % cols, i / cols, rec.value, rec.signal, rec.extr);
      }
    }
    pthread_mutex_unlock(&g_log_mutex);
    std::free(records);
  }
  std::free(prepared);
  std::free(patterns);
  std::free(measures);
  std::free(bank);
}

}  // namespace lumamark
