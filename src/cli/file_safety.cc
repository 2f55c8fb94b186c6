// Same-file tests and the save that replaces a file only by a complete one.
#include "cli/file_safety.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace lumamark {
namespace {

FileId id_of_stat(const struct stat& st) {
  FileId id;
  id.regular = S_ISREG(st.st_mode);
  id.dev = st.st_dev;
  id.ino = st.st_ino;
  return id;
}

// The plain way: create or truncate the path and write it.
SaveResult save_in_place(const std::string& path, const uint8_t* bytes, size_t size) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return SaveResult::NotOpened;
  const bool written = size == 0 || std::fwrite(bytes, 1, size, f) == size;
  const bool closed = std::fclose(f) == 0;
  return written && closed ? SaveResult::Saved : SaveResult::WriteFailed;
}

bool write_all(int fd, const uint8_t* bytes, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t n = ::write(fd, bytes + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

FileId file_id_of(int fd) {
  struct stat st;
  return ::fstat(fd, &st) == 0 ? id_of_stat(st) : FileId{};
}

FileId file_id_of(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? id_of_stat(st) : FileId{};
}

bool same_file(const FileId& a, const FileId& b) {
  return a.regular && b.regular && a.dev == b.dev && a.ino == b.ino;
}

SaveResult save_file(const std::string& path, const uint8_t* bytes, size_t size) {
  struct stat st;
  const bool exists = ::stat(path.c_str(), &st) == 0;
  if (!exists) {
    // A dangling link, or a path that cannot be examined: the plain open
    // decides (it creates the link's target, or reports the path).
    struct stat lst;
    if (errno != ENOENT || ::lstat(path.c_str(), &lst) == 0) return save_in_place(path, bytes, size);
  } else if (!S_ISREG(st.st_mode)) {
    return save_in_place(path, bytes, size);
  } else {
    // A file the plain open could not write is not replaced either.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return SaveResult::NotOpened;
    ::close(fd);
  }
  std::string target = path;
  if (exists) {
    char* real = ::realpath(path.c_str(), nullptr);
    if (real == nullptr) return save_in_place(path, bytes, size);
    target = real;
    std::free(real);
  }
  const std::filesystem::path t(target);
  const std::string dir = t.has_parent_path() ? t.parent_path().string() : ".";
  std::string temp;
  int fd = -1;
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    temp = dir + "/." + t.filename().string() + "." + std::to_string(::getpid()) + "." +
           std::to_string(attempt) + ".tmp";
    // 0666 less the umask, as for any new file.
    fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) return save_in_place(path, bytes, size);
  if (exists) {
    // The replacement keeps the old file's mode and, where allowed, owner.
    if (::fchown(fd, st.st_uid, st.st_gid) != 0) {
      // Not allowed for another owner's file: this user's file it becomes.
    }
    ::fchmod(fd, st.st_mode & 07777);
  }
  const bool ok = write_all(fd, bytes, size) && ::fsync(fd) == 0;
  if (::close(fd) != 0 || !ok || ::rename(temp.c_str(), target.c_str()) != 0) {
    ::unlink(temp.c_str());
    return SaveResult::WriteFailed;
  }
  return SaveResult::Saved;
}

}  // namespace lumamark
