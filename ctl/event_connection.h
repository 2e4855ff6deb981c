// A connection to the daemon's event socket: we send lines, and the daemon ends the stream when it has taken in all of
// them.
//
// The daemon reads only while its queue has room, so a send may have to wait. It waits as long as the daemon goes on
// reading, and fails when the daemon has read nothing for the whole limit.
#pragma once

#include <sys/types.h>
#include <string>
#include <string_view>

#include "util/descriptor.h"

constexpr int kProgressLimitMs = 10000;

// One thread only. Every member throws Failure(Exit::unreachable) when the daemon is gone, closes the connection, or
// makes no progress for the limit. That does not mean that the events are lost: the daemon may still take in what was
// sent.
class EventConnection {
 public:
  // Connects to the event socket at `path`. `limit_ms` is the longest wait without progress.
  explicit EventConnection(const std::string& path, int limit_ms = kProgressLimitMs);

  // The daemon's process id; 0 when the system does not tell.
  pid_t daemon() const;

  // Sends all of `lines`: whole lines, each with its line feed.
  void send(std::string_view lines);

  // Waits, for as long as it takes, until `input` can be read.
  void wait_for_input(int input) const;

  // Ends the sending, and waits until the daemon has taken in everything. When one of the events may have ended the
  // daemon's loop (`quit_sent`), nobody may be left to end the stream: then it is enough that the daemon has read
  // everything.
  void finish(bool quit_sent);

 private:
  void wait_for(short events, bool enough_when_read = false) const;
  int unread_bytes() const;

  const int limit_ms;
  const Descriptor socket;
};
