// Files the tool must not lose: which paths name the same file, and saving a
// file so that a failed write never replaces a complete one.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace lumamark {

// The identity of a regular file (device and inode), or of nothing.
struct FileId {
  bool regular = false;  // false: missing, not a regular file, or not examined
  dev_t dev = 0;
  ino_t ino = 0;
};

// The file behind an open descriptor.
FileId file_id_of(int fd);
// The file a path names, following symbolic links.
FileId file_id_of(const std::string& path);

// True when both name the same regular file. Devices, pipes and terminals
// are never the same file here: writing one cannot destroy what another
// name of it holds.
bool same_file(const FileId& a, const FileId& b);

// How a save ended.
enum class SaveResult {
  Saved,        // the file holds the bytes, or write errors were ignored (see below)
  NotOpened,    // the path cannot be opened for writing: nothing was changed
  WriteFailed,  // a write failed: the file, if it existed, is as it was
};

// Writes bytes to path. A regular file (or a new one) is written under a
// temporary name in the same directory and then renamed over the path, so
// that a write that fails part-way, or a reader at the same time, never sees
// a partial file. The new file gets the mode of the file it replaces, or
// 0666 less the umask when there was none; a symbolic link keeps pointing to
// its target, which is replaced; another hard link to the old file keeps the
// old contents. Paths that are not regular files (a device, a pipe), a
// dangling symbolic link and a directory that does not let a temporary file
// be created are written in place, as a plain open for writing would.
// NotOpened exactly when such a plain open would fail.
SaveResult save_file(const std::string& path, const uint8_t* bytes, size_t size);

}  // namespace lumamark
