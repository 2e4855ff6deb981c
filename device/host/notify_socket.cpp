#include "device/host/notify_socket.h"

#include <sys/time.h>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "device/log.h"

namespace {

constexpr char kVariable[] = "NOTIFY_SOCKET";
constexpr timeval kSendLimit{1, 0};

}  // namespace

void NotifySocket::open() {
  const char* const name = secure_getenv(kVariable);
  if (name == nullptr || *name == '\0') return;
  const size_t size = strlen(name);
  if ((*name != '/' && *name != '@') || size < 2 || size >= sizeof(address.sun_path)) {
    elog(1, "service: %s is '%s': expected a path, or @ and an abstract name; nobody is told", kVariable, name);
  } else {
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name, size);
    if (*name == '@') address.sun_path[0] = '\0';
    address_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size);
    socket.reset(above_standard_streams(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
    if (socket.get() < 0) elog(1, "service: cannot make a socket (%s): nobody is told", strerrordesc_np(errno));
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &kSendLimit, sizeof(kSendLimit));
  }
  unsetenv(kVariable);  // NOLINT(concurrency-mt-unsafe): no other thread reads the environment yet
}

bool NotifySocket::send(const char* text) const {
  const auto* const to = reinterpret_cast<const sockaddr*>(&address);
  return sendto(socket.get(), text, strlen(text), MSG_NOSIGNAL, to, address_size) >= 0;
}
