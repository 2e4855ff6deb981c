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
  // object, or -1, and then the caller runs without, and may try again. The log says why when it is not the reason of
  // the try before (under_device_root says it once), and says when it came right. The socket file is removed by
  // close(), or else at the exit of the process that made it; `this` must live until then. Main thread, or script
  // thread.
  int open();

  // Removes the socket file, if it is still the one made, and lets go of the lock. Same threads.
  void close();

 private:
  bool take_lock();
  bool make_socket();
  void say_cannot_make(const std::string& file);
  void say(const std::string& reason);
  void remove_file() const;
  static void remove_at_exit();

  std::string path;
  std::string said;  // why the last try failed; empty: it did not
  Descriptor lock;
  Descriptor listening;
  pid_t maker = 0;   // the process that made the socket file; 0: there is none
  dev_t device = 0;  // what identifies the socket file
  ino_t inode = 0;
};
