// A poster's connection to the daemon's event socket: lines go in, and the daemon's end of stream says that it has
// taken in all of them.
//
// The daemon reads only while its queue has room, so a send may have to wait. That is no failure while the daemon goes
// on taking data; when it has taken nothing for the whole limit, it is one.
#pragma once

#include <string>
#include <string_view>

#include "util/descriptor.h"

constexpr int kProgressLimitMs = 10000;

// Not shared between threads. Every member throws Failure(Exit::unreachable) when the daemon is gone, closes the
// connection, or makes no progress for the limit. None of these means that nothing was
// taken in: what has been sent the daemon still takes in when it comes to it.
class EventConnection {
 public:
  // Connects to the event socket at `path`. `limit_ms` is the longest wait without progress.
  explicit EventConnection(const std::string& path, int limit_ms = kProgressLimitMs);

  // Sends all of `lines`: whole lines, each with its line feed.
  void send(std::string_view lines);

  // Waits, for as long as it takes, until `input` can be read.
  void wait_for_input(int input) const;

  // Says that nothing more will come, and waits until the daemon has taken in all that was sent. When an event among it
  // may end the daemon's loop (`quit_sent`), there may be nobody left to end the stream: then it is enough that the
  // daemon has read everything.
  void finish(bool quit_sent);

 private:
  void wait_for(short events, bool enough_when_read = false) const;
  int untaken_bytes() const;
  std::string limit_text() const;

  const int limit_ms;
  const Descriptor socket;
};
