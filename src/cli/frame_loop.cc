// The frame loop: whole frames from the input through the filter to the
// output, plainly or with reading and writing on threads of their own.
#include "cli/frame_loop.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "cli/progress.h"
#include "cli/splice_io.h"
#include "cli/stop_signals.h"
#include "cli/y4m.h"
#include "cli/y4m_stream.h"
#include "kernels/intmath.h"

namespace lumamark {

int64_t frame_size_for(const std::string& pix_fmt, int32_t width, int32_t height) {
  const int32_t area = wrap_mul(width, height);
  if (pix_fmt == "yuv420p") return wrap_mul(area, 3) / 2;
  if (pix_fmt == "yuv444p") return wrap_mul(area, 3);
  if (pix_fmt == "yuv422p") return wrap_mul(area, 2);
  return 0;
}

bool frame_size_wrapped(int64_t frame_size, int32_t width, int32_t height) {
  return frame_size > 0 && frame_size < int64_t{width} * int64_t{height};
}

namespace {

// Streams whole frames from in to out through the filter, until the input
// ends or the filter fails on a frame. Write results are not examined: a
// frame the output does not take (a full disk, a closed descriptor) is lost
// and the run goes on, as the tool's contract has it. The first prefill bytes
// of the first frame are already in the buffer.
LoopEnd run_frames(WatermarkFilter* filter, uint8_t* buffer, int64_t frame_size, FILE* in,
                   FILE* out, int32_t width, int32_t height, int32_t seed, size_t prefill,
                   const StopSignals* stops) {
  const size_t frame = static_cast<size_t>(frame_size);
  const int in_fd = fileno(in);
  // Drawn only when standard error is a terminal; erased before any message.
  Progress progress;
  size_t fill = prefill;
  for (;;) {
    // A frame may arrive in several pieces, as from a pipe; end of input and
    // a read error both end the loop, dropping any partial frame. So does a
    // stop signal, which is taken only here, between whole frames.
    if (!stops->wait_readable(in_fd)) {
      progress.finish();
      return LoopEnd::Done;
    }
    const ssize_t got = ::read(in_fd, buffer + fill, frame - fill);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      progress.summarize();
      return LoopEnd::Done;
    }
    fill += static_cast<size_t>(got);
    if (fill < frame) continue;
    if (wm_filter_apply(filter, buffer, width, height, width, seed) != 0) {
      progress.finish();
      std::cerr << "Error applying watermark" << std::endl;
      return LoopEnd::FilterFailed;
    }
    std::fwrite(buffer, 1, frame, out);
    progress.frame_done(frame_size);
    fill -= frame;
    // Reads never ask for more than the rest of a frame, so nothing is left
    // over; the spare second half of the buffer would hold any surplus.
    if (fill > 0) std::memmove(buffer, buffer + frame, fill);
  }
}

// Frames at least this large are streamed with reading and writing on their
// own threads; smaller ones gain nothing from the hand-offs.
constexpr int64_t kOverlapMinFrame = 64 * 1024;
// Frame buffers in flight: one being read, one being marked, one being
// written, and one spare so that a slow moment of one stage does not stall
// the others.
constexpr int32_t kSlots = 4;
// Pipe capacity asked for on a piped input or output: fewer, larger
// transfers and fewer wake-ups than the default 64 KiB. Measured against
// 1 MiB, this size moves frames as fast with less system time (larger pipes
// allocate and release more pages per frame).
constexpr int kPipeBytes = 256 * 1024;
// While the image-hash seed is summed as the luma arrives, the luma is read
// in pieces of at most this size, so that the rows it completes are summed
// while they are still in the cache.
constexpr size_t kScanPiece = 128 * 1024;
// y4m FRAME lines are read in pieces of this size; what a piece holds past
// the line is the start of the frame, copied into its buffer.
constexpr size_t kLinePiece = 4096;

void enlarge_pipe(int fd) {
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode)) fcntl(fd, F_SETPIPE_SZ, kPipeBytes);
}

// The frame loop of run_frames with the input read ahead and the output
// written behind on two threads of their own, over a ring of frame buffers.
// The main thread marks frame k in buffer k mod slots once the reader has
// filled it, the writer writes it once it is marked, and the reader refills
// it once it is written. What reaches the output, what is reported and in
// which order is the same as in the plain loop:
//   - a partial last frame is dropped, end of input and a read error alike;
//   - when the filter fails on a frame, every frame before it is written
//     before "Error applying watermark" is reported, and nothing after it;
//   - a frame the output does not take is lost without a message, and the
//     loop goes on.
// For y4m input, y4m is set: the reader reads each frame's FRAME line before
// its bytes, and the writer writes the line before the frame; a line that is
// not a FRAME line ends the input, and is reported once every frame before
// it is written.
struct Y4mFraming {
  FILE* stream = nullptr;          // the input stream, whose read-ahead bytes come first
  std::string carry;               // bytes read past a FRAME line, not yet used
  size_t carry_used = 0;           // of which handed out
  std::string lines[kSlots];       // per slot: the FRAME line of its frame
};

enum class LineRead { kOk, kEnd, kBad };

class OverlappedFrames {
 public:
  OverlappedFrames(WatermarkFilter* filter, uint8_t* const* slots, int32_t slot_count,
                   int64_t frame_size, int in_fd, int out_fd, int32_t width, int32_t height,
                   int32_t seed, size_t prefill, const StopSignals* stops, ChromaPipe* chroma,
                   SeedScan* scans, Y4mFraming* y4m)
      : filter_(filter), slots_(slots), slot_count_(slot_count), frame_(static_cast<size_t>(frame_size)),
        frame_size_(frame_size), in_fd_(in_fd), out_fd_(out_fd), width_(width), height_(height),
        seed_(seed), prefill_(prefill), stops_(stops), chroma_(chroma), scans_(scans), y4m_(y4m),
        luma_(static_cast<size_t>(width) * static_cast<size_t>(height)) {}

  OverlappedFrames(const OverlappedFrames&) = delete;
  OverlappedFrames& operator=(const OverlappedFrames&) = delete;

  // False when the threads cannot be had; nothing has been read then (the
  // writer, which reads nothing, is started first).
  bool start() {
    if (pthread_create(&writer_, nullptr, &OverlappedFrames::writer_entry, this) != 0) return false;
    if (pthread_create(&reader_, nullptr, &OverlappedFrames::reader_entry, this) != 0) {
      lock();
      stop_ = true;
      signal();
      unlock();
      pthread_join(writer_, nullptr);
      return false;
    }
    return true;
  }

  // Marks frames until the input ends or something fails, then stops both
  // threads. progress is drawn by the writer and finished here.
  LoopEnd run(Progress* progress) {
    progress_ = progress;
    LoopEnd end = LoopEnd::Done;
    int64_t frames = 0;  // frames taken from the reader
    for (int64_t k = 0;; ++k) {
      if (!wait_past(read_, k, input_ended_)) {
        lock();
        if (bad_line_) end = LoopEnd::Malformed;
        unlock();
        frames = k;
        break;
      }
      const SeedScan* scan = scans_ != nullptr ? &scans_[k % slot_count_] : nullptr;
      if (wm_filter_apply_scanned(filter_, slot(k), width_, height_, width_, seed_, scan) != 0) {
        // Every frame before this one is written first, as in the plain loop.
        lock();
        while (written_ < k) wait();
        end = LoopEnd::FilterFailed;
        unlock();
        break;
      }
      lock();
      marked_ = k + 1;
      signal();
      unlock();
    }
    if (end != LoopEnd::FilterFailed) {
      // Let the writer finish what is marked.
      lock();
      while (written_ < marked_) wait();
      unlock();
    }
    stop_reader();
    lock();
    stop_ = true;
    signal();
    unlock();
    pthread_join(writer_, nullptr);
    if (end == LoopEnd::Done) {
      progress->summarize();
    } else {
      progress->finish();
    }
    if (end == LoopEnd::FilterFailed) std::cerr << "Error applying watermark" << std::endl;
    if (end == LoopEnd::Malformed) {
      std::cerr << "Error: malformed y4m FRAME line before frame " << frames << std::endl;
    }
    return end;
  }

 private:
  static void* reader_entry(void* self) {
    static_cast<OverlappedFrames*>(self)->read_frames();
    return nullptr;
  }
  static void* writer_entry(void* self) {
    static_cast<OverlappedFrames*>(self)->write_frames();
    return nullptr;
  }

  uint8_t* slot(int64_t k) const { return slots_[k % slot_count_]; }
  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }
  void wait() { pthread_cond_wait(&changed_, &mutex_); }
  void signal() { pthread_cond_broadcast(&changed_); }

  // Waits until counter (frames done by a stage) passes frame k or ended is
  // set; true when frame k is there. Both are guarded by mutex_.
  bool wait_past(const int64_t& counter, int64_t k, const bool& ended) {
    lock();
    while (counter <= k && !ended) wait();
    const bool have = counter > k;
    unlock();
    return have;
  }

  // Ends the reader and waits for it. It may be blocked in a read that no
  // input will ever complete (a frame failed, and the rest of the input is
  // not wanted): it is cancelled, which it allows only inside its reads.
  void stop_reader() {
    lock();
    stop_reading_ = true;
    const bool done = reader_done_;
    signal();
    unlock();
    if (!done) pthread_cancel(reader_);
    pthread_join(reader_, nullptr);
  }

  // One wait for input and read of it, the only place where the reader may
  // be cancelled, and where a stop signal is taken (it then reads nothing
  // and returns 0, as at the end of the input).
  ssize_t cancellable_read(uint8_t* to, size_t bytes) {
    return cancellable_wait() ? read(in_fd_, to, bytes) : 0;
  }

  // The wait alone, before chroma is spliced: false when a stop signal came.
  bool cancellable_wait() {
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
    const bool readable = stops_->wait_readable(in_fd_);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    return readable;
  }

  // Sums the seed over the luma rows completed by the first fill bytes of
  // the frame in buffer (no scan: nothing).
  void scan_arrived(SeedScan* scan, const uint8_t* buffer, size_t fill) {
    if (scan == nullptr) return;
    const size_t luma_had = fill < luma_ ? fill : luma_;
    seed_scan_rows(scan, buffer, width_, static_cast<int64_t>(luma_had / static_cast<size_t>(width_)));
  }

  // Copies up to room bytes read past the last FRAME line to to; returns
  // how many.
  size_t take_carry(uint8_t* to, size_t room) {
    const size_t left = y4m_->carry.size() - y4m_->carry_used;
    const size_t n = left < room ? left : room;
    std::memcpy(to, y4m_->carry.data() + y4m_->carry_used, n);
    y4m_->carry_used += n;
    return n;
  }

  // Reads the next y4m FRAME line, its line end included, into *line, as
  // the plain y4m loop does: kEnd at the end of the input or at a stop
  // signal (a line cut short is dropped with it), kBad for a line that is
  // not a FRAME line, is longer than a y4m line may be, or meets a read
  // error part-way.
  LineRead read_frame_line(std::string* line) {
    line->clear();
    for (;;) {
      std::string& carry = y4m_->carry;
      if (y4m_->carry_used == carry.size()) {
        carry.resize(kLinePiece);
        y4m_->carry_used = 0;
        ssize_t got = 0;
        do {
          if (!cancellable_wait()) {
            got = 0;
            break;
          }
          got = read(in_fd_, carry.data(), kLinePiece);
        } while (got < 0 && errno == EINTR);
        carry.resize(got > 0 ? static_cast<size_t>(got) : 0);
        if (got == 0) return LineRead::kEnd;
        if (got < 0) return line->empty() ? LineRead::kEnd : LineRead::kBad;
      }
      const char* from = carry.data() + y4m_->carry_used;
      size_t n = carry.size() - y4m_->carry_used;
      if (n > kY4mMaxLine - line->size()) n = kY4mMaxLine - line->size();
      const void* end = std::memchr(from, '\n', n);
      if (end != nullptr) n = static_cast<size_t>(static_cast<const char*>(end) - from) + 1;
      line->append(from, n);
      y4m_->carry_used += n;
      if (end != nullptr) return y4m_is_frame_line(*line) ? LineRead::kOk : LineRead::kBad;
      if (line->size() >= kY4mMaxLine) return LineRead::kBad;
    }
  }

  void read_frames() {
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    // What the stream read ahead with the header comes before the descriptor.
    if (y4m_ != nullptr) take_read_ahead(y4m_->stream, &y4m_->carry);
    for (int64_t k = 0;; ++k) {
      lock();
      // The buffer of frame k is free once frame k - slots is written.
      while (k - written_ >= slot_count_ && !stop_reading_) wait();
      const bool stop = stop_reading_;
      unlock();
      if (stop) break;
      uint8_t* buffer = slot(k);
      // The start of the first frame may already be in its buffer.
      size_t fill = k == 0 ? prefill_ : 0;  // bytes of the frame had so far, in order
      bool piping = chroma_ != nullptr;
      if (piping) chroma_pipe_begin(chroma_, static_cast<int32_t>(k % slot_count_));
      SeedScan* scan = scans_ != nullptr ? &scans_[k % slot_count_] : nullptr;
      if (scan != nullptr) seed_scan_restart(scan);
      if (y4m_ != nullptr) {
        const LineRead line = read_frame_line(&y4m_->lines[k % slot_count_]);
        if (line != LineRead::kOk) {
          lock();
          input_ended_ = true;
          bad_line_ = line == LineRead::kBad;
          signal();
          unlock();
          break;
        }
        // Bytes read past the line start the frame.
        fill = take_carry(buffer, frame_);
        scan_arrived(scan, buffer, fill);
      }
      while (fill < frame_) {
        if (piping && fill >= chroma_->luma) {
          // A stop signal is taken here too, as for the luma.
          if (!cancellable_wait()) break;
          const int64_t moved = chroma_pipe_fill(chroma_, static_cast<int32_t>(k % slot_count_), in_fd_,
                                                  frame_ - fill);
          if (moved > 0) {
            fill += static_cast<size_t>(moved);
            continue;
          }
          // The slot's pipe is full: the rest goes through the buffer.
          if (moved < 0 && errno == EAGAIN) {
            piping = false;
            continue;
          }
          break;  // end of input or a read error, as below
        }
        // With chroma piped, the luma plane is read on its own.
        size_t want = (piping ? chroma_->luma : frame_) - fill;
        if (scan != nullptr && fill < luma_ && want > kScanPiece) want = kScanPiece;
        const ssize_t got = cancellable_read(buffer + fill, want);
        if (got < 0 && errno == EINTR) continue;
        // End of input and a read error both end the stream; a partial
        // frame is dropped.
        if (got <= 0) break;
        fill += static_cast<size_t>(got);
        scan_arrived(scan, buffer, fill);
      }
      lock();
      if (fill == frame_) {
        read_ = k + 1;
      } else {
        input_ended_ = true;
      }
      signal();
      unlock();
      if (fill != frame_) break;
    }
    lock();
    reader_done_ = true;
    unlock();
  }

  // Writes one whole frame, whose first piped chroma bytes wait in the
  // pipes of its slot; what the output does not take is lost, as in the plain loop
  // (piped bytes are then dropped from the pipes all the same).
  void write_frame(const uint8_t* buffer, int32_t slot, size_t piped) {
    // As in the plain y4m loop, the frame is written whatever became of its
    // line.
    if (y4m_ != nullptr) {
      const std::string& line = y4m_->lines[slot];
      write_all(out_fd_, line.data(), line.size());
    }
    if (piped == 0) {
      write_all(out_fd_, buffer, frame_);
      return;
    }
    const size_t luma = chroma_->luma;
    if (!write_all(out_fd_, buffer, luma)) {
      chroma_pipe_drain_to(chroma_, slot, -1);
      return;
    }
    if (!chroma_pipe_drain_to(chroma_, slot, out_fd_)) return;
    write_all(out_fd_, buffer + luma + piped, frame_ - luma - piped);
  }

  void write_frames() {
    for (int64_t k = 0;; ++k) {
      if (!wait_past(marked_, k, stop_)) return;
      const int32_t i = static_cast<int32_t>(k % slot_count_);
      write_frame(slot(k), i, chroma_ != nullptr ? chroma_pipe_held(chroma_, i) : 0);
      progress_->frame_done(frame_size_ + (y4m_ != nullptr ? static_cast<int64_t>(y4m_->lines[i].size()) : 0));
      lock();
      written_ = k + 1;
      signal();
      unlock();
    }
  }

  WatermarkFilter* filter_;
  uint8_t* const* slots_;
  int32_t slot_count_;
  size_t frame_;
  int64_t frame_size_;
  int in_fd_;
  int out_fd_;
  int32_t width_;
  int32_t height_;
  int32_t seed_;
  size_t prefill_;             // bytes of the first frame already in slot 0
  const StopSignals* stops_;   // where a stop signal is taken
  ChromaPipe* chroma_;         // chroma moved from pipe to pipe, or null
  SeedScan* scans_;            // per slot: the seed of its frame, summed by the reader; or null
  Y4mFraming* y4m_;            // y4m input: FRAME lines; null for raw frames
  size_t luma_;                // bytes of the luma plane
  Progress* progress_ = nullptr;
  pthread_t reader_{};
  pthread_t writer_{};
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
  // Guarded by mutex_:
  int64_t read_ = 0;      // frames completely read
  int64_t marked_ = 0;    // frames marked by the filter
  int64_t written_ = 0;   // frames completely written
  bool input_ended_ = false;
  bool bad_line_ = false;  // the input ended at a line that is not a FRAME line
  bool stop_reading_ = false;
  bool reader_done_ = false;
  bool stop_ = false;
};

}  // namespace

namespace {

// The overlapped loop for raw frames (header null) or y4m frames; falls back
// to the plain loops when its threads cannot be had.
LoopEnd stream_overlapped(WatermarkFilter* filter, uint8_t* buffer, int64_t frame_size, FILE* in,
                          FILE* out, int32_t width, int32_t height, int32_t seed, size_t prefill,
                          const StopSignals* stops, const Y4mHeader* header) {
  // Nothing else writes the output during the loop; what the stream holds
  // goes out before the frames.
  std::fflush(out);
  const int in_fd = fileno(in);
  const int out_fd = fileno(out);
  enlarge_pipe(in_fd);
  enlarge_pipe(out_fd);

  // The frame buffer is two frames long; more slots are added when memory
  // allows.
  uint8_t* slots[kSlots] = {buffer, buffer + frame_size};
  int32_t slot_count = 2;
  while (slot_count < kSlots) {
    uint8_t* extra = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(frame_size)));
    if (extra == nullptr) break;
    slots[slot_count++] = extra;
  }
  // From a pipe or file to a pipe, file or /dev/null, the chroma does not
  // pass through the frame buffers.
  ChromaPipe chroma;
  const bool piped = chroma_pipe_open(&chroma, slot_count, in_fd, out_fd, frame_size, width, height);
  // With a seed from the picture, the reader sums it as each frame arrives.
  SeedScan scans[kSlots] = {};
  bool scanning = seed < 0;
  for (int32_t i = 0; scanning && i < slot_count; ++i) {
    scanning = wm_filter_seed_scan_init(filter, width, height, &scans[i]);
  }
  Y4mFraming framing;
  if (header != nullptr) framing.stream = in;
  LoopEnd end;
  {
    Progress progress;
    OverlappedFrames frames(filter, slots, slot_count, frame_size, in_fd, out_fd, width, height,
                            seed, prefill, stops, piped ? &chroma : nullptr, scanning ? scans : nullptr,
                            header != nullptr ? &framing : nullptr);
    if (frames.start()) {
      // The writer writes nothing before the first frame is marked, in run.
      if (header != nullptr) {
        std::fwrite(header->line.data(), 1, header->line.size(), out);
        std::fflush(out);
      }
      end = frames.run(&progress);
    } else {
      progress.finish();
      if (header != nullptr) {
        end = run_y4m_frames(filter, *header, buffer, in, out, seed, stops) ? LoopEnd::Done
                                                                            : LoopEnd::Failed;
      } else {
        end = run_frames(filter, buffer, frame_size, in, out, width, height, seed, prefill, stops);
      }
    }
  }
  chroma_pipe_close(&chroma);
  for (SeedScan& scan : scans) seed_scan_free(&scan);
  for (int32_t i = 2; i < slot_count; ++i) std::free(slots[i]);
  return end;
}

}  // namespace

// The frame loop. Large frames without an embedding log are streamed with
// reading and writing overlapped; the log is rewritten by every frame, so
// with a log each frame is marked only after the one before it is written,
// exactly as in the plain loop, which is then used.
LoopEnd stream_frames(WatermarkFilter* filter, uint8_t* buffer, int64_t frame_size, FILE* in,
                      FILE* out, int32_t width, int32_t height, int32_t seed, bool logging,
                      size_t prefill, const StopSignals* stops) {
  if (frame_size < kOverlapMinFrame || logging) {
    return run_frames(filter, buffer, frame_size, in, out, width, height, seed, prefill, stops);
  }
  return stream_overlapped(filter, buffer, frame_size, in, out, width, height, seed, prefill, stops,
                           nullptr);
}

LoopEnd stream_y4m_frames(WatermarkFilter* filter, const Y4mHeader& header, uint8_t* buffer,
                          FILE* in, FILE* out, int32_t seed, bool logging, const StopSignals* stops) {
  const int64_t frame_size = y4m_frame_bytes(header);
  if (frame_size < kOverlapMinFrame || logging) {
    const bool done = run_y4m_frames(filter, header, buffer, in, out, seed, stops);
    std::fflush(out);
    return done ? LoopEnd::Done : LoopEnd::Failed;
  }
  const LoopEnd end = stream_overlapped(filter, buffer, frame_size, in, out, header.width,
                                        header.height, seed, 0, stops, &header);
  std::fflush(out);
  return end;
}

OutputStart output_start(FILE* out) {
  OutputStart start;
  std::fflush(out);
  const int fd = fileno(out);
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return start;
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return start;
  // Appended writes land at the end, whatever the offset says now.
  const off_t offset = (flags & O_APPEND) != 0 ? st.st_size : lseek(fd, 0, SEEK_CUR);
  if (offset < 0) return start;
  start.regular = true;
  start.offset = offset;
  return start;
}

void keep_whole_frames(FILE* out, const OutputStart& start, int64_t frame_size) {
  std::fflush(out);
  if (!start.regular || frame_size <= 0) return;
  const int fd = fileno(out);
  const off_t end = lseek(fd, 0, SEEK_CUR);
  if (end < start.offset) return;
  const off_t partial = (end - start.offset) % frame_size;
  if (partial != 0) (void)!ftruncate(fd, end - partial);
}

}  // namespace lumamark
