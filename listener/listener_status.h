// What the listener tells about itself: copies, made by ManagerListener::status() and client_list(), that belong to
// whoever asked. The counts begin with the listener and never go back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// What came of the events for one client, or for all of them together.
struct OutputCounts {
  uint64_t deliveries = 0;      // events given to a client: one for each event and client
  uint64_t bytes = 0;           // taken by clients' sockets
  uint64_t sends = 0;           // calls that sent something,
  uint64_t gathered_sends = 0;  // and those of them that began with more than one new event
  uint64_t skips = 0;           // events that a client asked for and did not get: one for each event and client

  void add(const OutputCounts& more) {
    deliveries += more.deliveries;
    bytes += more.bytes;
    sends += more.sends;
    gathered_sends += more.gathered_sends;
    skips += more.skips;
  }
};

struct ListenerStatus : OutputCounts {
  int port = 0;             // the port that is open, also when the kernel chose it; 0: none is
  int wanted_port = 0;      // by the settings
  std::string address;      // listener_address: its endpoints with commas between them, or "none"; empty: it is wrong
  std::string not_open;     // those that are not open
  size_t places = 0;        // how many clients there may be
  size_t clients = 0;       // connected now: of these
  size_t subscribed = 0;    // have subscribed, and owe nothing,
  size_t owing = 0;         // have not taken all that was sent: later events are skipped for them until they have,
  size_t leaving = 0;       // are about to be closed: they gave up their place, or the connection broke.
  uint64_t accepted = 0;    // connections taken,
  uint64_t refused = 0;     // closed at once because all places were taken,
  uint64_t denied = 0;      // closed at once because of listener_allow: these are not among the accepted,
  uint64_t given_up = 0;    // and closed later to make room for another one
  uint64_t waits = 0;       // waits of the event loop for slow clients,
  uint64_t waited_us = 0;   // and their time
  size_t memory = 0;        // bytes held for clients,
  size_t memory_limit = 0;  // and listener_memory
};

struct ClientStatus : OutputCounts {
  static constexpr size_t kSubscriptionShown = 1000;  // bytes

  int fd = 0;
  std::string address;       // "a.b.c.d:port", or "process P of user U"
  const char* state = "";    // "new" (has not subscribed), "subscribed", "owing" or "leaving"
  std::string subscription;  // its type string, at most kSubscriptionShown bytes of it; empty while "new"
  int64_t connected_s = 0;   // seconds since it was accepted
  size_t bytes_waiting = 0;  // for its socket to take them
  int64_t last_skip_s = -1;  // seconds since the last skip; -1: there is none
};
