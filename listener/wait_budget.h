// How long the event loop may still wait for a group of slow clients.
//
// Waits add up over clients and over time: a client that is a moment late again and again, or that comes back with a
// new connection, costs the others as much as one that takes nothing at all. So there is a limit to the sum of all
// waits for the group within a minute.
//
// No lock of its own: all calls under the listener's lock. No clock of its own: `now` is the time as the caller read
// it.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>

class WaitBudget {
 public:
  using Clock = std::chrono::steady_clock;

  // `most`: the limit of a minute.
  explicit WaitBudget(std::chrono::milliseconds most) : limit(most) {}

  // Counts a wait of `duration` that ends at `now`.
  void spend(Clock::duration duration, Clock::time_point now) {
    const int64_t number = number_at(now);
    Piece& piece = pieces[static_cast<size_t>(number) % pieces.size()];
    if (piece.number != number) piece = {number, {}};
    piece.waited += duration;
  }

  // How long may still be waited at `now`; 0 when nothing is left.
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
  static constexpr std::chrono::seconds kPiece{5};  // a wait's age is known to within this

  struct Piece {
    int64_t number = -1;  // counted from the clock's start
    Clock::duration waited{};
  };

  static int64_t number_at(Clock::time_point now) { return now.time_since_epoch() / kPiece; }

  const Clock::duration limit;
  std::array<Piece, kPeriod / kPiece + 1> pieces;  // each at its number modulo their count
};
