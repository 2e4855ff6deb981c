// The datagram socket at which a service manager takes our messages: NOTIFY_SOCKET in the environment, a path or, with
// "@" in front, an abstract name.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include "util/descriptor.h"

class NotifySocket {
 public:
  // Opens the socket that the environment names, and removes the name from there: programs that scripts start must not
  // speak for the daemon. Logs a failure. Main thread, before other threads read the environment.
  void open();

  bool is_open() const { return socket.get() >= 0; }

  // Sends `text`, "NAME=VALUE" lines, waiting a second at most. Returns false, with errno set, when the manager did not
  // take it. Any thread.
  bool send(const char* text) const;

 private:
  Descriptor socket;
  sockaddr_un address{};
  socklen_t address_size = 0;
};
