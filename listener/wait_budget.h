// How long the event loop may still wait for one client of the listener.
//
// A client that takes a moment too long again and again costs the others as much as one that takes nothing at all. So
// the waits of a minute add up: after 3000 ms of them there are no more, until the client has kept up for 60 s.
//
// No lock of its own and no clock: `now` is the caller's reading.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>

class WaitBudget {
 public:
  using Clock = std::chrono::steady_clock;

  // Counts a wait of `duration` that ends at `now`.
  void spend(Clock::duration duration, Clock::time_point now);

  // The client was not waited for, and has caught up at `now`.
  void caught_up(Clock::time_point now) { none_until = now + kPeriod; }

  bool is_left(Clock::time_point now) const;

 private:
  static constexpr std::chrono::seconds kPeriod{60};
  static constexpr std::chrono::seconds kPiece{5};  // how exactly a wait's age is known

  struct Piece {
    int64_t number = -1;  // counted from the clock's start
    Clock::duration waited{};
  };

  static int64_t number_at(Clock::time_point now) { return now.time_since_epoch() / kPiece; }

  std::array<Piece, kPeriod / kPiece + 1> pieces;  // each in the place that its number gives it
  Clock::time_point none_until{};
};
