// The datagram socket at which a service manager wants to hear from us: NOTIFY_SOCKET in the environment, a path or,
// with "@" in front, an abstract name.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include "util/descriptor.h"

class NotifySocket {
 public:
  // Opens the one that the environment names, and takes the name out of it: what scripts start is not to speak for the
  // daemon. Main thread, before others read the environment.
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
