// The spool's folder and its files, "SERIAL.seg" with 16 hexadecimal digits: what is asked of the file system, and
// nothing else. Only one process uses a folder at a time: it holds a lock (flock) on it.
//
// The program must ignore SIGXFSZ: then a limit on the size of files is a failure like any other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "util/descriptor.h"

// Not thread-safe. What fails sets errno.
class SpoolFolder {
 public:
  explicit SpoolFolder(std::string folder_path) : path(std::move(folder_path)) {}

  enum class Opened { failed, still, fresh };

  // Opens the folder, and makes it (mode 0700) when it is missing. `still`: it was open, and is still the one at its
  // path. EWOULDBLOCK: another process uses it.
  Opened open();

  std::string path_of(uint64_t serial) const;

  // The serials of the segment files, in their order.
  std::vector<uint64_t> serials() const;

  // Reads a file whole. False also for what is not a regular file, or larger than any segment.
  bool read(uint64_t serial, std::string& bytes) const;

  // Writes `bytes` to the end of a file, which is at `at`, and syncs it; at 0 makes the file (mode 0600). When that
  // fails, cuts the file back to `at`.
  bool write(uint64_t serial, size_t at, std::string_view bytes) const;

  void remove(uint64_t serial) const;

 private:
  bool is_in_place() const;
  Descriptor open_file(uint64_t serial, int flags) const;

  const std::string path;
  Descriptor folder;
};
