// When the message about the device's state is to be published: at once over each connection, then when the state has
// changed, once in 10 s at most. A broker that takes nothing at present is not asked again before it could take it.
#pragma once

#include <cstdint>

// One thread only. Times are those of steady_ms().
class StateMessage {
 public:
  // What the message tells beside what never changes.
  struct Told {
    uint64_t spooled = 0, dropped = 0;
    bool in_memory = false;
    bool operator==(const Told& other) const {
      return spooled == other.spooled && dropped == other.dropped && in_memory == other.in_memory;
    }
  };

  // The connection is a new one.
  void begin() { has_told = is_held_up = false; }

  // The broker has answered another message, so that it may take this one.
  void go_on() { is_held_up = false; }

  // When to publish, while there is a connection; -1: not before one of the calls above, or another state.
  int64_t due(const Told& current) const {
    if (is_held_up) return -1;
    if (!has_told) return 0;
    return current == told ? -1 : told_at + kStateMs;
  }

  // What has become of a publish: the broker does not take it now, or it is on its way.
  void hold_up() { is_held_up = true; }
  void tell(const Told& current, int64_t now) {
    told = current;
    told_at = now;
    has_told = true;
  }

 private:
  static constexpr int64_t kStateMs = 10000;

  Told told;  // last
  int64_t told_at = 0;
  bool has_told = false;  // over this connection
  bool is_held_up = false;
};
