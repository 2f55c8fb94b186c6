// The run driver: chooses the payload source, prepares the filter and streams
// raw frames from the input through the filter to the output.
#include "cli/driver.h"

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

// The output could not take all of the marked video (a full disk, a closed
// descriptor, or a reader that went away while SIGPIPE is ignored).
void report_write_error(const std::string& output_file) {
  if (output_file.empty()) {
    std::cerr << "Error writing standard output" << std::endl;
  } else {
    std::cerr << "Error writing output file: " << output_file << std::endl;
  }
}

enum class LoopEnd { Done, FilterFailed, WriteFailed };

// Streams whole frames from in to out through the filter, until the input
// ends, the filter fails on a frame or a frame cannot be written.
LoopEnd run_frames(WatermarkFilter* filter, uint8_t* buffer, int64_t frame_size, FILE* in,
                   FILE* out, int32_t width, int32_t height, int32_t seed) {
  const size_t frame = static_cast<size_t>(frame_size);
  // Drawn only when standard error is a terminal; erased before any message.
  Progress progress;
  size_t fill = 0;
  for (;;) {
    // A frame may arrive in several pieces, as from a pipe; end of input and
    // a read error both end the loop, dropping any partial frame.
    const size_t got = std::fread(buffer + fill, 1, frame - fill, in);
    if (got == 0) {
      progress.finish();
      return LoopEnd::Done;
    }
    fill += got;
    if (fill < frame) continue;
    if (wm_filter_apply(filter, buffer, width, height, width, seed) != 0) {
      progress.finish();
      std::cerr << "Error applying watermark" << std::endl;
      return LoopEnd::FilterFailed;
    }
    // Output that cannot be written ends the run: going on would only mark
    // frames that are thrown away and end with a success status.
    if (std::fwrite(buffer, 1, frame, out) != frame) {
      progress.finish();
      return LoopEnd::WriteFailed;
    }
    progress.frame_done(frame_size);
    fill -= frame;
    // Reads never ask for more than the rest of a frame, so nothing is left
    // over; the spare second half of the buffer would hold any surplus.
    if (fill > 0) std::memmove(buffer, buffer + frame, fill);
  }
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

  const int64_t frame_size = frame_size_for(config.pix_fmt, width, height);
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

  FILE* in = stdin;
  if (!config.input_file.empty()) {
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

  const LoopEnd end = run_frames(filter, buffer, frame_size, in, out, width, height, config.seed);

  // The standard streams stay open; files are closed on every path. Frames
  // still in the stream's buffer reach the output only here, so a failure to
  // flush loses video just as a failed write does.
  bool written = end != LoopEnd::WriteFailed;
  if (in != stdin) std::fclose(in);
  if (out != stdout) {
    if (std::fclose(out) != 0) written = false;
  } else if (std::fflush(out) != 0) {
    written = false;
  }
  if (!written && end != LoopEnd::FilterFailed) report_write_error(config.output_file);
  std::free(buffer);
  wm_filter_free(filter);
  return end == LoopEnd::Done && written ? 0 : 1;
}

}  // namespace lumamark
