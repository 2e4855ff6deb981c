// What waits to be sent to one client of the listener, and how the client keeps up.
//
// Packets are gathered here while more events are at hand and leave in one send. A packet of which a part has been sent
// is never given up: the client would take the next packet's bytes for its end. So when a client takes nothing more, it
// owes the rest, and events are skipped for it, whole, until the rest is out. What is held stays below 64 KiB and one
// packet.
//
// No lock of its own: everything under the listener's lock.
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

class ClientOutput {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr size_t kGatherMax = 64 * 1024;  // bytes that are gathered for one send

  ClientOutput();

  // A new connection: forgets everything about the one before.
  void begin();

  bool empty() const { return sent == bytes.size(); }
  size_t waiting() const { return bytes.size() - sent; }

  // Adds a packet behind what waits. Not while the client owes.
  void append(const char* packet, size_t size);

  // Sends as much of what waits as `fd` takes without waiting. Returns false when the connection is broken; what waited
  // is then dropped.
  bool push(int fd);

  // Whether somebody may wait for this client: not when it has owed within the last 60 s.
  bool deserves_wait() const { return Clock::now() >= no_wait_until; }

  // Nobody waits any longer for what still waits here: the client owes it until push has sent it.
  void owe() { owing = true; }
  bool owes() const { return owing; }

  // Counts an event that is not sent to this client. Returns true for the first one of a row, which is to be said.
  bool skip();

  // When a row of skipped events is over, returns their number, once, else 0. A row lasts at least a second, or a
  // client that reads by fits and starts would fill the log.
  int row_over();

 private:
  void drop();

  std::vector<char> bytes;  // [sent, end) waits
  size_t sent = 0;
  bool owing = false;
  Clock::time_point no_wait_until{};
  int skipped = 0;  // in the row that has been said
  Clock::time_point first_skip{};
};
