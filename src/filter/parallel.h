// Worker threads: the thread-count rules and a static split of work into
// contiguous ranges, the first ranges one item longer.
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

}  // namespace lumamark
