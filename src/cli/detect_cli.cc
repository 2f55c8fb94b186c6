// lumamark-detect: reads raw planar YUV frames, measures their luma, and tells
// whether they carry a watermark and which ID.
#include "cli/detect_cli.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <new>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/frame_loop.h"
#include "cli/option_table.h"
#include "cli/options.h"
#include "cli/y4m_stream.h"
#include "decode/copy_read.h"
#include "decode/resync.h"
#include "payload/wm_id.h"

namespace lumamark {

namespace {

std::string format_z(double z) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.2f", z);
  return buf;
}

}  // namespace

void print_detect_usage(const char* program, std::ostream& out) {
  out << "Usage: " << program << " <options>\n"
      << "Reads raw planar YUV frames and looks for a watermark in their luma.\n"
      << "Options:\n"
      << "  --help                Show this help message\n"
      << "  --version             Show version information\n"
      << "  --input-file <path>   Input yuv file (default: standard input)\n"
      << "  --width <int>         Width the video was marked at (default 1920)\n"
      << "  --height <int>        Height the video was marked at (default 1080)\n"
      << "  --input-width <int>   Width of the copy being read (default: --width)\n"
      << "  --input-height <int>  Height of the copy being read (default: --height)\n"
      << "  --search <str>        Geometric search when the aligned read finds no mark:\n"
      << "                        none, fast, full or auto (default: auto, fast then full if needed)\n"
      << "  --pix-fmt <str>       Pixel format: yuv420p (default), yuv422p or yuv444p\n"
      << "  --frames <int>        Number of frames to use (default: all)\n"
      << "  --sp-width <int>      Superpixel size used when embedding (default 7)\n"
      << "  --spb-width <int>     Superpixel border used when embedding (0 = auto)\n"
      << "  --fec <int>           Forward error correction mode used when embedding: 0 or 2 (default)\n"
      << "  --bit-profile <int>   Bit profile used when embedding (default 13)\n"
      << "  --user-urn <str>      User organization URN used when embedding\n"
      << "  --strength <int>      Embedding strength used when embedding (default 3)\n"
      << "  --seed <int>          Superpixel mask seed used when embedding (-1 = unknown, default)\n"
      << "  --sp-density <int>    Superpixel density used when embedding (default 100)\n"
      << "  --threads <int>       Number of threads to use (0 = auto-detect, default 1)\n"
      << "  --json                Print the result as one JSON object\n"
      << "  --wm-id <str>         Expected watermark ID: also report whether it matches and\n"
      << "                        the bit error rate of the superpixels against it\n";
}

DetectParse parse_detect_options(int argc, char** argv, DetectOptions* o, std::ostream& err) {
  DetectConfig& c = o->config;
  // --fec is judged by detector_init, with the other settings.
  std::vector<OptionRow> rows = shared_setting_rows(&c, nullptr);
  std::string search;
  bool search_given = false;
  for (const auto& [name, field] : {std::pair<std::string_view, std::string*>{"--input-file", &o->input_file},
                                    {"--pix-fmt", &o->pix_fmt},
                                    {"--wm-id", &o->expect_id},
                                    {"--search", &search}}) {
    rows.push_back(OptionRow{name, ArgKind::Text, nullptr, nullptr, nullptr, field});
  }
  set_given_flag(&rows, "--width", &o->width_given);
  set_given_flag(&rows, "--height", &o->height_given);
  set_given_flag(&rows, "--pix-fmt", &o->pix_fmt_given);
  set_given_flag(&rows, "--search", &search_given);
  rows.push_back(OptionRow{"--input-width", ArgKind::Int, &o->input_width_given, &o->input_width});
  rows.push_back(OptionRow{"--input-height", ArgKind::Int, &o->input_height_given, &o->input_height});
  rows.push_back(OptionRow{"--frames", ArgKind::Count, nullptr, nullptr, &o->max_frames});
  rows.push_back(OptionRow{"--json", ArgKind::Flag, &o->json});
  const ParseRules rules{kVersion, "lumamark-detect", print_detect_usage, true, true};
  switch (parse_option_table(argc, argv, rows.data(), rows.size(), rules, err)) {
    case ParseResult::Run:
      if (!search_given) {
      } else if (search == "none") {
        o->search = SearchMode::kNone;
      } else if (search == "fast") {
        o->search = SearchMode::kFast;
      } else if (search == "full") {
        o->search = SearchMode::kFull;
      } else if (search == "auto") {
        o->search = SearchMode::kAuto;
      } else {
        err << "Error: --search expects none, fast, full or auto, got '" << search << "'\n";
        return DetectParse::kError;
      }
      return DetectParse::kRun;
    case ParseResult::HelpShown:
      return DetectParse::kHelp;
    case ParseResult::VersionShown:
      return DetectParse::kVersion;
    case ParseResult::Error:
      break;
  }
  return DetectParse::kError;
}

std::string format_detect_report(const DetectResult& r, const ExpectedCheck* expected,
                                 const std::string& expected_id, bool json,
                                 const GeometryReport& geometry) {
  std::ostringstream out;
  const std::string z = format_z(r.z);
  const GeoTransform& t = geometry.transform;
  char transform[256];
  std::snprintf(transform, sizeof transform,
                "{\"scale_x\": %.4f, \"scale_y\": %.4f, \"offset_x\": %.2f, \"offset_y\": %.2f, "
                "\"flip\": %s}",
                t.scale_x, t.scale_y, t.offset_x, t.offset_y, t.flip ? "true" : "false");
  const bool ambiguous = r.verdict == Verdict::kAmbiguous;
  if (json) {
    out << "{\"wm_id\": \"" << (ambiguous ? "" : r.wm_id) << "\", \"z\": " << z
        << ", \"frames\": " << r.frames << ", \"verdict\": \"" << verdict_name(r.verdict)
        << "\", \"transform\": " << transform;
    if (geometry.searched) {
      out << ", \"hypotheses\": " << geometry.hypotheses << ", \"candidates\": [";
      for (size_t i = 0; i < geometry.candidates.size(); ++i) {
        out << (i == 0 ? "" : ", ") << "{\"wm_id\": \"" << geometry.candidates[i].wm_id
            << "\", \"z\": " << format_z(geometry.candidates[i].z) << "}";
      }
      out << "]";
    }
    if (expected != nullptr) {
      char ber[32];
      std::snprintf(ber, sizeof ber, "%.4f", expected->ber);
      out << ", \"expected\": \"" << expected_id << "\", \"match\": "
          << (expected->match ? "true" : "false") << ", \"ber\": " << ber;
    }
    out << "}\n";
    return out.str();
  }
  const std::string frames = std::to_string(r.frames) + (r.frames == 1 ? " frame" : " frames");
  switch (r.verdict) {
    case Verdict::kDetected:
      out << "Watermark detected: ID " << r.wm_id << " (z " << z << " from " << frames << ").\n";
      break;
    case Verdict::kWeak:
      out << "Weak watermark: ID " << r.wm_id << " is uncertain (z " << z << " from " << frames
          << ").\n";
      break;
    case Verdict::kNone:
      out << "No watermark detected (z " << z << " from " << frames << "); the best guess, ID "
          << r.wm_id << ", is not reliable.\n";
      break;
    case Verdict::kAmbiguous:
      out << "Ambiguous watermark: several IDs fit about equally well, none is named (z " << z
          << " from " << frames << "). Candidates:";
      for (size_t i = 0; i < geometry.candidates.size(); ++i) {
        out << (i == 0 ? " " : ", ") << geometry.candidates[i].wm_id << " (z "
            << format_z(geometry.candidates[i].z) << ")";
      }
      out << ".\n";
      break;
  }
  if (geometry.searched) {
    char line[256];
    std::snprintf(line, sizeof line,
                  "Geometry: scale %.4f x %.4f, offset %.2f, %.2f%s (%lld hypotheses tried).\n",
                  t.scale_x, t.scale_y, t.offset_x, t.offset_y, t.flip ? ", mirrored" : "",
                  static_cast<long long>(geometry.hypotheses));
    out << line;
  }
  if (r.blocks.size() > 1) {
    out << "Reed-Muller blocks:";
    for (size_t i = 0; i < r.blocks.size(); ++i) {
      out << (i == 0 ? " z " : ", ") << format_z(r.blocks[i].z);
    }
    out << " (bits 1.." << r.bits.size() << " in " << r.blocks.size() << " blocks).\n";
  }
  if (!r.parity_ok.empty()) {
    size_t pass = 0;
    for (uint8_t ok : r.parity_ok) pass += ok != 0;
    out << "Parity checks: " << pass << " of " << r.parity_ok.size() << " groups pass.\n";
  }
  if (expected != nullptr) {
    char ber[32];
    std::snprintf(ber, sizeof ber, "%.4f", expected->ber);
    out << "Expected ID " << expected_id << ": " << (expected->match ? "matches" : "does not match")
        << "; superpixel bit error rate against it " << ber << ".\n";
  }
  return out.str();
}

int detect_exit_status(Verdict v, const ExpectedCheck* expected) {
  if (v != Verdict::kDetected) return 2;
  return expected != nullptr && !expected->match ? 3 : 0;
}

namespace {

int run_detect_checked(int argc, char** argv) {
  DetectOptions o;
  const DetectParse parsed = parse_detect_options(argc, argv, &o, std::cerr);
  if (parsed != DetectParse::kRun) return parsed == DetectParse::kError ? 1 : 0;
  DetectConfig& c = o.config;
  Detector d;
  std::string error;
  if (detector_init(&d, c, &error) != 0) {
    std::cerr << "Error: " << error << "\n";
    return 1;
  }
  if ((o.input_width_given && o.input_width < 1) || (o.input_height_given && o.input_height < 1)) {
    std::cerr << "Error: --input-width and --input-height must be positive\n";
    return 1;
  }
  // --width and --height are the size the video was marked at; the copy
  // being read has a size of its own (the same unless told otherwise).
  int32_t in_w = o.input_width_given ? o.input_width : c.width;
  int32_t in_h = o.input_height_given ? o.input_height : c.height;
  int64_t frame_bytes = frame_size_for(o.pix_fmt, in_w, in_h);
  if (frame_bytes == 0) {
    std::cerr << "Error: Unsupported pixel format: " << o.pix_fmt
              << " (use yuv420p, yuv422p or yuv444p)\n";
    return 1;
  }
  // The embedder refuses the frames whose 32-bit size wrapped.
  if (frame_bytes < 0 || frame_size_wrapped(frame_bytes, in_w, in_h)) {
    std::cerr << "Error: the frame is too large\n";
    return 1;
  }
  std::string expected_bits;
  if (!o.expect_id.empty()) {
    if (wm_id_validate(o.expect_id.c_str(), c.bit_profile) != 0) {
      std::cerr << "Error: --wm-id " << o.expect_id << " is not a hexadecimal ID of at most "
                << c.bit_profile << " bits\n";
      return 1;
    }
    char* bits = hex_to_bits(o.expect_id.c_str(), static_cast<uint32_t>(c.bit_profile));
    expected_bits = bits;
    std::free(bits);
  }

  // y4m input: the header gives the copy's size and layout. The marked size
  // is --width/--height when given, else the header's too; the detector is
  // built again when that differs from the options.
  PeekedInput input;
  std::string y4m_error;
  PeekResult kind = peek_input(o.input_file, &input, &y4m_error);
  if (input.file == nullptr) {
    std::cerr << "Error: Cannot open input file: " << o.input_file << "\n";
    return 1;
  }
  if (kind == PeekResult::kY4m) {
    const Y4mHeader& h = input.header;
    if (o.input_width_given && o.input_width != h.width) {
      y4m_error = "Error: --input-width " + std::to_string(o.input_width) +
                  " disagrees with the y4m header (W" + std::to_string(h.width) + ")";
    } else if (o.input_height_given && o.input_height != h.height) {
      y4m_error = "Error: --input-height " + std::to_string(o.input_height) +
                  " disagrees with the y4m header (H" + std::to_string(h.height) + ")";
    } else {
      y4m_error = y4m_option_conflict(h, false, 0, false, 0, o.pix_fmt_given, o.pix_fmt);
    }
    if (!y4m_error.empty()) kind = PeekResult::kRefused;
  }
  if (kind == PeekResult::kRefused) {
    std::cerr << y4m_error << "\n";
    return 1;
  }
  if (input.y4m) {
    o.pix_fmt = input.header.pix_fmt;
    frame_bytes = y4m_frame_bytes(input.header);
    in_w = input.header.width;
    in_h = input.header.height;
    const int32_t marked_w = o.width_given ? c.width : in_w;
    const int32_t marked_h = o.height_given ? c.height : in_h;
    if (c.width != marked_w || c.height != marked_h) {
      c.width = marked_w;
      c.height = marked_h;
      d = Detector();
      if (detector_init(&d, c, &error) != 0) {
        std::cerr << "Error: " << error << "\n";
        return 1;
      }
    }
  }
  // A copy of the marked size is read as it is, frame by frame; the first
  // frames are also kept for the geometric search.
  const bool same_size = in_w == c.width && in_h == c.height;
  CopyFrames copy;
  copy.width = in_w;
  copy.height = in_h;
  FILE* in = input.file;
  FrameReader reader(&input, static_cast<size_t>(frame_bytes));
  // Sized as the first frame arrives (see FrameReader::next).
  std::vector<uint8_t> frame;
  int64_t frames = 0;
  while (o.max_frames < 0 || frames < o.max_frames) {
    const Y4mLine got = reader.next(&frame);
    if (got == Y4mLine::kBad) {
      std::cerr << "Error: malformed y4m FRAME line before frame " << frames << "\n";
      return 1;
    }
    if (got == Y4mLine::kEnd) break;
    if (same_size) detector_add_frame(&d, frame.data(), c.width);
    if (copy.luma.size() < static_cast<size_t>(kSearchFrames)) {
      copy.luma.emplace_back(frame.begin(), frame.begin() + static_cast<ptrdiff_t>(in_w) * in_h);
    }
    ++frames;
  }
  const bool read_error = std::ferror(in) != 0;
  if (read_error) {
    std::cerr << "Error: Failed to read the input\n";
    return 1;
  }
  if (frames == 0) {
    std::cerr << "Error: The input holds no complete frame of " << in_w << "x" << in_h << " "
              << o.pix_fmt << "\n";
    return 1;
  }

  CopyRead read;
  if (read_copy(&d, copy, o.search, expected_bits, &read, &error) != 0) {
    std::cerr << "Error: " << error << "\n";
    return 1;
  }
  const DetectResult& result = read.result;
  GeometryReport geometry;
  geometry.searched = read.searched;
  geometry.transform = read.transform;
  geometry.hypotheses = read.hypotheses;
  geometry.candidates = read.candidates;
  ExpectedCheck check;
  if (!expected_bits.empty()) {
    check.match = result.bits == expected_bits && result.verdict != Verdict::kAmbiguous;
    check.ber = read.ber;
  }
  std::cout << format_detect_report(result, expected_bits.empty() ? nullptr : &check,
                                    bits_to_hex(expected_bits), o.json, geometry);
  std::cout.flush();
  return detect_exit_status(result.verdict, expected_bits.empty() ? nullptr : &check);
}

}  // namespace

int run_detect(int argc, char** argv) {
  try {
    return run_detect_checked(argc, argv);
  } catch (const std::bad_alloc&) {
    std::cerr << "Error: Out of memory\n";
    return 1;
  }
}

}  // namespace lumamark
