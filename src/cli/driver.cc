// The run driver: chooses the payload source, prepares the filter and streams
// raw or y4m frames from the input through the filter to the output.
#include "cli/driver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli/file_safety.h"
#include "cli/frame_loop.h"
#include "cli/options.h"
#include "cli/payload_file.h"
#include "cli/stop_signals.h"
#include "cli/y4m_stream.h"
#include "filter/filter.h"
#include "payload/layout.h"

namespace lumamark {
namespace {

// Holds the filter that a failed initialisation leaves unreleased.
WatermarkFilter* volatile g_unreleased_filter = nullptr;

// Releases the filter of a run on every way out of run_lumamark.
struct FilterFree {
  void operator()(WatermarkFilter* f) const { wm_filter_free(f); }
};
using FilterGuard = std::unique_ptr<WatermarkFilter, FilterFree>;

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

// The refusal for an output or embedding log that names a file the run
// reads (the input, the payload file) or the output, or an empty text.
// Only regular files count: a device or pipe on both sides loses nothing.
std::string same_file_refusal(const EmbedConfig& config, bool payload_read, const FileId& input,
                              const FileId& output) {
  const bool named_output = !config.output_file.empty();
  const FileId payload = payload_read ? file_id_of(config.payload_file) : FileId{};
  if (same_file(output, input)) {
    return named_output ? "Error: --output-file names the input file: " + config.output_file
                        : "Error: the standard output is the input file";
  }
  if (same_file(output, payload)) {
    return named_output ? "Error: --output-file names the payload file: " + config.output_file
                        : "Error: the standard output is the payload file";
  }
  if (config.embed_log.empty()) return std::string();
  const FileId log = file_id_of(config.embed_log);
  if (same_file(log, input)) return "Error: --embed-log names the input file: " + config.embed_log;
  if (same_file(log, output)) return "Error: --embed-log names the output file: " + config.embed_log;
  if (same_file(log, payload)) return "Error: --embed-log names the payload file: " + config.embed_log;
  return std::string();
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

  FilterGuard guard(wm_filter_create());
  WatermarkFilter* filter = guard.get();
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
      return 1;
    }
    if (peeked.y4m && (data.width != width || data.height != height)) {
      std::cerr << "Error: the payload file is for " << data.width << "x" << data.height
                << " frames, the y4m input holds " << width << "x" << height << std::endl;
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
    n_sp = mark_grid(width, height, sp).cells;
    encoded_bit_count = mark_coded_length(bits, config.fec, n_sp);
  }

  const int32_t rc = wm_filter_init(filter, config.strength, sp, config.spb_width,
                                    config.p_density, config.sp_density, 1, 1, width, height,
                                    config.wm_id.c_str(), bits, config.deep_fake ? 1 : 0,
                                    config.fec, config.pm_mode);
  if (rc != 0) {
    // The filter is deliberately not released on this path: the process is
    // ending. It stays reachable so that leak checkers do not report it.
    g_unreleased_filter = guard.release();
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
    return 1;
  }

  if (source != PayloadSource::FromFile) {
    // The generated payload buffers are sized once the filter has accepted
    // the geometry and bit count, so that a configuration it refuses never
    // allocates them. An accepted grid has a non-negative 32-bit size.
    if (n_sp < 0) {
      std::cerr << "Filter initialization failed! Error code: " << -1 << std::endl;
      return 1;
    }
    payload_map.assign(static_cast<size_t>(n_sp), 0);
    if (config.fec == 0 && encoded_bit_count > 0) {
      payload_indexes.assign(static_cast<size_t>(mark_index_table_bytes(encoded_bit_count)), 0);
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
    return written ? 0 : 1;
  }
  wm_filter_set_payload(filter, payload_map.data(), indexes, encoded_bit_count, sp, width, height);

  if (!refusal.empty()) {
    std::cerr << refusal << std::endl;
    return 1;
  }

  // Twice the frame: the second half is spare room for a surplus read.
  const uint64_t buffer_bytes = static_cast<uint64_t>(2 * frame_size);
  uint8_t* buffer = static_cast<uint8_t*>(std::malloc(buffer_bytes));
  if (buffer == nullptr) {
    std::cerr << "Failed to allocate frame buffer of size " << buffer_bytes << std::endl;
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
      return 1;
    }
  }
  // The output is opened without truncation first: a file that the run
  // reads, or that its log would overwrite, is recognised before a byte of
  // it is lost.
  int out_fd = STDOUT_FILENO;
  bool created = false;
  if (!config.output_file.empty()) {
    struct stat st;
    // A name that did not exist at all (lstat: a dangling link exists).
    created = ::lstat(config.output_file.c_str(), &st) != 0;
    out_fd = ::open(config.output_file.c_str(), O_WRONLY | O_CREAT, 0666);
    if (out_fd < 0) {
      std::cerr << "Error opening output file: " << config.output_file << std::endl;
      if (in != stdin) std::fclose(in);
      std::free(buffer);
      return 1;
    }
  }
  const std::string clash = same_file_refusal(config, source == PayloadSource::FromFile,
                                              file_id_of(fileno(in)), file_id_of(out_fd));
  if (!clash.empty()) {
    std::cerr << clash << std::endl;
    if (out_fd != STDOUT_FILENO) {
      ::close(out_fd);
      // An output that this run created (empty) goes again.
      if (created) ::unlink(config.output_file.c_str());
    }
    if (in != stdin) std::fclose(in);
    std::free(buffer);
    return 1;
  }

  FILE* out = stdout;
  if (out_fd != STDOUT_FILENO) {
    // Created or truncated, as an open for writing does.
    if (file_id_of(out_fd).regular) (void)!::ftruncate(out_fd, 0);
    out = ::fdopen(out_fd, "wb");
    if (out == nullptr) {
      std::cerr << "Error opening output file: " << config.output_file << std::endl;
      ::close(out_fd);
      if (in != stdin) std::fclose(in);
      std::free(buffer);
      return 1;
    }
  }

  LoopEnd end;
  {
    // SIGINT and SIGTERM end the run between frames; the output then ends
    // on a frame boundary, and the signal is raised again below.
    StopSignals stops;
    if (peeked.y4m) {
      end = stream_y4m_frames(filter, peeked.header, buffer, in, out, config.seed,
                              !config.embed_log.empty(), &stops);
    } else {
      const OutputStart start = output_start(out);
      end = stream_frames(filter, buffer, frame_size, in, out, width, height, config.seed,
                          !config.embed_log.empty(), prefill, &stops);
      keep_whole_frames(out, start, frame_size);
    }

    // The standard streams stay open; files are closed on every path.
    if (in != stdin) std::fclose(in);
    if (out != stdout) std::fclose(out);
    std::free(buffer);
    stops.reraise_caught();
  }
  return end == LoopEnd::Done ? 0 : 1;
}

}  // namespace lumamark
