#include "util/owned_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/device_root.h"
#include "util/file_trust.h"
#include "util/mutex.h"
#include "util/unix_socket.h"

namespace {

constexpr mode_t kSocketMode = 0660;
constexpr int kRetryMs = 1000;
constexpr int kPatienceMs = 60000;

// Guards the socket files and the list of those that are removed at exit: a script may end the process while another
// thread makes or removes one.
Mutex g_files;
OwnedSocket* g_removed_at_exit GUARDED_BY(g_files) = nullptr;
std::atomic<pid_t> g_maker{0};  // the last process that made a socket

pid_t read_owner(int fd) {
  char text[16] = "";
  const ssize_t got = pread(fd, text, sizeof(text) - 1, 0);
  return got > 0 ? static_cast<pid_t>(strtol(text, nullptr, 10)) : 0;
}

// Gives the socket at `path` its mode where the umask has narrowed it. By a descriptor: whoever may write to the folder
// may have put a link to another file of ours there.
bool open_to_group(const std::string& path) {
  const Descriptor made(above_standard_streams(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)));
  struct stat status {};
  if (made.get() < 0 || fstat(made.get(), &status) != 0) return false;
  errno = EEXIST;
  if (!S_ISSOCK(status.st_mode) || status.st_uid != geteuid()) return false;
  const std::string same = "/proc/self/fd/" + std::to_string(made.get());
  return (status.st_mode & ALLPERMS) == kSocketMode || chmod(same.c_str(), kSocketMode) == 0;
}

}  // namespace

OwnedSocket::~OwnedSocket() {
  close();
  const MutexLock lock_of_files(g_files);
  OwnedSocket** at = &g_removed_at_exit;
  while (*at != nullptr && *at != this) at = &(*at)->next_at_exit;
  if (*at == this) *at = next_at_exit;
}

bool OwnedSocket::open() {
  not_after = 0;
  return make();
}

bool OwnedSocket::make() {
  std::string wanted;
  if (!under_device_root(names.socket_path, wanted)) return false;
  if (wanted != path) {
    const MutexLock lock_of_files(g_files);
    path = wanted;
  }
  if (!make_folders(path)) {
    say_cannot_make(path);
    return false;
  }
  if (!take_lock() || !make_socket()) {
    close();
    return false;
  }
  if (!said.empty()) names.log(1, names.made_line, path.c_str());
  said.clear();
  watch_folder();
  current_number = ++made;
  return true;
}

// The owner of the socket may be about to end, so there are more tries; but not for ever: when the daemon that should
// have the socket is restarted later, a second daemon must not take it in between.
bool OwnedSocket::make_again(int64_t now) {
  if (number() != 0) {
    if (is_in_place()) return false;
    say(path + " was removed or replaced");
    close();
    not_after = 0;
  }
  if (not_after == 0) {
    not_before = now;
    not_after = now + kPatienceMs;
  }
  if (now < not_before || now > not_after) return false;
  not_before = now + kRetryMs;
  return make();
}

int OwnedSocket::next_try_ms(int64_t now) const {
  if (number() != 0) return -1;
  if (not_after == 0) return 0;
  const int64_t next = std::max(now, not_before);
  return next <= not_after ? static_cast<int>(next - now) : -1;
}

void OwnedSocket::close() {
  current_number = 0;
  changes.reset();
  {
    const MutexLock lock_of_files(g_files);
    remove_file();
    maker = 0;
  }
  listening.reset();
  // Explicitly: a child between its fork and its exec still has the descriptor, and would keep the lock.
  if (lock.get() >= 0) flock(lock.get(), LOCK_UN);
  lock.reset();
}

std::string OwnedSocket::why_replaceable() const {
  return why_open_to_strangers(folder());
}

std::string OwnedSocket::folder() const {
  return path.substr(0, path.rfind('/'));
}

void OwnedSocket::watch_folder() {
  changes.reset(above_standard_streams(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)));
  constexpr uint32_t kGone = IN_DELETE | IN_MOVE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
  if (changes.get() >= 0 && inotify_add_watch(changes.get(), folder().c_str(), kGone) < 0) changes.reset();
}

bool OwnedSocket::take_change() const {
  char changed[4096];
  bool has_changed = false;
  while (read(changes.get(), changed, sizeof(changed)) > 0) has_changed = true;
  return has_changed;
}

bool OwnedSocket::take_lock() {
  std::string lock_path;
  under_device_root(names.lock_path, lock_path);
  // Mode 0600: whoever can read a file can lock it. Others may have put anything there, so only a regular file of ours
  // without another link is written.
  constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  lock.reset(above_standard_streams(::open(lock_path.c_str(), kFlags, 0600)));
  const char* const foreign = lock.get() < 0 ? why_not_a_file(errno) : why_not_ours(lock.get());
  if (lock.get() < 0 || foreign != nullptr) {
    foreign == nullptr ? say_cannot_make(lock_path) : say("cannot use " + lock_path + " (" + foreign + ")");
    lock.reset();
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
  return true;
}

// Whether nothing is at the path but a socket that is left over. Says what is.
bool OwnedSocket::is_free() {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
    say("cannot make " + path + " (there is something else, which is not a socket)");
    return false;
  }
  if (!names.spares_others) return true;
  // A program that knows nothing of our lock may listen there: only a socket that refuses is left over.
  const Descriptor probe(unix_stream_socket());
  const bool can_ask = probe.get() >= 0 && fcntl(probe.get(), F_SETFL, O_NONBLOCK) == 0;
  const int error = can_ask && unix_connect(probe.get(), path) == 0 ? 0 : errno;
  if (error == ECONNREFUSED || error == ENOENT) return true;
  if (error == 0 || error == EAGAIN || error == EPROTOTYPE) {
    say(path + " belongs to another program");
  } else {
    say_cannot_make(path);
  }
  return false;
}

bool OwnedSocket::make_socket() {
  if (!is_free()) return false;
  remove_at_exit_too();
  const MutexLock lock_of_files(g_files);
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) unlink(path.c_str());  // its owner is gone
  listening.reset(unix_stream_socket());
  const int fd = listening.get();
  // The mode is set before bind, which can only narrow it by the umask, and again after: it is never wider in between.
  const bool bound = fd >= 0 && fcntl(fd, F_SETFL, O_NONBLOCK) == 0 && fchmod(fd, kSocketMode) == 0 &&
                     unix_bind(fd, path) == 0 && lstat(path.c_str(), &status) == 0;
  if (!bound) {
    say_cannot_make(path);
    return false;
  }
  maker = getpid();
  device = status.st_dev;
  inode = status.st_ino;
  if (open_to_group(path) && listen(fd, SOMAXCONN) == 0) return true;
  say_cannot_make(path);
  return false;
}

void OwnedSocket::say_cannot_make(const std::string& file) {
  say("cannot make " + file + " (" + strerrordesc_np(errno) + ")");
}

// There are many tries: a reason is logged only when it is new.
void OwnedSocket::say(const std::string& reason) {
  if (reason == said) return;
  said = reason;
  names.log(1, names.lost_line, reason.c_str());
}

bool OwnedSocket::is_in_place() const {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

void OwnedSocket::remove_file() {
  if (maker == getpid() && is_in_place()) unlink(path.c_str());
}

void OwnedSocket::remove_at_exit_too() {
  static const int registered = atexit(remove_at_exit);
  (void)registered;
  g_maker = getpid();
  const MutexLock lock_of_files(g_files);
  if (is_removed_at_exit) return;
  is_removed_at_exit = true;
  next_at_exit = g_removed_at_exit;
  g_removed_at_exit = this;
}

void OwnedSocket::remove_at_exit() {
  if (g_maker != getpid()) return;  // a child has made none, and may find the lock held for ever
  const MutexLock lock_of_files(g_files);
  for (OwnedSocket* socket = g_removed_at_exit; socket != nullptr; socket = socket->next_at_exit) socket->remove_file();
}
