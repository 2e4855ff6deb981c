// The text of answers at the control socket: lines of a kind and keys with values (docs/control.md).
//
//   Answer answer;
//   answer.line("client").key("id", 7).key("address", "192.0.2.1:4711").key("wants", "door,heat");
//
// Knows no socket and no lock: what a thread builds belongs to that thread.
#pragma once

#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

class Durations;

// Appends `value` to `out`, with control characters, blanks, "%" and bytes that are not UTF-8 as %XX.
void append_encoded(std::string& out, std::string_view value);

// Appends `text` to `out`, with each %XX as the byte that it stands for. Returns false when two hexadecimal digits do
// not follow a "%".
bool append_decoded(std::string& out, std::string_view text);

class Answer {
 public:
  static constexpr size_t kMost = size_t{1024} * 1024;  // bytes; later lines are left out, and counted

  // Begins a line.
  Answer& line(std::string_view kind);

  // Adds a key to the line.
  Answer& key(std::string_view name, std::string_view value);
  template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
  Answer& key(std::string_view name, Number number) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof(digits), number);
    return plain_key(name, std::string_view(digits, static_cast<size_t>(end.ptr - digits)));
  }

  // Adds PREFIXsum_us, PREFIXmax_us and buckets.
  Answer& durations(std::string_view prefix, const Durations& durations);

  // Adds the lines of another answer, which are bounded already.
  void add_lines(std::string_view lines);

  // Whether lines have been left out: there is no use in making more of them.
  bool is_full() const { return bytes_cut > 0; }

  // Counts lines that were not made.
  void leave_out(size_t lines) { lines_cut += lines; }

  // Makes "error: TEXT" the whole answer; control characters in `reason` are escaped.
  void fail(std::string_view reason);

  // Returns all lines, each with its line end, and leaves nothing behind.
  std::string take_lines();

 private:
  Answer& plain_key(std::string_view name, std::string_view value);
  void end_line();

  std::string text;
  size_t line_start = 0;
  size_t bytes_cut = 0;
  size_t lines_cut = 0;  // not made
};
