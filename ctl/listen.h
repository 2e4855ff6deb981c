// `zelvctl listen`: subscribes to the daemon's listener and writes the events that come.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

struct ListenRequest {
  std::string host = "127.0.0.1";  // name or address
  int port = 0;                    // 1 to 65535; 0: the one in the configuration
  bool json = false;
  long count = 0;  // events to wait for; 0: no end
  std::vector<std::string> names;
};

// The port that the daemon's configuration names, 5512 when it names none. Throws Failure(Exit::usage) when that is no
// port one can connect to.
int configured_port();

// Writes to `out` every event whose name is exactly one of the names, each flushed at once. Returns after `count` of
// them. Throws Failure: Exit::usage for names that cannot be listened for, Exit::unreachable when the daemon cannot be
// reached, goes away, or is none, and when `out` takes nothing more.
void listen(const ListenRequest& request, FILE* out);
