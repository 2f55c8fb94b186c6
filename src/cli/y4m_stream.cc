// Input detection and y4m frame streaming.
#include "cli/y4m_stream.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "cli/progress.h"
#include "cli/stop_signals.h"
#include "filter/filter.h"

namespace lumamark {

PeekedInput::~PeekedInput() {
  if (owned && file != nullptr) std::fclose(file);
}

FILE* PeekedInput::release() {
  owned = false;
  return file;
}

PeekResult peek_input(const std::string& path, PeekedInput* in, std::string* error) {
  in->file = path.empty() ? stdin : std::fopen(path.c_str(), "rb");
  in->owned = !path.empty() && in->file != nullptr;
  if (in->file == nullptr) return PeekResult::kRaw;
  const int fd = fileno(in->file);
  if (isatty(fd) == 1) return PeekResult::kRaw;
  // Read with the descriptor, not the stream: the stream's buffer stays
  // empty, so the frame loops may read either way from here on.
  while (in->head_size < sizeof in->head) {
    const ssize_t got = read(fd, in->head + in->head_size, sizeof in->head - in->head_size);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    in->head_size += static_cast<size_t>(got);
  }
  if (!y4m_has_signature(in->head, in->head_size)) return PeekResult::kRaw;
  std::string rest;
  if (y4m_read_line(in->file, &rest) != Y4mLine::kOk) {
    *error = "Error: the y4m header is incomplete or too long";
    return PeekResult::kRefused;
  }
  in->y4m = true;
  in->head_size = 0;  // the signature belongs to the header, not to a frame
  *error = y4m_parse_header(std::string(kY4mSignature) + rest, &in->header);
  return error->empty() ? PeekResult::kY4m : PeekResult::kRefused;
}

namespace {

// Bytes the stream has read ahead and not handed out yet (glibc's buffer
// pointers; the tool runs on glibc only).
size_t buffered(FILE* f) { return static_cast<size_t>(f->_IO_read_end - f->_IO_read_ptr); }

}  // namespace

void take_read_ahead(FILE* in, std::string* to) {
  const size_t n = buffered(in);
  if (n == 0) return;
  const size_t had = to->size();
  to->resize(had + n);
  to->resize(had + std::fread(to->data() + had, 1, n, in));
}

namespace {

// Reads n bytes into to: first what the stream has buffered, then from its
// descriptor, waiting before every read so that a stop signal is taken there.
// False when the input ends, or a stop signal arrives, before n bytes.
bool read_stoppable(FILE* in, uint8_t* to, size_t n, const StopSignals* stops) {
  size_t have = std::fread(to, 1, std::min(n, buffered(in)), in);
  const int fd = fileno(in);
  while (have < n) {
    if (!stops->wait_readable(fd)) return false;
    const ssize_t got = read(fd, to + have, n - have);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    have += static_cast<size_t>(got);
  }
  return true;
}

}  // namespace

bool run_y4m_frames(WatermarkFilter* filter, const Y4mHeader& header, uint8_t* buffer, FILE* in,
                    FILE* out, int32_t seed, const StopSignals* stops) {
  const size_t frame = static_cast<size_t>(y4m_frame_bytes(header));
  // As with raw output, write results are not examined.
  std::fwrite(header.line.data(), 1, header.line.size(), out);
  Progress progress;
  std::string line;
  for (int64_t k = 0;; ++k) {
    // A stop signal is taken while waiting for the next FRAME line or for
    // the bytes of a frame: the frames before it are whole in the output.
    if (buffered(in) == 0 && !stops->wait_readable(fileno(in))) break;
    const Y4mLine got = y4m_read_line(in, &line);
    // The input ending inside a FRAME line is a partial frame: dropped.
    if (got == Y4mLine::kEnd || (got == Y4mLine::kBad && std::feof(in))) break;
    if (got == Y4mLine::kBad || !y4m_is_frame_line(line)) {
      progress.finish();
      std::cerr << "Error: malformed y4m FRAME line before frame " << k << std::endl;
      return false;
    }
    if (!read_stoppable(in, buffer, frame, stops)) break;
    if (wm_filter_apply(filter, buffer, header.width, header.height, header.width, seed) != 0) {
      progress.finish();
      std::cerr << "Error applying watermark" << std::endl;
      return false;
    }
    std::fwrite(line.data(), 1, line.size(), out);
    std::fwrite(buffer, 1, frame, out);
    progress.frame_done(static_cast<int64_t>(frame + line.size()));
  }
  progress.summarize();
  return true;
}

namespace {

// The detector's frame buffer grows in pieces of at most this size.
constexpr size_t kFramePiece = size_t{16} << 20;

// Reads bytes from..total of a frame into *frame, growing it only as far as
// bytes arrive; true when the whole frame is there.
bool read_growing(FILE* f, size_t from, size_t total, std::vector<uint8_t>* frame) {
  for (size_t have = from; have < total;) {
    const size_t piece = std::min(kFramePiece, total - have);
    if (frame->size() < have + piece) frame->resize(have + piece);
    const size_t got = std::fread(frame->data() + have, 1, piece, f);
    have += got;
    if (got != piece) return false;
  }
  return true;
}

}  // namespace

Y4mLine FrameReader::next(std::vector<uint8_t>* frame) {
  FILE* f = in_->file;
  if (in_->y4m) {
    const Y4mLine got = y4m_read_line(f, &line_);
    if (got == Y4mLine::kEnd || (got == Y4mLine::kBad && std::feof(f))) return Y4mLine::kEnd;
    if (got == Y4mLine::kBad || !y4m_is_frame_line(line_)) return Y4mLine::kBad;
    return read_growing(f, 0, frame_bytes_, frame) ? Y4mLine::kOk : Y4mLine::kEnd;
  }
  // Raw: the bytes read ahead open the first frame.
  size_t fill = 0;
  if (in_->head_size > 0) {
    fill = in_->head_size < frame_bytes_ ? in_->head_size : frame_bytes_;
    if (frame->size() < fill) frame->resize(fill);
    std::memcpy(frame->data(), in_->head, fill);
    std::memmove(in_->head, in_->head + fill, in_->head_size - fill);
    in_->head_size -= fill;
  }
  return read_growing(f, fill, frame_bytes_, frame) ? Y4mLine::kOk : Y4mLine::kEnd;
}

}  // namespace lumamark
