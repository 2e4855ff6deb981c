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

constexpr off_t kFileMax = off_t{1024} * 1024;  // a larger file is none of ours

std::string file_of(uint64_t serial) {
  char name[32];
  snprintf(name, sizeof(name), "%016llx.seg", static_cast<unsigned long long>(serial));
  return name;
}

}  // namespace

std::string SpoolFolder::path_of(uint64_t serial) const {
  return path + "/" + file_of(serial);
}

bool SpoolFolder::is_in_place() const {
  struct stat held {};
  struct stat found {};
  return folder.get() >= 0 && fstat(folder.get(), &held) == 0 && lstat(path.c_str(), &found) == 0 &&
         held.st_dev == found.st_dev && held.st_ino == found.st_ino;
}

SpoolFolder::Opened SpoolFolder::open() {
  if (is_in_place()) return Opened::still;
  folder.reset();
  if (!make_folders(path, FolderSync::each)) return Opened::failed;
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return Opened::failed;
  Descriptor opened(above_standard_streams(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
  if (opened.get() < 0 || flock(opened.get(), LOCK_EX | LOCK_NB) != 0) return Opened::failed;
  folder = std::move(opened);
  return Opened::fresh;
}

Descriptor SpoolFolder::open_file(uint64_t serial, int flags) const {
  constexpr int kAlways = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  return Descriptor(above_standard_streams(openat(folder.get(), file_of(serial).c_str(), flags | kAlways, 0600)));
}

std::vector<uint64_t> SpoolFolder::serials() const {
  std::vector<uint64_t> found;
  const int fd = openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const listing = fd >= 0 ? fdopendir(fd) : nullptr;
  if (listing == nullptr) return found;
  while (const dirent* const entry = readdir(listing)) {  // NOLINT(concurrency-mt-unsafe): a listing of our own
    const uint64_t serial = strtoull(entry->d_name, nullptr, 16);
    if (serial != 0 && file_of(serial) == entry->d_name) found.push_back(serial);
  }
  closedir(listing);
  std::sort(found.begin(), found.end());
  return found;
}

bool SpoolFolder::read(uint64_t serial, std::string& bytes) const {
  const Descriptor file = open_file(serial, O_RDONLY);
  struct stat status {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (status.st_size > kFileMax) return false;
  bytes.resize(static_cast<size_t>(status.st_size));
  return pread(file.get(), bytes.data(), bytes.size(), 0) == status.st_size;
}

bool SpoolFolder::write(uint64_t serial, size_t at, std::string_view bytes) const {
  const Descriptor file = open_file(serial, O_WRONLY | (at == 0 ? O_CREAT | O_EXCL : 0));
  const auto end = static_cast<off_t>(at);
  if (file.get() < 0) return false;
  if (lseek(file.get(), end, SEEK_SET) == end && write_fully(file.get(), bytes.data(), bytes.size()) &&
      fdatasync(file.get()) == 0 && (at != 0 || fsync(folder.get()) == 0)) {
    return true;
  }
  const int error = errno;
  if (ftruncate(file.get(), end) == 0) fdatasync(file.get());
  if (at == 0) remove(serial);
  errno = error;
  return false;
}

void SpoolFolder::remove(uint64_t serial) const {
  unlinkat(folder.get(), file_of(serial).c_str(), 0);
}
