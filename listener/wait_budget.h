// How long the event loop may still wait for a group of slow clients.
//
// Waits add up over clients and over time: a client that takes a moment too long again and again, or that comes back
// under a new connection, costs the others as much as one that takes nothing at all. So all waits of a minute for the
// whole group come to a limit.
//
// No lock of its own (under the listener's) and no clock: `now` is the caller's reading.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>

class WaitBudget {
 public:
  using Clock = std::chrono::steady_clock;

  // `most`: all waits of a minute.
  explicit WaitBudget(std::chrono::milliseconds most) : limit(most) {}

  // Counts a wait of `duration` that ends at `now`.
  void spend(Clock::duration duration, Clock::time_point now) {
    const int64_t number = number_at(now);
    Piece& piece = pieces[static_cast<size_t>(number) % pieces.size()];
    if (piece.number != number) piece = {number, {}};
    piece.waited += duration;
  }

  // What may still be waited at `now`; 0 when nothing is left.
  Clock::duration left(Clock::time_point now) const {
    const int64_t oldest = number_at(now) - kPeriod / kPiece;
    Clock::duration rest = limit;
    for (const Piece& piece : pieces) {
      if (piece.number >= oldest) rest -= piece.waited;
    }
    return std::max(rest, Clock::duration::zero());
  }

 private:
  static constexpr std::chrono::seconds kPeriod{60};
  static constexpr std::chrono::seconds kPiece{5};  // how exactly a wait's age is known

  struct Piece {
    int64_t number = -1;  // counted from the clock's start
    Clock::duration waited{};
  };

  static int64_t number_at(Clock::time_point now) { return now.time_since_epoch() / kPiece; }

  const Clock::duration limit;
  std::array<Piece, kPeriod / kPiece + 1> pieces;  // each in the place that its number gives it
};
