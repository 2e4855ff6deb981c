// `zelvctl listen`: subscribes at the daemon's listener and writes the events that come. For all events, and for
// patterns of names, which the listener does not know, it asks this machine's daemon over the control socket.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

struct ListenRequest {
  std::string root;    // DEVICE_ROOT, or empty
  std::string host;    // name or address; empty: this machine
  int port = 0;        // 1 to 65535; 0: the one of this machine's daemon, else configured_port()
  std::string socket;  // path of a Unix socket, without host and port; empty: none
  bool json = false;
  bool reconnect = false;          // also when the daemon is not there yet
  long count = 0;                  // events to write; 0: no end
  std::vector<std::string> names;  // none: all events
};

// Subscribes, and writes to `out` every event whose name is exactly one of the names, or fits one with "*" or "?", each
// flushed at once. Warns on standard error of names that this machine's daemon does not know. Returns after `count`
// events. Throws Failure: Exit::usage for names that nobody can subscribe to, and for patterns on another machine;
// Exit::unreachable when the daemon cannot be reached or goes away and `reconnect` is not asked for, when it sends no
// event packets, and when `out` takes nothing more.
void print_events(const ListenRequest& request, FILE* out);
