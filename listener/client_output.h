// What waits to be sent to one client of the listener, and how the client keeps up.
//
// Packets are gathered here while more events are at hand and leave in one send: as a range of the block that all
// clients share, and before it, what has been copied from there because it could not stay a range. A packet of which a
// part has been sent is never given up: the client would take the next packet's bytes for its end. So when nobody waits
// for a client any longer, it owes the rest, and events are skipped for it, whole, until the rest is out. What is held
// stays below 64 KiB and one packet.
//
// No lock of its own: everything under the listener's lock.
#pragma once

#include <chrono>
#include <cstddef>

#include "listener/client_buffer.h"
#include "listener/packet_block.h"

class ClientOutput {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr size_t kGatherMax = 64 * 1024;  // bytes that are gathered for one send

  enum class Pushed { ok, failed, broken };

  // `memory` outlives it.
  explicit ClientOutput(ClientMemory& memory) : bytes(memory) {}

  // Forgets everything about the connection, and keeps no more memory than a new record has.
  void reset();

  bool empty() const { return bytes.empty() && range.empty(); }
  size_t waiting() const { return bytes.size() + range.size(); }

  // Adds a packet behind what waits. Not while the client owes, nor to a broken connection. False when the memory for
  // it is not granted: nothing has been added.
  bool append(const char* packet, size_t size) { return copy_range() && bytes.append(packet, size); }

  // As append, with the packet of `size` bytes at `place` of `block`.
  bool append(PacketBlock& block, size_t place, size_t size) {
    if (range.extend(block, place, size)) return true;
    if (!copy_range()) return false;
    range.begin(block, place, size);
    return true;
  }

  // Gives memory back when nothing waits.
  void tidy() { bytes.tidy(); }

  // Sends as much of what waits as `fd` takes without waiting. `failed`: the system is short of something; nothing is
  // lost, the client owes what waits, and further failures are `ok` until something has gone out. `broken`: nothing can
  // be sent any more; what waited is dropped.
  Pushed push(int fd);

  // Nothing is sent any more; what waits is dropped.
  void give_up();
  bool broken() const { return is_broken; }

  // Whether somebody may wait for this client at `now`: not within 60 s after it has caught up.
  bool deserves_wait(Clock::time_point now) const { return now >= trusted_from; }

  // Nobody waits any longer for what still waits here: the client owes it until push has sent it.
  void owe();
  bool owes() const { return owing; }
  Clock::time_point owes_since() const { return owing_since; }

  // Has bytes that leave as soon as somebody pushes: gathered, and not owed.
  bool is_due() const { return !empty() && !owing; }

  // Counts an event that is not sent to this client. Returns true when a gap begins with it.
  bool skip();

  // Whether a gap of skipped events is over and has not been logged, when it began, and its number of events. take_gap
  // counts as logging it.
  bool gap_over() const { return skipped > 0 && !owing && !is_broken; }
  Clock::time_point gap_start() const { return first_skip; }
  int take_gap();

 private:
  bool copy_range();

  ClientBuffer bytes;
  PacketRange range;  // goes out behind them
  bool owing = false;
  bool failing = false;  // the last push failed
  bool is_broken = false;
  int skipped = 0;  // in the gap that has not been logged
  Clock::time_point owing_since{};
  Clock::time_point trusted_from{};
  Clock::time_point first_skip{};
};
