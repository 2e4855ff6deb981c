// Bytes of a poster, cut into lines and taken apart. Input: the size of the pieces (one byte; from 128 on the line in
// the middle is filled up to about the longest that is taken), then the bytes.
#include <sanitizer/allocator_interface.h>

#include "device/host/poster_lines.h"
#include "tests/fuzz/fuzz.h"

namespace {

// Holds the parser against the description of the format.
void check(const std::string& line) {
  const size_t type_end = std::min(line.find(' '), line.size());
  const size_t name_end = std::min(line.find(' ', std::min(type_end + 1, line.size())), line.size());
  const std::string name = type_end == line.size() ? "" : line.substr(type_end + 1, name_end - type_end - 1);
  const auto is_control = [](char c) { return (c >= 0 && c <= ' ') || c == 127; };
  int type = 0;
  const bool is_good = line.size() <= 65000 && line.find('\0') == std::string::npos && !name.empty() &&
                       name.size() <= 127 && std::none_of(name.begin(), name.end(), is_control) &&
                       reference_int(line.substr(0, type_end), type);
  const Exact exact(line);
  EventLine event{};
  HOLDS((parse_event_line(exact.view(), event) == nullptr) == is_good);
  HOLDS(!is_good || (event.type == type && event.name == name));
  HOLDS(!is_good || event.info == (name_end == line.size() ? "" : line.substr(name_end + 1)));
}

}  // namespace

void fuzz(size_t choice, std::string input) {
  if (choice >= 128) input.insert(input.size() / 2, 64900 + choice, 'x');
  const size_t piece_size = choice >= 128 ? 4099 : choice + 1;
  PosterLines lines;
  size_t at = 0;  // of the line that has to come next
  const auto take_line = [&](std::string_view line) {
    HOLDS(at < input.size());
    const std::string whole = input.substr(at, std::min(input.find('\n', at), input.size()) - at);
    at += whole.size() + 1;
    HOLDS(whole.size() > 65000 ? line.size() > 65000 && whole.find(line) == 0 : line == whole);
    check(std::string(line));
    return line.size() % 3 != 0;  // now and then enough for this turn
  };
  const size_t before = __sanitizer_get_current_allocated_bytes();
  for (size_t fed = 0; fed < input.size(); fed += piece_size) {
    const Exact piece(std::string_view(input).substr(fed, piece_size));
    for (auto rest = piece.view(); !rest.empty();) rest = lines.feed(rest, take_line);
  }
  HOLDS(__sanitizer_get_current_allocated_bytes() - before <= 2 * 65000);
  lines.finish(take_line);
  HOLDS(at >= input.size() && __sanitizer_get_current_allocated_bytes() == before);
}
