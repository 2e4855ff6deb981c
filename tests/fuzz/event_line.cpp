// Bytes of a poster, cut into lines and taken apart. Input: the size of the pieces (one byte; from 128 on the line in
// the middle is filled up to about the longest that is taken), then the bytes.
#include <sanitizer/allocator_interface.h>
#include <algorithm>
#include <optional>
#include <string>

#include "device/host/poster_lines.h"
#include "tests/fuzz/fuzz.h"

namespace {

struct Parts {
  std::string type, name, info;
};

// The parts of a good line, read from the description of the format.
std::optional<Parts> reference(const std::string& line) {
  if (line.size() > 65000 || line.find('\0') != std::string::npos) return std::nullopt;
  const size_t type_end = line.find(' ');
  if (type_end == std::string::npos) return std::nullopt;
  const size_t name_end = std::min(line.find(' ', type_end + 1), line.size());
  const Parts parts{line.substr(0, type_end), line.substr(type_end + 1, name_end - type_end - 1),
                    name_end == line.size() ? "" : line.substr(name_end + 1)};
  const std::string digits = parts.type.substr(parts.type[0] == '-' ? 1 : 0);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  if (strtold(parts.type.c_str(), nullptr) < INT32_MIN || strtold(parts.type.c_str(), nullptr) > INT32_MAX) return {};
  const auto is_control = [](char c) { return (c >= 0 && c <= ' ') || c == 127; };
  if (std::any_of(parts.name.begin(), parts.name.end(), is_control)) return std::nullopt;
  return parts.name.empty() || parts.name.size() > 127 ? std::nullopt : std::optional<Parts>(parts);
}

void check(const std::string& line) {
  const Exact exact(line);
  EventLine event{};
  const char* const wrong = parse_event_line(std::string_view(exact.data.get(), line.size()), event);
  const std::optional<Parts> expected = reference(line);
  HOLDS((wrong == nullptr) == expected.has_value());
  if (wrong != nullptr) return;
  HOLDS(event.type == strtoll(expected->type.c_str(), nullptr, 10));
  HOLDS(event.name == expected->name && event.info == expected->info);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] >= 128) input.insert(input.size() / 2, size_t{64900} + data[0], 'x');
  const size_t piece_size = data[0] >= 128 ? 4099 : size_t{data[0]} + 1;
  PosterLines lines;
  size_t at = 0;  // of the line that has to come next
  const auto take_line = [&](std::string_view line) {
    HOLDS(at < input.size());
    const std::string whole = input.substr(at, std::min(input.find('\n', at), input.size()) - at);
    at += whole.size() + 1;
    HOLDS(whole.size() > kEventLineMax ? line.size() > kEventLineMax && whole.find(line) == 0 : line == whole);
    check(std::string(line));
  };
  const size_t before = __sanitizer_get_current_allocated_bytes();
  for (size_t fed = 0; fed < input.size(); fed += piece_size) {
    const Exact piece(std::string_view(input).substr(fed, piece_size));
    lines.feed(std::string_view(piece.data.get(), std::min(piece_size, input.size() - fed)), take_line);
  }
  HOLDS(__sanitizer_get_current_allocated_bytes() - before <= 2 * kEventLineMax);
  lines.finish(take_line);
  HOLDS(at >= input.size());
  HOLDS(__sanitizer_get_current_allocated_bytes() == before);
  return 0;
}
