// A Unix stream socket at a fixed path that one process of the machine owns, and the lock file beside it that names the
// owner.
//
// A socket file that a dead daemon left behind looks like a live one, and two daemons that start at once would both
// take it for dead. So the owner holds a lock (flock) on the lock file, which the kernel releases when the owner ends,
// and writes its process id into it: whoever gets the lock may replace the socket, everybody else leaves it alone. The
// lock file itself is never removed: a file that may vanish cannot carry a lock.
//
// A daemon that fails to make the socket tries again for a minute, and makes a socket that was removed or replaced
// again. The kernel reports changes in its folder (inotify): nothing checks the file by the clock.
//
// One thread at a time calls it, except for number() and at the exit of the process.
#pragma once

#include <sys/types.h>
#include <atomic>
#include <string>

#include "util/descriptor.h"

class OwnedSocket {
 public:
  struct Names {
    const char* socket_path = nullptr;  // both below DEVICE_ROOT
    const char* lock_path = nullptr;
    const char* lost_line = nullptr;  // for the log: "%s" is why there is no socket,
    const char* made_line = nullptr;  // and here the path of the one that was made after all
    void (*log)(int level, const char* format, ...) = nullptr;
    bool spares_others = false;  // does not replace a socket at which another program listens: a user chose the path
  };

  // `all_names` and the texts in it must live as long as the object.
  explicit OwnedSocket(const Names& all_names) : names(all_names) {}
  OwnedSocket(const OwnedSocket&) = delete;
  OwnedSocket& operator=(const OwnedSocket&) = delete;
  ~OwnedSocket();

  // Makes folders, lock and socket. Returns false when that fails; the caller then runs without. Logs a reason that
  // differs from that of the last try, and the first success after a failure. The socket file is removed by close(), or
  // else at the exit of the process that made it.
  bool open();

  // Makes a new socket when the file is no longer the one that was made, or when there is none and it is time for
  // another try. To be called regularly while there is none, and when take_change() was true. Returns true when there
  // is a new socket. `now`: steady_ms().
  bool make_again(int64_t now);

  // How long to wait until make_again() makes another try, in ms; -1: there is no need, or it has given up.
  int next_try_ms(int64_t now) const;

  // Removes the socket file, if it is still the one that was made, and releases the lock.
  void close();

  // Why users other than root and ours can put their own socket in the place of this one; empty when they cannot, and
  // before open().
  std::string why_replaceable() const;

  // 0 while this process does not have the socket, otherwise a different number for each one that it makes. Any thread.
  int number() const { return current_number.load(std::memory_order_relaxed); }

  // The listening descriptor, non-blocking and owned by this object; -1: there is none.
  int descriptor() const { return listening.get(); }

  // Becomes readable when something in the socket's folder changes; -1: the kernel does not report it. A change before
  // open() or make_again() returns is not reported.
  int change_descriptor() const { return changes.get(); }

  // Reads what change_descriptor() reports. Returns true when the socket may have been removed or replaced.
  bool take_change() const;

 private:
  bool make();
  bool take_lock();
  bool make_socket();
  bool is_free();
  std::string folder() const;
  void watch_folder();
  bool is_in_place() const;
  void say_cannot_make(const std::string& file);
  void say(const std::string& reason);
  void remove_file();
  void remove_at_exit_too();
  static void remove_at_exit();

  const Names& names;
  OwnedSocket* next_at_exit = nullptr;  // under the lock of owned_socket.cpp
  bool is_removed_at_exit = false;
  std::string path;
  std::string said;  // why the last try failed; empty: it succeeded
  Descriptor lock;
  Descriptor listening;
  Descriptor changes;
  std::atomic<int> current_number{0};  // number()
  int made = 0;                        // sockets so far
  pid_t maker = 0;                     // the process that made the socket file; 0: there is none
  dev_t device = 0;                    // identifies the socket file, with the next one
  ino_t inode = 0;
  int64_t not_before = 0;  // steady_ms: when to try again
  int64_t not_after = 0;   // steady_ms: when to give up; 0: make_again() has not tried yet
};
