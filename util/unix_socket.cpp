#include "util/unix_socket.h"

#include <fcntl.h>
#include <sys/un.h>
#include <cerrno>

#include "util/descriptor.h"
#include "util/text.h"

namespace {

using AddressCall = int (*)(int fd, const sockaddr* address, socklen_t size);

int with_address(AddressCall call, int fd, std::string path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  Descriptor folder;
  const size_t slash = path.rfind('/');
  if (path.size() >= sizeof(address.sun_path) && slash != std::string::npos) {
    folder.reset(open(path.substr(0, slash + 1).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() < 0) return -1;
    path = "/proc/self/fd/" + std::to_string(folder.get()) + path.substr(slash);
  }
  if (path.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  copy_text(address.sun_path, sizeof(address.sun_path), path.c_str());
  return call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

}  // namespace

int unix_stream_socket() {
  return above_standard_streams(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

int unix_bind(int fd, const std::string& path) {
  return with_address(bind, fd, path);
}

int unix_connect(int fd, const std::string& path) {
  return with_address(connect, fd, path);
}

ucred unix_peer(int fd) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return {};
  return peer;
}
