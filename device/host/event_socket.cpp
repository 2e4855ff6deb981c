#include "device/host/event_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "device/event_source.h"
#include "device/host/device_root.h"
#include "device/host/service_state.h"
#include "device/log.h"
#include "device/service.h"
#include "util/unix_socket.h"

namespace {

constexpr mode_t kSocketMode = 0660;

EventSocket* g_removed_at_exit = nullptr;  // while other threads may change it, nobody exits

// Makes the folders above `path`; those it makes can be entered by everybody, whatever the umask.
bool make_folders(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string folder = path.substr(0, slash);
    if (mkdir(folder.c_str(), 0755) == 0) {
      if (chmod(folder.c_str(), 0755) != 0) return false;
    } else if (errno != EEXIST) {
      return false;
    }
  }
  return true;
}

pid_t read_owner(int fd) {
  char text[16] = "";
  const ssize_t got = pread(fd, text, sizeof(text) - 1, 0);
  return got > 0 ? atoi(text) : 0;
}

}  // namespace

int EventSocket::open() {
  if (!under_device_root(kEventSocketPath, path)) return -1;
  if (!make_folders(path)) {
    say_cannot_make(path);
    return -1;
  }
  if (!take_lock() || !make_socket()) {
    close();
    return -1;
  }
  if (!said.empty()) elog(1, "evq: %s is made: events from other processes are taken", path.c_str());
  said.clear();
  static const int registered = atexit(remove_at_exit);
  (void)registered;
  g_removed_at_exit = this;
  return listening.get();
}

void EventSocket::close() {
  remove_file();
  maker = 0;
  listening.reset();
  keep_service_state("");
  // A child between its fork and its exec still has the descriptor; letting go by name does not wait for it.
  if (lock.get() >= 0) flock(lock.get(), LOCK_UN);
  lock.reset();
}

bool EventSocket::take_lock() {
  std::string lock_path;
  under_device_root(kEventLockPath, lock_path);
  // Nobody else may open it: who can read a file can lock it.
  lock.reset(above_standard_streams(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)));
  if (lock.get() < 0) {
    say_cannot_make(lock_path);
    return false;
  }
  if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    say(path + " belongs to process " + std::to_string(read_owner(lock.get())));
    lock.reset();
    return false;
  }
  char text[16];
  const int size = snprintf(text, sizeof(text), "%d\n", getpid());
  if (ftruncate(lock.get(), 0) != 0 || pwrite(lock.get(), text, static_cast<size_t>(size), 0) != size) {
    say_cannot_make(lock_path);
    return false;
  }
  std::string state_path;
  if (under_device_root(kServiceStatePath, state_path)) keep_service_state(state_path);
  return true;
}

bool EventSocket::make_socket() {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) unlink(path.c_str());  // its owner is gone
  listening.reset(unix_stream_socket());
  const int fd = listening.get();
  // Before bind, where the umask can only take from it, and after: so it is never wider in between.
  const bool bound = fd >= 0 && fcntl(fd, F_SETFL, O_NONBLOCK) == 0 && fchmod(fd, kSocketMode) == 0 &&
                     unix_bind(fd, path) == 0 && lstat(path.c_str(), &status) == 0;
  if (!bound) {
    say_cannot_make(path);
    return false;
  }
  maker = getpid();
  device = status.st_dev;
  inode = status.st_ino;
  if (chmod(path.c_str(), kSocketMode) == 0 && listen(fd, SOMAXCONN) == 0) return true;
  say_cannot_make(path);
  return false;
}

void EventSocket::say_cannot_make(const std::string& file) {
  say("cannot make " + file + " (" + strerrordesc_np(errno) + ")");
}

// Tries are many: each reason is said when it is a new one.
void EventSocket::say(const std::string& reason) {
  if (reason == said) return;
  said = reason;
  elog(1, "evq: %s: no events from other processes", reason.c_str());
}

void EventSocket::remove_file() const {
  struct stat status {};
  const bool ours =
      maker == getpid() && lstat(path.c_str(), &status) == 0 && status.st_dev == device && status.st_ino == inode;
  if (ours) unlink(path.c_str());
}

void EventSocket::remove_at_exit() {
  if (g_removed_at_exit != nullptr) g_removed_at_exit->remove_file();
}
