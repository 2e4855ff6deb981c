// Which lines the log leaves out because they repeat themselves: when more than 100 equal ones come within a second,
// the first 100 are written, and a summary tells how many more there were. Others may come in between; up to eight
// different lines are counted at a time.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

// Not thread-safe: LogTarget guards it. Times are steady_tick_ms().
class LogRepeats {
 public:
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

  // What is left out of one line until now.
  struct Summary {
    int level = 0;
    std::string line;
    uint64_t times = 0;
    bool is_last = false;  // nothing else was written since this line
  };

  // Returns how often `line` has been left out since it was last written or summed up, this time included; 0: it is to
  // be written now, after the summaries that take() has; then call wrote().
  uint64_t leave_out(int level, std::string_view line, int64_t now_ms);

  // In place of leave_out() for a line that is not compared.
  void pass() { current = nullptr; }

  // The line of the last leave_out() or pass() is written now.
  void wrote() { last = current; }

  // Takes a summary whose second is over at `now_ms`, or that of the last line if another is to be written now. Returns
  // false when there is none.
  bool take(int64_t now_ms, Summary& out);

  // The time at which take() has the next summary at the latest.
  int64_t due_ms() const;

  // Forgets what was left out: it is another process's.
  void forget();

 private:
  struct Entry {
    size_t hash = 0;
    uint64_t turn = 0;     // of the line that was seen last
    int64_t since_ms = 0;  // when the second began in which the lines are counted
    uint32_t count = 0;
    uint64_t left_out = 0;
    int level = 0;
    std::string line;  // while some are left out
  };
  Entry* find(size_t hash, int64_t now_ms);

  std::array<Entry, 8> entries;
  uint64_t turns = 0;
  Entry* current = nullptr;  // of the line that is to be written; null: it is not counted
  Entry* last = nullptr;     // of the line that was written last
};
