#include "listener/wait_budget.h"

namespace {

constexpr std::chrono::milliseconds kWaitMax{3000};

}  // namespace

void WaitBudget::spend(Clock::duration duration, Clock::time_point now) {
  const int64_t number = number_at(now);
  Piece& piece = pieces[static_cast<size_t>(number) % pieces.size()];
  if (piece.number != number) piece = {number, {}};
  piece.waited += duration;
}

bool WaitBudget::is_left(Clock::time_point now) const {
  if (now < none_until) return false;
  const int64_t oldest = number_at(now) - kPeriod / kPiece;
  Clock::duration waited{};
  for (const Piece& piece : pieces) {
    if (piece.number >= oldest) waited += piece.waited;
  }
  return waited < kWaitMax;
}
