// What waits to be sent to one client of the listener, and how the client keeps up.
//
// Packets are gathered here while more events are at hand and leave in one send: as a range of the block that all
// clients share, behind copies of those that could not stay in a range. A packet of which a part has been sent is never
// dropped: the client would take the next packet's bytes for its end. So when nobody waits for a client any longer, it
// owes the rest, and whole events are skipped for it until the rest is out. What is held stays below 64 KiB and one
// packet.
//
// No lock of its own: all calls under the listener's lock.
#pragma once

#include <chrono>
#include <cstddef>

#include "listener/client_buffer.h"
#include "listener/listener_status.h"
#include "listener/packet_block.h"

class ClientOutput {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr size_t kGatherMax = size_t{64} * 1024;  // bytes that are gathered for one send

  enum class Pushed { ok, gap_over, failed, broken };

  // `memory` must outlive it.
  explicit ClientOutput(ClientMemory& memory) : bytes(memory) {}

  // Forgets everything about the connection, and gives its memory back.
  void reset();

  bool empty() const { return bytes.empty() && range.empty(); }
  size_t waiting() const { return bytes.size() + range.size(); }

  // Adds a packet behind what waits. Not while the client owes, nor to a broken connection. False when the memory for
  // it is not granted: nothing has been added.
  bool append(const char* packet, size_t size) {
    if (!copy_range() || !bytes.append(packet, size)) return false;
    ++counted.deliveries;
    return true;
  }

  // As append, with the last packet of `block`, `size` bytes long. It is not copied.
  bool append_last(PacketBlock& block, size_t size) {
    if (!range.extend(block, size)) {
      if (!copy_range()) return false;
      range.begin(block, size);
    }
    ++counted.deliveries;
    return true;
  }

  // Gives memory back when nothing waits.
  void tidy() { bytes.tidy(); }

  // Sends as much of what waits as `fd` takes without waiting. `gap_over`: the client owed, and events were skipped;
  // the rest is out. `failed`: the system is short of something; nothing is lost, the client owes what waits, and
  // further failures are `ok` until something has gone out. `broken`: nothing can be sent any more; what waited is
  // dropped.
  Pushed push(int fd);

  // Drops what waits; nothing is sent any more.
  void give_up();
  bool broken() const { return is_broken; }

  // Whether the client may be waited for at `now`: not within 60 s after it has caught up.
  bool deserves_wait(Clock::time_point now) const { return now >= trusted_from; }

  // Nobody waits for the client any longer: it owes what waits here until push has sent it.
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

  // What came of the connection so far, and when an event was skipped last.
  const OutputCounts& counts() const { return counted; }
  Clock::time_point skipped_last() const { return last_skip; }

 private:
  bool copy_range();

  ClientBuffer bytes;
  PacketRange range;  // leaves after them
  bool owing = false;
  bool failing = false;  // the last push failed
  bool is_broken = false;
  int skipped = 0;  // in the gap that has not been logged
  Clock::time_point owing_since{};
  Clock::time_point trusted_from{};
  Clock::time_point first_skip{};
  Clock::time_point last_skip{};
  OutputCounts counted;
  uint64_t deliveries_sent = 0;  // of counted.deliveries, those that a send has begun with
};
