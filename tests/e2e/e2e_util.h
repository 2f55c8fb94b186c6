// Helpers for tests that run the built tool as a separate process: run it
// with arguments and optional standard-input bytes, capture both output
// streams and how it ended, and manage temporary files.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#ifndef LUMAMARK_BIN
#error "LUMAMARK_BIN must name the built tool"
#endif

namespace lumamark::test {

// How a child process ended and what it wrote.
struct RunResult {
  int status = -1;   // exit status when it exited normally, else -1
  int signal = 0;    // terminating signal, else 0
  std::string out;   // everything written to standard output
  std::string err;   // everything written to standard error

  bool exited(int code) const { return signal == 0 && status == code; }
  bool killed_by(int sig) const { return signal == sig; }
};

// Standard-input delivery. With piece 0 the input is written in one go;
// otherwise in pieces of that many bytes with delay between them, as a slow
// pipe would deliver it. Standard input is closed after the last byte.
struct InputPlan {
  std::string data;                               // bytes for standard input
  size_t piece = 0;                               // bytes per write; 0 = all at once
  std::chrono::microseconds delay{0};             // pause after each piece
};

namespace detail {

inline void write_all(int fd, const std::string& data, size_t piece,
                      std::chrono::microseconds delay) {
  size_t pos = 0;
  const size_t step = piece == 0 ? data.size() : piece;
  while (pos < data.size()) {
    const size_t end = std::min(data.size(), pos + step);
    while (pos < end) {
      const ssize_t n = ::write(fd, data.data() + pos, end - pos);
      if (n < 0) {
        if (errno == EINTR) continue;
        return;  // the child closed its input (EPIPE); stop feeding it
      }
      pos += static_cast<size_t>(n);
    }
    if (piece != 0 && delay.count() > 0) std::this_thread::sleep_for(delay);
  }
}

}  // namespace detail

// Runs program with args (argv[0] is program itself) and waits for it.
inline RunResult run_program(const std::string& program, const std::vector<std::string>& args,
                             const InputPlan& input = {}) {
  // A child that stops reading early must not kill the test with SIGPIPE.
  ::signal(SIGPIPE, SIG_IGN);
  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (::pipe2(in_pipe, O_CLOEXEC) != 0 || ::pipe2(out_pipe, O_CLOEXEC) != 0 ||
      ::pipe2(err_pipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe2 failed");
  }
  std::vector<std::string> words;
  words.push_back(program);
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    ::signal(SIGPIPE, SIG_DFL);  // an ignored disposition would survive exec
    ::dup2(in_pipe[0], 0);
    ::dup2(out_pipe[1], 1);
    ::dup2(err_pipe[1], 2);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
  ::close(in_pipe[0]);
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);

  const int in_fd = in_pipe[1];
  std::thread writer([&input, in_fd] {
    detail::write_all(in_fd, input.data, input.piece, input.delay);
    ::close(in_fd);
  });

  RunResult result;
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_count = 2;
  char buf[65536];
  while (open_count > 0) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
  writer.join();
  int wstatus = 0;
  while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(wstatus)) result.status = WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) result.signal = WTERMSIG(wstatus);
  return result;
}

// Runs the tool under test.
inline RunResult run_tool(const std::vector<std::string>& args, const InputPlan& input = {}) {
  return run_program(LUMAMARK_BIN, args, input);
}

inline RunResult run_tool(const std::vector<std::string>& args, const std::string& stdin_data) {
  return run_program(LUMAMARK_BIN, args, InputPlan{stdin_data});
}

// A fresh directory under the system temporary directory, removed with
// everything in it when the object goes out of scope.
class TempDir {
 public:
  TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "lumamark_test_XXXXXX").string();
    if (::mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // Path of name inside the directory (the file is not created).
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
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

// Deterministic pseudo-random bytes (a simple LCG), e.g. for raw test frames.
inline std::string random_bytes(size_t size, uint32_t seed) {
  std::string s(size, '\0');
  uint32_t x = seed * 2654435761u + 1u;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1664525u + 1013904223u;
    s[i] = static_cast<char>(x >> 24);
  }
  return s;
}

}  // namespace lumamark::test
