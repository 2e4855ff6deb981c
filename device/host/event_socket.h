// The Unix stream socket at which other processes post events, and the lock file beside it that says whose it is.
//
// A socket file that a dead daemon left behind looks like a live one, and two daemons that start at once would both
// take it for dead. So the owner holds a lock (flock) on events.lock, which the kernel lets go of whenever the owner
// ends, and writes its process id into it: whoever gets the lock may replace the socket, everybody else leaves it
// alone. The lock file itself stays behind; a lock on a file that may vanish is none.
#pragma once

#include <sys/types.h>
#include <string>

#include "util/descriptor.h"

class EventSocket {
 public:
  // Makes folders, lock and socket below DEVICE_ROOT. Returns the listening descriptor, non-blocking and owned by this
  // object, or -1 after one level 1 line (for a root that is not absolute, under_device_root has
  // said it): the caller runs without. The socket file is removed by close(), or else at
  // the exit of the process that made it; `this` must live until then. Main thread.
  int open();

  // Removes the socket file, if it is still the one made, and lets go of the lock. Main thread.
  void close();

 private:
  bool take_lock();
  bool make_socket();
  void remove_file() const;
  static void remove_at_exit();

  std::string path;
  Descriptor lock;
  Descriptor listening;
  pid_t maker = 0;   // the process that made the socket file; 0: there is none
  dev_t device = 0;  // what identifies the socket file
  ino_t inode = 0;
};
