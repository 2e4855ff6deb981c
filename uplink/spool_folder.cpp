#include "uplink/spool_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "util/device_root.h"
#include "util/quiet_write.h"

namespace {

// The serial in the name of a segment file, or 0 for any other name.
uint64_t serial_of(const std::string& name) {
  const uint64_t serial = strtoull(name.c_str(), nullptr, 16);
  return name == SpoolFolder::file_of(serial) ? serial : 0;
}

Descriptor open_in(int folder, const std::string& name, int flags) {
  return Descriptor(above_standard_streams(openat(folder, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0600)));
}

}  // namespace

std::string SpoolFolder::file_of(uint64_t serial) {
  char name[32];
  snprintf(name, sizeof(name), "%016llx.seg", static_cast<unsigned long long>(serial));
  return name;
}

bool SpoolFolder::is_in_place() const {
  struct stat held {};
  struct stat found {};
  return folder.get() >= 0 && fstat(folder.get(), &held) == 0 && lstat(path.c_str(), &found) == 0 &&
         held.st_dev == found.st_dev && held.st_ino == found.st_ino;
}

SpoolFolder::Opened SpoolFolder::open() {
  if (is_in_place()) return Opened::still;
  current.reset();
  folder.reset();
  if (!make_folders(path, FolderSync::each)) return Opened::failed;
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return Opened::failed;
  folder = open_in(AT_FDCWD, path, O_RDONLY | O_DIRECTORY);
  struct stat status {};
  if (folder.get() < 0 || fstat(folder.get(), &status) != 0) return Opened::failed;
  errno = EPERM;
  if (status.st_uid == geteuid() && flock(folder.get(), LOCK_EX | LOCK_NB) == 0) return Opened::fresh;
  folder.reset();
  return Opened::failed;
}

std::vector<uint64_t> SpoolFolder::serials() {
  std::vector<uint64_t> found;
  const int fd = openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const listing = fd >= 0 ? fdopendir(fd) : nullptr;
  if (listing == nullptr) return found;
  while (const dirent* const entry = readdir(listing)) {  // NOLINT(concurrency-mt-unsafe): a listing of our own
    const uint64_t serial = serial_of(entry->d_name);
    if (serial != 0) found.push_back(serial);
  }
  closedir(listing);
  std::sort(found.begin(), found.end());
  if (!found.empty()) last_serial = std::max(last_serial, found.back());
  return found;
}

bool SpoolFolder::read(uint64_t serial, size_t size, std::string& bytes) const {
  const Descriptor file = open_in(folder.get(), file_of(serial), O_RDONLY | O_NONBLOCK);
  struct stat status {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  const size_t end = std::min(size, static_cast<size_t>(status.st_size));
  size_t at = bytes.size();
  if (end < at) return false;
  bytes.resize(end);
  while (at < end) {
    const ssize_t got = pread(file.get(), &bytes[at], end - at, static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    at += static_cast<size_t>(got);
  }
  bytes.resize(at);
  return at == end;
}

void SpoolFolder::cut(uint64_t serial, size_t size) const {
  const Descriptor file = open_in(folder.get(), file_of(serial), O_WRONLY | O_NONBLOCK);
  if (file.get() >= 0 && ftruncate(file.get(), static_cast<off_t>(size)) == 0) fdatasync(file.get());
}

uint64_t SpoolFolder::create(std::string_view bytes, bool goes_on) {
  const uint64_t serial = last_serial + 1;
  Descriptor file = open_in(folder.get(), file_of(serial), O_WRONLY | O_CREAT | O_EXCL);
  if (file.get() < 0) {
    if (errno == EEXIST) last_serial = serial;  // not ours: it is left alone
    return 0;
  }
  if (write_fully(file.get(), bytes.data(), bytes.size()) && fdatasync(file.get()) == 0 && fsync(folder.get()) == 0) {
    written += bytes.size();
    last_serial = serial;
    if (goes_on) current = std::move(file);
    return serial;
  }
  const int error = errno;
  remove(serial);
  errno = error;
  return 0;
}

bool SpoolFolder::append(std::string_view bytes, size_t at) {
  struct stat status {};
  if (fstat(current.get(), &status) != 0) return false;
  errno = ENOENT;
  if (status.st_nlink > 0 && lseek(current.get(), static_cast<off_t>(at), SEEK_SET) >= 0 &&
      write_fully(current.get(), bytes.data(), bytes.size()) && fdatasync(current.get()) == 0) {
    written += bytes.size();
    return true;
  }
  const int error = errno;
  if (ftruncate(current.get(), static_cast<off_t>(at)) == 0) fdatasync(current.get());
  current.reset();
  errno = error;
  return false;
}

void SpoolFolder::remove(uint64_t serial) const {
  unlinkat(folder.get(), file_of(serial).c_str(), 0);
}
