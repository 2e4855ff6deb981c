#include "ctl/daemon_socket.h"

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <cerrno>
#include <fstream>
#include <initializer_list>
#include <set>

#include "ctl/failure.h"
#include "ctl/process.h"
#include "device/event_source.h"
#include "util/control_paths.h"
#include "util/file_trust.h"
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

// The process that holds a lock file beside the socket at `path`, as a running daemon does; 0: none. It gives up the
// lock of a socket that it cannot have, but not the other one.
pid_t lock_holder(const std::string& path) {
  std::set<std::string> inodes;
  for (const std::string lock : {kEventLockPath, kControlLockPath}) {
    struct stat status {};
    const std::string beside = folder_of(path) + lock.substr(lock.rfind('/'));
    if (stat(beside.c_str(), &status) == 0) inodes.insert(std::to_string(status.st_ino));
  }
  std::ifstream locks("/proc/locks");
  // "1: FLOCK ADVISORY WRITE 12 00:2e:4711 0 EOF"
  std::string number;
  std::string type;
  std::string mode;
  std::string access;
  std::string file;
  std::string rest;
  for (pid_t pid = 0; locks >> number >> type >> mode >> access >> pid >> file && std::getline(locks, rest);) {
    if (type == "FLOCK" && inodes.count(file.substr(file.rfind(':') + 1)) != 0 && process_entry(pid)) return pid;
  }
  return 0;
}

[[noreturn]] void fail_to_connect(const std::string& path, int limit_ms, int error) {
  if (error == EAGAIN)
    fail(sstr("the daemon at %s has accepted no connection for %g s", path.c_str(), limit_ms / 1000.0));
  if (error == EACCES) fail(path + ": not allowed (group " + allowed_group(path) + ")");
  if (const pid_t pid = lock_holder(path)) {
    fail(sstr("daemon %d runs, but its socket %s was replaced, removed or never made: see its log", pid, path.c_str()));
  }
  fail("no daemon at " + path + ": " + error_text(error));
}

// A socket's name proves nothing: whoever could have put it there could be listening.
void refuse_strangers(int fd, const std::string& path) {
  const uid_t listener = unix_peer(fd).uid;  // root when the system does not tell: allowed in any case
  const std::string reason = why_strangers(path, geteuid(), listener);
  if (!reason.empty()) fail(reason + ": what listens at " + path + " might not be the daemon");
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
  refuse_strangers(fd.get(), path);
  return fd;
}
