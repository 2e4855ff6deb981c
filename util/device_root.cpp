#include "util/device_root.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "util/descriptor.h"
#include "util/quiet_write.h"

bool under_device_root(const std::string& path, std::string& out) {
  const char* root = secure_getenv("DEVICE_ROOT");
  if (root == nullptr) root = "";
  if (root[0] == '\0' || root[0] == '/') {
    out = root + path;
    return true;
  }
  static std::atomic<bool> said{false};
  if (!said.exchange(true)) {
    write_quietly(STDERR_FILENO,
                  "device: DEVICE_ROOT is not an absolute path: no settings are read and no event socket is made\n");
  }
  return false;
}

namespace {

// The entry of a new folder is in the folder above it.
void sync_above(const std::string& folder) {
  const std::string above = folder.substr(0, folder.rfind('/') + 1);
  const Descriptor opened(above_standard_streams(open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (opened.get() >= 0) fsync(opened.get());
}

}  // namespace

bool make_folders(const std::string& path, FolderSync sync) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string folder = path.substr(0, slash);
    if (mkdir(folder.c_str(), 0755) == 0) {
      if (chmod(folder.c_str(), 0755) != 0) return false;
      if (sync == FolderSync::each) sync_above(folder);
    } else if (errno != EEXIST) {
      return false;
    }
  }
  return true;
}
