// Thread-count rules, static range split and the thread runner shared by the
// embedding driver, the frame scan of the filter and the detector's
// measurement.
#include "common/parallel.h"

#include <pthread.h>
#include <unistd.h>

#include <cstddef>

namespace lumamark {

namespace {

// What a worker thread starts with: the function and its argument.
struct WorkerStart {
  void (*fn)(void*);  // work function
  void* arg;          // its argument
};

void* worker_entry(void* p) {
  const WorkerStart* start = static_cast<const WorkerStart*>(p);
  start->fn(start->arg);
  return nullptr;
}

}  // namespace

int64_t online_processors() { return static_cast<int64_t>(sysconf(_SC_NPROCESSORS_ONLN)); }

int32_t texture_worker_count_for(int32_t threads, int64_t online) {
  if (threads >= 1) return threads < kMaxWorkers ? threads : kMaxWorkers;
  if (online < 1) return 1;
  return online < kMaxWorkers ? static_cast<int32_t>(online) : kMaxWorkers;
}

int32_t embed_worker_count_for(int32_t threads, int64_t online) {
  if (threads >= 1) return threads < kMaxWorkers ? threads : kMaxWorkers;
  if (online <= 0) return 1;
  // A count whose low 32 bits do not form a positive number stops the frame.
  if (static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(online))) <= 0) return 0;
  return online < kMaxWorkers ? static_cast<int32_t>(online) : kMaxWorkers;
}

int32_t texture_worker_count(int32_t threads) {
  if (threads >= 1) return texture_worker_count_for(threads, 0);
  return texture_worker_count_for(threads, online_processors());
}

int32_t embed_worker_count(int32_t threads) {
  if (threads >= 1) return embed_worker_count_for(threads, 0);
  return embed_worker_count_for(threads, online_processors());
}

void split_range(int32_t total, int32_t n, int32_t i, int32_t* first, int32_t* end) {
  const int32_t base = total / n;
  const int32_t rem = total % n;
  const int32_t start = i * base + (i < rem ? i : rem);
  *first = start;
  *end = start + base + (i < rem ? 1 : 0);
}

void run_workers(void (*fn)(void*), void* args, int32_t arg_size, int32_t n) {
  if (n < 1) return;
  if (n > kMaxWorkers) n = kMaxWorkers;
  char* base = static_cast<char*>(args);
  if (n == 1) {
    fn(base);
    return;
  }
  WorkerStart starts[kMaxWorkers];
  pthread_t handles[kMaxWorkers];
  bool started[kMaxWorkers];
  // The last worker runs on the calling thread, which would otherwise only
  // wait; that saves one thread start per call.
  for (int32_t i = 0; i + 1 < n; ++i) {
    starts[i].fn = fn;
    starts[i].arg = base + static_cast<ptrdiff_t>(i) * arg_size;
    started[i] = pthread_create(&handles[i], nullptr, worker_entry, &starts[i]) == 0;
    // Workers touch disjoint data, so one that cannot get its own thread can
    // run here without changing the result.
    if (!started[i]) fn(starts[i].arg);
  }
  fn(base + static_cast<ptrdiff_t>(n - 1) * arg_size);
  for (int32_t i = 0; i + 1 < n; ++i) {
    if (started[i]) pthread_join(handles[i], nullptr);
  }
}

}  // namespace lumamark
