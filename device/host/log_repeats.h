// Which lines the log leaves out:
//
//   - of equal lines, those beyond 100 within a second. Up to 256 different ones are counted at a time;
//   - of the lines at level 1 that are made from one format, however different, those beyond 10,000; then 100
//     a second are written. What strangers choose can make each line different, so that none repeats itself.
//
// A summary tells how many there were, a second after the first of them at the latest. Others may come in between.
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
    std::string line;  // all of them equal this one, or else it is the first
    uint64_t times = 0;
    bool are_equal = true;
    bool is_last = false;  // nothing else was written since this line
  };

  // Tells whether `line` is left out. If not, it is to be written now, after the summaries that take() has; then call
  // wrote(). `format` is what it was made from, or null for a line that is only compared.
  bool leaves_out(int level, std::string_view line, const char* format, int64_t now_ms);

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
    size_t hash = 0;       // of line and level
    int64_t since_ms = 0;  // when the second began in which the lines are counted
    uint32_t count = 0;
    std::unique_ptr<Held> held;  // null while none are left out
  };
  struct Message {
    const char* format = nullptr;
    int64_t credit = 0;  // as of then_ms; see the .cpp
    int64_t then_ms = 0;
    std::unique_ptr<Held> held;
  };
  Entry* find(size_t hash, int64_t now_ms);
  bool repeats_itself(Entry& entry, int level, std::string_view line, int64_t now_ms);
  Message* find_message(const char* format, int64_t now_ms);
  bool exceeds_credit(Message& message, int level, std::string_view line, int64_t now_ms);
  Held& hold(std::unique_ptr<Held>& held, int level, std::string_view line, int64_t due_ms);
  void interrupt();
  template <typename Holder>
  bool take_of(Holder& holder, int64_t now_ms, Summary& out);

  std::array<Entry, 256> entries;
  std::array<Message, 64> messages;
  int64_t due = kNever;
  Entry* current = nullptr;  // of the line that is to be written; null: it is not counted
  Entry* last = nullptr;     // of the line that was written last
};
