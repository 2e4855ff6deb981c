// `zelvctl listen`: subscribes at the daemon's listener and writes the events that come.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

struct ListenRequest {
  std::string host = "127.0.0.1";  // name or address
  int port = 0;                    // 1 to 65535; 0: configured_port()
  bool json = false;
  long count = 0;  // events to write; 0: no end
  std::vector<std::string> names;
};

// Subscribes, and writes to `out` every event whose name is exactly one of the names, each flushed at once. Returns
// after `count` of them. Throws Failure: Exit::usage for names that nobody can subscribe to; Exit::unreachable when the
// daemon cannot be reached, goes away, or sends no event packets, and when `out` takes nothing more.
void print_events(const ListenRequest& request, FILE* out);
