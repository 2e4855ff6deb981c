// Which lines the log leaves out because they repeat themselves: when more than 100 equal ones come within a second,
// the first 100 are written, and a summary tells how many more there were, a second after the first one at the latest.
// Others may come in between; up to 256 different lines are counted at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

// Not thread-safe: LogTarget guards it. Times are those of steady_tick_ms().
class LogRepeats {
 public:
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

  // What is left out until now.
  struct Summary {
    int level = 0;
    std::string line;
    uint64_t times = 0;
    bool is_last = false;  // nothing else was written since this line
  };

  // Tells whether `line` is left out. If not, it is to be written now, after the summaries that take() has; then call
  // wrote().
  bool leaves_out(int level, std::string_view line, int64_t now_ms);

  // In place of leaves_out() for a line that is written in any case.
  void pass();

  // The line of the last leaves_out() or pass() is written now.
  void wrote() { last = current; }

  // Takes a summary that is due at `now_ms`. Returns false when there is none.
  bool take(int64_t now_ms, Summary& out);

  // When take() has the next summary at the latest.
  int64_t due_ms() const { return due; }

  // Forgets what was left out: it is another process's.
  void forget();

 private:
  struct Held {
    int level;
    std::string line;
    int64_t due_ms;
    uint64_t times;
  };
  struct Entry {
    int64_t since_ms = 0;  // when the second began in which the lines are counted
    uint32_t count = 0;
    std::unique_ptr<Held> held;  // null while none are left out
  };
  Entry* find(size_t hash, int level, std::string_view line);
  Entry* make(size_t hash, int64_t now_ms);
  bool repeats_itself(Entry& entry, int level, std::string_view line, int64_t now_ms);
  void interrupt();

  static constexpr size_t kEntries = 256;
  // Of the entries' lines and levels; apart from them, so that a search is quick.
  std::array<size_t, kEntries> hashes{};
  std::array<Entry, kEntries> entries;
  size_t next = 0;  // where the oldest entry is
  int64_t due = kNever;
  Entry* current = nullptr;  // of the line that is to be written; null: it is not counted
  Entry* last = nullptr;     // of the line that was written last
};
