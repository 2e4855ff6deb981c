// What the uplink tells about itself, at a Unix stream socket of its own that speaks the protocol of the daemon's
// control socket (docs/control.md): a request is a line, and the only one is `stats`; its answer is lines
// "KIND KEY=VALUE ...", ended by an empty one. ControlClient reads it. At most four clients; a fifth takes the place of
// the one that came first.
//
//   uplink    version, pid, started (a time), uptime_s, session, device, rss (bytes)
//   broker    host, port, tls (1, 0), state (up, down), since_s (in that state), protocol (5, or 4 for 3.1.1; while
//             up), connects, failures, error (the last one; absent: none), next_try_s (while down, absent while it
//             tries), in_flight
//   daemon    state (following, away), since_s (in that state), run (of the daemon; absent: never followed), position
//             (the id of the last event taken over), error (why it is away), connects, events (that matched `up`), lost
//             (events that were overwritten before they could be followed; of gaps of unknown size nothing is counted)
//   out       published, confirmed, repeated (published anew after a lost connection), gaps (records of a gap
//             published), bytes (of payloads published), rate (publishes in the last 10 s), waiting (records in memory)
//   spool     place (disk, memory), records, bytes, limit (bytes), oldest_s (age of the oldest record; absent: none),
//             dropped (events), written (bytes), syncs, error (why it is in memory; absent: it is not)
//   commands  taken, refused, failed, repeated, refusal (the last one; absent: none)
//
// Counters grow from the start of the program on.
#pragma once

#include <poll.h>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "util/descriptor.h"
#include "util/owned_socket.h"
#include "util/rate_limit.h"

// Both below DEVICE_ROOT, in a folder that belongs to the uplink's user.
constexpr char kUplinkSocketPath[] = "/run/zelvind-uplink/control.sock";
constexpr char kUplinkLockPath[] = "/run/zelvind-uplink/control.lock";

// The text of an answer.
class StatusLines {
 public:
  StatusLines& line(const char* kind);
  StatusLines& key(const char* name, const std::string& value);
  StatusLines& key(const char* name, uint64_t value) { return key(name, std::to_string(value)); }

  // All lines and the empty one.
  std::string end() const { return text + "\n\n"; }

 private:
  std::string text;
};

// Serves the socket inside the program's poll loop and never waits for a client. One thread only.
class StatusSocket {
 public:
  // Makes the socket; what fails is logged, and tried again. `stats` makes an answer.
  explicit StatusSocket(std::function<std::string()> make_stats);

  // For the poll loop: what to wait for, how long at most (ms, -1: for as long as it takes), and what then is to be
  // done.
  void add_descriptors(std::vector<pollfd>& out) const;
  int wait_ms() const;
  void run();

 private:
  struct Client {
    Descriptor fd;
    std::string asked;  // requests, and a piece of one
    std::string owed;   // of the answer to the one before
  };
  static constexpr size_t kClientsMost = 4;

  void accept_waiting();
  bool serve(Client& client) const;
  static bool receive(Client& client);
  static bool send_owed(Client& client);

  const std::function<std::string()> stats;
  OwnedSocket socket;
  std::list<Client> clients;      // in the order in which they came
  int64_t accept_not_before = 0;  // steady_ms(), while no descriptor is to be had
  RateLimit accept_limit;
};
