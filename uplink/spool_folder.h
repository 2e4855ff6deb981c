// The spool's folder and its files, "SERIAL.seg" with 16 hexadecimal digits: what is asked of the file system, and
// nothing else. Only one process uses a folder at a time: it holds a lock (flock) on it. Files with other names are
// left alone.
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
  // path. EWOULDBLOCK: another process uses it. EPERM: it belongs to another user.
  Opened open();

  static std::string file_of(uint64_t serial);

  // The serials of the segment files, in their order.
  std::vector<uint64_t> serials();

  // Appends to `bytes` what the file has from the offset bytes.size() to `size`, or to its end. False also for what is
  // not a regular file.
  bool read(uint64_t serial, size_t size, std::string& bytes) const;

  // Cuts a file.
  void cut(uint64_t serial, size_t size) const;

  // Makes a file that holds `bytes` (mode 0600), and syncs it. Returns its serial, above all others; 0: there is none.
  // With `goes_on`, append() writes to it from then on.
  uint64_t create(std::string_view bytes, bool goes_on);

  // Writes `bytes` to the file of the last create(), at its end `at`, and syncs it. When that fails, cuts the file back
  // to `at`, and the next is to be created.
  bool append(std::string_view bytes, size_t at);

  // Closes the folder: the next open() opens it again.
  void close() { folder.reset(); }

  void remove(uint64_t serial) const;

  uint64_t bytes_written() const { return written; }

 private:
  bool is_in_place() const;

  const std::string path;
  Descriptor folder;
  Descriptor current;
  uint64_t last_serial = 0;
  uint64_t written = 0;
};
