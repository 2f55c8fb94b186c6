// Worker threads: the thread-count rules, a static split of work into
// contiguous ranges (the first ranges one item longer) and the runner that
// every threaded driver uses.
#pragma once

#include <cstdint>

namespace lumamark {

constexpr int32_t kMaxWorkers = 64;  // hard upper limit of worker threads per call

// Online processors as the system reports them (sysconf), as a 64-bit value.
int64_t online_processors();

// Texture-map rule: threads >= 1 gives min(threads, 64); otherwise the online
// processor count, 1 when it is below 1, at most 64.
int32_t texture_worker_count(int32_t threads);

// Embedding rule: threads >= 1 gives min(threads, 64); otherwise the online
// processor count: 0 or less gives 1, a positive count whose low 32 bits read as
// signed are 0 or less gives 0 (the caller then embeds nothing), else at most 64.
int32_t embed_worker_count(int32_t threads);

// The two rules above for a given online processor count (testable without
// asking the system).
int32_t texture_worker_count_for(int32_t threads, int64_t online);
int32_t embed_worker_count_for(int32_t threads, int64_t online);

// Range [first, end) of worker i when total items are split over n workers.
void split_range(int32_t total, int32_t n, int32_t i, int32_t* first, int32_t* end);

// Runs fn(arg_i) for i = 0..n-1, where arg_i = args + i * arg_size: workers
// 0..n-2 each on its own thread (started in order, joined in order), the last
// one on the calling thread. A worker whose thread cannot be started runs on
// the calling thread instead. n of 1 runs inline.
void run_workers(void (*fn)(void*), void* args, int32_t arg_size, int32_t n);

// The pattern of every threaded driver: one Task per worker, filled by
// fill(&task, first, end, i) for worker i's range [first, end) of total
// items, then fn run on each task as run_workers does. n is clamped to
// kMaxWorkers; nothing runs when it is below 1.
template <typename Task, typename Fill>
void run_split(void (*fn)(void*), int32_t n, int32_t total, Fill fill) {
  if (n < 1) return;
  if (n > kMaxWorkers) n = kMaxWorkers;
  Task tasks[kMaxWorkers];
  for (int32_t i = 0; i < n; ++i) {
    int32_t first = 0;
    int32_t end = 0;
    split_range(total, n, i, &first, &end);
    fill(&tasks[i], first, end, i);
  }
  run_workers(fn, tasks, static_cast<int32_t>(sizeof(Task)), n);
}

}  // namespace lumamark
