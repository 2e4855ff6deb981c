#include "ctl/daemon_socket.h"

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <cerrno>
#include <initializer_list>

#include "ctl/failure.h"
#include "util/text.h"
#include "util/unix_socket.h"

namespace {

std::string folder_of(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

// The group that may connect: the socket's, or the folder's when that hides the socket.
std::string allowed_group(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 && stat(folder_of(path).c_str(), &status) != 0) return "zelvind";
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread of ours asks for groups
  const group* entry = getgrgid(status.st_gid);
  return entry == nullptr ? std::to_string(status.st_gid) : entry->gr_name;
}

[[noreturn]] void fail_to_connect(const std::string& path, int limit_ms, int error) {
  if (error == EAGAIN)
    fail(sstr("the daemon at %s has accepted no connection for %g s", path.c_str(), limit_ms / 1000.0));
  if (error == EACCES) fail(path + ": not allowed (group " + allowed_group(path) + ")");
  fail("no daemon at " + path + ": " + error_text(error));
}

void refuse_other_owners(int fd, const std::string& path) {
  const uid_t listener = unix_peer(fd).uid;  // root when the system does not tell: allowed in any case
  for (const std::string& place : {folder_of(path), path}) {
    struct stat status {};
    if (stat(place.c_str(), &status) != 0) fail("no daemon at " + path + ": " + error_text(errno));
    const uid_t owner = status.st_uid;
    if (owner == 0 || owner == geteuid() || owner == listener) continue;
    fail(sstr("%s belongs to user %u, who is neither root nor you nor the daemon's user", place.c_str(), owner));
  }
}

}  // namespace

Descriptor connect_to_daemon(const std::string& path, int limit_ms) {
  Descriptor fd(unix_stream_socket());
  if (fd.get() < 0) fail("failed to make a socket: " + error_text(errno));
  const timeval limit{limit_ms / 1000, limit_ms % 1000 * 1000L};  // holds for the connect too
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  int result = -1;
  do {
    result = unix_connect(fd.get(), path);
  } while (result < 0 && errno == EINTR);
  if (result < 0) fail_to_connect(path, limit_ms, errno);
  refuse_other_owners(fd.get(), path);
  return fd;
}
