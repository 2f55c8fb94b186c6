// The run driver: chooses the payload source, prepares the filter and streams
// raw frames from the input through the filter to the output.
#include "cli/driver.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "cli/options.h"
#include "cli/payload_file.h"
#include "cli/progress.h"
#include "cli/y4m_stream.h"
#include "filter/filter.h"
#include "kernels/intmath.h"
#include "payload/payload_map.h"

namespace lumamark {
namespace {

constexpr const char* kNeutralUrn = "00000000000000000000000000000000";
constexpr int32_t kIndexRows = 16;

// Holds the filter that a failed initialisation leaves unreleased.
WatermarkFilter* volatile g_unreleased_filter = nullptr;

// Where the payload of a run comes from.
enum class PayloadSource : int32_t {
  SaveGenerated = 0,  // generate it and write it to the payload file; no video
  FromFile = 1,       // read it from the payload file and embed it
  Generated = 2,      // generate it and embed it
};

PayloadSource choose_source(const EmbedConfig& config) {
  if (config.payload_file.empty()) return PayloadSource::Generated;
  return config.wm_id_given ? PayloadSource::SaveGenerated : PayloadSource::FromFile;
}

// Bytes of one planar frame, or 0 for an unknown pixel format. The product
// wraps in 32 bits and the 4:2:0 halving truncates toward zero before the
// result is widened, so odd or oversized frames keep their 32-bit size.
int64_t frame_size_for(const std::string& pix_fmt, int32_t width, int32_t height) {
  const int32_t area = wrap_mul(width, height);
  if (pix_fmt == "yuv420p") return wrap_mul(area, 3) / 2;
  if (pix_fmt == "yuv444p") return wrap_mul(area, 3);
  if (pix_fmt == "yuv422p") return wrap_mul(area, 2);
  return 0;
}

// True when the 32-bit frame size wrapped to a positive number too small for
// the width x height luma plane that the filter works on: such frames would
// make the filter read and write past the frame buffer, and are refused like
// a size of 0. (A size that wrapped to a negative number is refused by the
// allocation of the frame buffer.)
bool frame_size_wrapped(int64_t frame_size, int32_t width, int32_t height) {
  return frame_size > 0 && frame_size < int64_t{width} * int64_t{height};
}

// The refusal that the checks before the frame loop give for a frame of
// frame_size bytes, in their order, or an empty text when frames can be
// marked (the allocation of the frame buffer may still fail).
std::string frame_refusal(const EmbedConfig& config, int64_t frame_size, int32_t width,
                          int32_t height) {
  if (frame_size == 0 || frame_size_wrapped(frame_size, width, height)) {
    return "Invalid frame dimensions or pixel format";
  }
  if (config.strength < 1) return "Error: --strength must be >= 1";
  if (config.sp_density < 0 || config.sp_density > 100) {
    return "Error: --sp-density must be in [0, 100]";
  }
  // A size that wrapped to a negative number asks for a buffer of more than
  // 2^63 bytes, which no allocation gives.
  if (frame_size < 0) {
    return "Failed to allocate frame buffer of size " +
           std::to_string(static_cast<uint64_t>(2 * frame_size));
  }
  return std::string();
}

enum class LoopEnd { Done, FilterFailed };

// Streams whole frames from in to out through the filter, until the input
// ends or the filter fails on a frame. Write results are not examined: a
// frame the output does not take (a full disk, a closed descriptor) is lost
// and the run goes on, as the tool's contract has it. The first prefill bytes
// of the first frame are already in the buffer.
LoopEnd run_frames(WatermarkFilter* filter, uint8_t* buffer, int64_t frame_size, FILE* in,
                   FILE* out, int32_t width, int32_t height, int32_t seed, size_t prefill) {
  const size_t frame = static_cast<size_t>(frame_size);
  // Drawn only when standard error is a terminal; erased before any message.
  Progress progress;
  size_t fill = prefill;
  for (;;) {
    // A frame may arrive in several pieces, as from a pipe; end of input and
    // a read error both end the loop, dropping any partial frame.
    const size_t got = std::fread(buffer + fill, 1, frame - fill, in);
    if (got == 0) {
      progress.summarize();
      return LoopEnd::Done;
    }
    fill += got;
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
class OverlappedFrames {
 public:
  OverlappedFrames(WatermarkFilter* filter, uint8_t* const* slots, int32_t slot_count,
                   int64_t frame_size, int in_fd, int out_fd, int32_t width, int32_t height,
                   int32_t seed, size_t prefill)
      : filter_(filter), slots_(slots), slot_count_(slot_count), frame_(static_cast<size_t>(frame_size)),
        frame_size_(frame_size), in_fd_(in_fd), out_fd_(out_fd), width_(width), height_(height),
        seed_(seed), prefill_(prefill) {}

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
    for (int64_t k = 0;; ++k) {
      lock();
      while (read_ <= k && !input_ended_) wait();
      const bool have = read_ > k;
      unlock();
      if (!have) break;
      if (wm_filter_apply(filter_, slot(k), width_, height_, width_, seed_) != 0) {
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
    if (end == LoopEnd::Done) {
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

  // One read of the input, the only place where the reader may be cancelled.
  ssize_t cancellable_read(uint8_t* to, size_t bytes) {
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
    const ssize_t got = read(in_fd_, to, bytes);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    return got;
  }

  void read_frames() {
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    for (int64_t k = 0;; ++k) {
      lock();
      // The buffer of frame k is free once frame k - slots is written.
      while (k - written_ >= slot_count_ && !stop_reading_) wait();
      const bool stop = stop_reading_;
      unlock();
      if (stop) break;
      uint8_t* buffer = slot(k);
      // The start of the first frame may already be in its buffer.
      size_t fill = k == 0 ? prefill_ : 0;
      while (fill < frame_) {
        const ssize_t got = cancellable_read(buffer + fill, frame_ - fill);
        if (got < 0 && errno == EINTR) continue;
        // End of input and a read error both end the stream; a partial
        // frame is dropped.
        if (got <= 0) break;
        fill += static_cast<size_t>(got);
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

  // Writes one whole frame; what the output does not take is lost, as in
  // the plain loop.
  void write_frame(const uint8_t* buffer) {
    size_t done = 0;
    while (done < frame_) {
      const ssize_t put = write(out_fd_, buffer + done, frame_ - done);
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) return;
      done += static_cast<size_t>(put);
    }
  }

  void write_frames() {
    for (int64_t k = 0;; ++k) {
      lock();
      while (marked_ <= k && !stop_) wait();
      const bool have = marked_ > k;
      unlock();
      if (!have) return;
      write_frame(slot(k));
      progress_->frame_done(frame_size_);
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
  size_t prefill_;
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
  bool stop_reading_ = false;
  bool reader_done_ = false;
  bool stop_ = false;
};

// The frame loop. Large frames without an embedding log are streamed with
// reading and writing overlapped; the log is rewritten by every frame, so
// with a log each frame is marked only after the one before it is written,
// exactly as in the plain loop, which is then used.
LoopEnd stream_frames(WatermarkFilter* filter, uint8_t* buffer, int64_t frame_size, FILE* in,
                      FILE* out, int32_t width, int32_t height, int32_t seed, bool logging,
                      size_t prefill) {
  if (frame_size < kOverlapMinFrame || logging) {
    return run_frames(filter, buffer, frame_size, in, out, width, height, seed, prefill);
  }
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
  LoopEnd end;
  {
    Progress progress;
    OverlappedFrames frames(filter, slots, slot_count, frame_size, in_fd, out_fd, width, height, seed,
                            prefill);
    if (frames.start()) {
      end = frames.run(&progress);
    } else {
      progress.finish();
      end = run_frames(filter, buffer, frame_size, in, out, width, height, seed, prefill);
    }
  }
  for (int32_t i = 2; i < slot_count; ++i) std::free(slots[i]);
  return end;
}

}  // namespace

int run_lumamark(int argc, char** argv) {
  EmbedConfig config;
  switch (parse_options(argc, argv, &config)) {
    case ParseResult::Run:
      break;
    case ParseResult::HelpShown:
    case ParseResult::VersionShown:
      return 0;
    case ParseResult::Error:
      return 1;
  }
  if (!check_config(config)) return 1;

  // An input starting with the y4m signature is read as y4m: its header
  // gives the frame size and layout. The payload-saving mode never reads the
  // input, so it is not looked at then.
  PeekedInput peeked;
  if (choose_source(config) != PayloadSource::SaveGenerated) {
    std::string refusal;
    PeekResult kind = peek_input(config.input_file, &peeked, &refusal);
    if (kind == PeekResult::kY4m) {
      refusal = y4m_option_conflict(peeked.header, config.width_given, config.width,
                                    config.height_given, config.height, config.pix_fmt_given,
                                    config.pix_fmt);
      kind = refusal.empty() ? kind : PeekResult::kRefused;
    }
    if (kind == PeekResult::kRefused) {
      std::cerr << refusal << std::endl;
      return 1;
    }
    if (peeked.y4m) {
      config.width = peeked.header.width;
      config.height = peeked.header.height;
      config.pix_fmt = peeked.header.pix_fmt;
    }
  }

  WatermarkFilter* filter = wm_filter_create();
  if (filter == nullptr) {
    std::cerr << "Filter creation failed!" << std::endl;
    return 1;
  }

  int32_t width = config.width;
  int32_t height = config.height;
  int32_t sp = config.sp_width;
  int32_t bits = config.bit_profile;
  int32_t encoded_bit_count = 0;
  int32_t n_sp = 0;
  std::vector<uint8_t> payload_map;
  std::vector<uint8_t> payload_indexes;
  const PayloadSource source = choose_source(config);

  if (source == PayloadSource::FromFile) {
    PayloadData data;
    if (!read_payload_file(config.payload_file, config.fec, config.spb_width, &data)) {
      wm_filter_free(filter);
      return 1;
    }
    if (peeked.y4m && (data.width != width || data.height != height)) {
      std::cerr << "Error: the payload file is for " << data.width << "x" << data.height
                << " frames, the y4m input holds " << width << "x" << height << std::endl;
      wm_filter_free(filter);
      return 1;
    }
    width = data.width;
    height = data.height;
    sp = data.sp_size;
    bits = data.bits;
    encoded_bit_count = data.encoded_bit_count;
    payload_map = std::move(data.map);
    payload_indexes = std::move(data.indexes);
    config.user_urn = kNeutralUrn;
  } else {
    n_sp = wrap_mul(width / sp, height / sp);
    encoded_bit_count = config.fec == 0 ? wrap_add(bits, wrap_add(bits, 7) / 8) : n_sp;
  }

  const int32_t rc = wm_filter_init(filter, config.strength, sp, config.spb_width,
                                    config.p_density, config.sp_density, 1, 1, width, height,
                                    config.wm_id.c_str(), bits, config.deep_fake ? 1 : 0,
                                    config.fec, config.pm_mode);
  if (rc != 0) {
    // The filter is deliberately not released on this path: the process is
    // ending. It stays reachable so that leak checkers do not report it.
    g_unreleased_filter = filter;
    std::cerr << "Filter initialization failed! Error code: " << rc << std::endl;
    return 1;
  }

  const int64_t frame_size = peeked.y4m ? y4m_frame_bytes(peeked.header)
                                        : frame_size_for(config.pix_fmt, width, height);
  const std::string refusal = frame_refusal(config, frame_size, width, height);
  // Settings whose frames are refused after the payload is generated are
  // refused before it: the payload of a grid that no frame can hold may take
  // minutes and gigabytes (2^31 - 1 pixels square makes 1.75e9 superpixels).
  // Generation reports a failure of its own only in FEC mode 2 without a
  // coded string, and then fails at once; that case keeps its report.
  if (source == PayloadSource::Generated && !refusal.empty() &&
      (config.fec != 2 || filter->coded_bits != nullptr)) {
    std::cerr << refusal << std::endl;
    wm_filter_free(filter);
    return 1;
  }

  if (source != PayloadSource::FromFile) {
    // The generated payload buffers are sized once the filter has accepted
    // the geometry and bit count, so that a configuration it refuses never
    // allocates them. An accepted grid has a non-negative 32-bit size.
    if (n_sp < 0) {
      wm_filter_free(filter);
      std::cerr << "Filter initialization failed! Error code: " << -1 << std::endl;
      return 1;
    }
    payload_map.assign(static_cast<size_t>(n_sp), 0);
    if (config.fec == 0 && encoded_bit_count > 0) {
      payload_indexes.assign(static_cast<size_t>(encoded_bit_count) * kIndexRows, 0);
    }
  }

  if (!config.embed_log.empty()) wm_filter_set_log_path(filter, config.embed_log.c_str());
  wm_filter_set_threads(filter, config.threads);

  uint8_t* indexes = payload_indexes.empty() ? nullptr : payload_indexes.data();
  if (source != PayloadSource::FromFile) {
    wm_generate_payload_map(filter, payload_map.data(), config.user_urn.c_str(), indexes);
  }
  if (source == PayloadSource::SaveGenerated) {
    PayloadData data;
    data.width = width;
    data.height = height;
    data.sp_size = sp;
    data.bits = bits;
    data.encoded_bit_count = encoded_bit_count;
    data.map = std::move(payload_map);
    data.indexes = std::move(payload_indexes);
    const bool written = write_payload_file(config.payload_file, data, config.fec);
    wm_filter_free(filter);
    return written ? 0 : 1;
  }
  wm_filter_set_payload(filter, payload_map.data(), indexes, encoded_bit_count, sp, width, height);

  if (!refusal.empty()) {
    std::cerr << refusal << std::endl;
    wm_filter_free(filter);
    return 1;
  }

  // Twice the frame: the second half is spare room for a surplus read.
  const uint64_t buffer_bytes = static_cast<uint64_t>(2 * frame_size);
  uint8_t* buffer = static_cast<uint8_t*>(std::malloc(buffer_bytes));
  if (buffer == nullptr) {
    std::cerr << "Failed to allocate frame buffer of size " << buffer_bytes << std::endl;
    wm_filter_free(filter);
    return 1;
  }

  // The input looked at above is used as it is; its first bytes of a raw
  // stream open the first frame (every frame the filter accepts is longer).
  // (A file that could not be opened then is tried again here, and its
  // failure reported in its place.)
  FILE* in = peeked.release();
  const size_t prefill = peeked.head_size;
  std::memcpy(buffer, peeked.head, prefill);
  if (in == nullptr) {
    in = std::fopen(config.input_file.c_str(), "rb");
    if (in == nullptr) {
      std::cerr << "Error opening input file: " << config.input_file << std::endl;
      std::free(buffer);
      wm_filter_free(filter);
      return 1;
    }
  }
  FILE* out = stdout;
  if (!config.output_file.empty()) {
    out = std::fopen(config.output_file.c_str(), "wb");
    if (out == nullptr) {
      std::cerr << "Error opening output file: " << config.output_file << std::endl;
      if (in != stdin) std::fclose(in);
      std::free(buffer);
      wm_filter_free(filter);
      return 1;
    }
  }

  LoopEnd end;
  if (peeked.y4m) {
    end = run_y4m_frames(filter, peeked.header, buffer, in, out, config.seed) ? LoopEnd::Done
                                                                             : LoopEnd::FilterFailed;
  } else {
    end = stream_frames(filter, buffer, frame_size, in, out, width, height, config.seed,
                        !config.embed_log.empty(), prefill);
  }

  // The standard streams stay open; files are closed on every path.
  if (in != stdin) std::fclose(in);
  if (out != stdout) std::fclose(out);
  std::free(buffer);
  wm_filter_free(filter);
  return end == LoopEnd::Done ? 0 : 1;
}

}  // namespace lumamark
