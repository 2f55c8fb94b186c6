// Helpers for tests that run the built tools as separate processes: run one
// with arguments and standard-input bytes, capture both output streams and
// how it ended; temporary files; raw test bytes and payload-file headers.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace lumamark::test {

using Args = std::vector<std::string>;

inline Args cat(Args a, const Args& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// How a child process ended and what it wrote.
struct RunResult {
  int status = -1;  // exit status when it exited normally, else -1
  int signal = 0;   // terminating signal, else 0
  std::string out;  // standard output
  std::string err;  // standard error
  bool exited(int code) const { return signal == 0 && status == code; }
};

// Standard input: all at once (piece 0), or in pieces of that many bytes
// with a pause after each, as a slow pipe delivers it; closed after the end.
struct InputPlan {
  std::string data;                    // bytes for standard input
  size_t piece = 0;                    // bytes per write; 0 = all at once
  std::chrono::microseconds delay{0};  // pause after each piece
};

namespace detail {
inline void drain(int fd, std::string* sink) {
  char buf[65536];
  for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) != 0;) {
    if (n > 0) sink->append(buf, static_cast<size_t>(n));
    else if (errno != EINTR) break;
  }
  ::close(fd);
}
}  // namespace detail

// The words that run a built tool: LUMAMARK_TEST_EMULATOR (e.g.
// "qemu-x86_64 -cpu Westmere") puts both tools under an emulator; other
// programs run as they are.
inline Args tool_words(const std::string& program) {
  Args words;
  const char* emulator = std::getenv("LUMAMARK_TEST_EMULATOR");
  bool tool = program == LUMAMARK_BIN;
#ifdef LUMAMARK_DETECT_BIN
  tool = tool || program == LUMAMARK_DETECT_BIN;
#endif
  if (tool && emulator != nullptr) {
    std::string word;
    for (const char* c = emulator;; ++c) {
      if (*c == ' ' || *c == '\0') {
        if (!word.empty()) words.push_back(word);
        word.clear();
        if (*c == '\0') break;
      } else {
        word += *c;
      }
    }
  }
  words.push_back(program);
  return words;
}

// Runs program with args (argv[0] is program itself) and waits for it. With
// peak_kib, the peak resident memory of the program's own address space
// (VmHWM, in KiB) is sampled every millisecond while it runs, once /proc
// shows its executable (before the exec the child is a copy of this process).
inline RunResult run_program(const std::string& program, const Args& args, const InputPlan& input = {},
                             long* peak_kib = nullptr) {
  ::signal(SIGPIPE, SIG_IGN);  // a child that stops reading must not kill the test
  int in[2], out[2], err[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe2 failed");
  Args words = cat(tool_words(program), args);
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    ::signal(SIGPIPE, SIG_DFL);  // an ignored disposition would survive exec
    ::dup2(in[0], 0);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  std::thread writer([&input, fd = in[1]] {
    const size_t step = input.piece == 0 ? input.data.size() : input.piece;
    for (size_t pos = 0; pos < input.data.size();) {
      const size_t end = std::min(input.data.size(), pos + step);
      while (pos < end) {
        const ssize_t n = ::write(fd, input.data.data() + pos, end - pos);
        if (n < 0 && errno != EINTR) pos = input.data.size();  // the reader went away
        if (n > 0) pos += static_cast<size_t>(n);
      }
      std::this_thread::sleep_for(input.delay);
    }
    ::close(fd);
  });
  std::atomic<bool> ended{false};
  std::thread sampler([&] {
    std::error_code ec;
    const std::string proc = "/proc/" + std::to_string(pid);
    const std::filesystem::path exe = std::filesystem::canonical(program, ec);
    for (; peak_kib && !ended; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
      if (std::filesystem::read_symlink(proc + "/exe", ec) != exe) continue;
      std::ifstream status(proc + "/status");
      for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) *peak_kib = std::stol(line.substr(6));
    }
  });
  RunResult result;
  std::thread err_reader(detail::drain, err[0], &result.err);
  detail::drain(out[0], &result.out);
  err_reader.join();
  ended = true;
  sampler.join();
  writer.join();
  int ws = 0;
  while (::waitpid(pid, &ws, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(ws)) result.status = WEXITSTATUS(ws);
  if (WIFSIGNALED(ws)) result.signal = WTERMSIG(ws);
  return result;
}

inline RunResult run_tool(const Args& args, const InputPlan& input = {}) {
  return run_program(LUMAMARK_BIN, args, input);
}
inline RunResult run_tool(const Args& args, const std::string& stdin_data) {
  return run_tool(args, InputPlan{stdin_data});
}

// The tool's command line, quoted for bash, and a bash script run to its end.
inline std::string shell_words(const Args& args) {
  std::string command;
  for (const std::string& word : cat(tool_words(LUMAMARK_BIN), args)) {
    command += (command.empty() ? "'" : " '") + word + "'";
  }
  return command;
}
inline RunResult run_shell(const std::string& script) { return run_program("/bin/bash", {"-c", script}); }

// A fresh directory under base (default: the system's temporary directory),
// removed with its contents at scope end.
struct TempDir {
  explicit TempDir(const std::string& base = "")
      : path((base.empty() ? std::filesystem::temp_directory_path() : std::filesystem::path(base)) / "lumamark_test_XXXXXX") {
    if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
  TempDir(const TempDir&) = delete;
  std::string file(const std::string& name) const { return path + "/" + name; }
  std::string path;
};

inline void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!f) throw std::runtime_error("cannot write " + path);
}

inline std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) throw std::runtime_error("cannot read " + path);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

inline bool file_exists(const std::string& path) { return std::filesystem::exists(path); }

// The ffmpeg on PATH, or "" when there is none (the tests that need it skip).
inline std::string find_ffmpeg() {
  std::stringstream dirs(std::getenv("PATH") ? std::getenv("PATH") : "");
  for (std::string dir; std::getline(dirs, dir, ':');)
    if (!dir.empty() && ::access((dir + "/ffmpeg").c_str(), X_OK) == 0) return dir + "/ffmpeg";
  return "";
}

// Deterministic pseudo-random bytes, e.g. for raw frames.
inline std::string random_bytes(size_t size, uint32_t seed) {
  std::string s(size, '\0');
  uint32_t x = seed * 2654435761u + 1u;
  for (char& c : s) c = static_cast<char>((x = x * 1664525u + 1013904223u) >> 24);
  return s;
}

#ifdef LUMAMARK_SAMPLE_BIN
// A deterministic synthetic clip from the sample generator.
inline std::string sample_clip(int32_t w, int32_t h, int32_t frames, const std::string& pix_fmt = "yuv420p") {
  const RunResult r = run_program(LUMAMARK_SAMPLE_BIN, {"--width", std::to_string(w), "--height", std::to_string(h),
                                                        "--frames", std::to_string(frames), "--pix-fmt", pix_fmt});
  if (!r.exited(0)) throw std::runtime_error("lumamark-sample failed: " + r.err);
  return r.out;
}
#endif

// Payload-file header: five little-endian 32-bit fields.
inline std::string header(int32_t w, int32_t h, int32_t sp, int32_t sp2, int32_t count) {
  std::string out;
  for (int32_t v : {w, h, sp, sp2, count})
    for (int k = 0; k < 4; ++k) out.push_back(static_cast<char>(static_cast<uint32_t>(v) >> (8 * k)));
  return out;
}

}  // namespace lumamark::test
