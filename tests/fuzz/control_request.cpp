// Bytes of a client of the control socket, cut into requests and taken apart. Input: the size of the pieces (one byte;
// from 240 on the line in the middle is filled up to about the longest that is taken), then the bytes.
#include "control/control_request.h"
#include "control/answer.h"
#include "tests/fuzz/fuzz.h"
#include "util/text.h"

namespace {

// What cutting has to give, by the description of the format: "\n" stands for a line that is too long.
std::vector<std::string> reference_lines(const std::string& input) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < input.size();) {
    const size_t end = std::min(input.find('\n', at), input.size());
    std::string line = input.substr(at, end - at);
    at = end + 1;
    if (line.size() >= kRequestMost) {
      line = "\n";
    } else if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    lines.push_back(line);
  }
  return lines;
}

void check_encoding(const std::string& bytes) {
  std::string encoded;
  append_encoded(encoded, Exact(bytes).view());
  for (const char c : encoded) HOLDS(c < 0 || (c > ' ' && c != 0x7f));
  std::string decoded;
  HOLDS(append_decoded(decoded, Exact(encoded).view()) && decoded == bytes);
  append_decoded(decoded, Exact(bytes).view());
}

// The slow way round: "*" stands for nothing, or for one byte and another "*".
bool reference_match(std::string_view pattern, std::string_view name, int& steps) {
  if (++steps > 500) return false;
  if (pattern.empty()) return name.empty();
  if (pattern[0] == '*') {
    if (reference_match(pattern.substr(1), name, steps)) return true;
    return !name.empty() && reference_match(pattern, name.substr(1), steps);
  }
  if (name.empty() || (pattern[0] != '?' && pattern[0] != name[0])) return false;
  return reference_match(pattern.substr(1), name.substr(1), steps);
}

void check_pattern(const std::string& pattern, const std::string& name) {
  const Exact exact_pattern(pattern);
  const Exact exact_name(name);
  const bool matches = matches_pattern(exact_pattern.view(), exact_name.view());
  int steps = 0;
  const bool expected = reference_match(pattern, name, steps);
  HOLDS(steps > 500 || matches == expected);
}

void check(const std::string& line) {
  ControlRequest request;
  const Exact exact(line);
  const bool is_good = parse_request(exact.view(), request).empty();
  HOLDS(is_good == !request.name.empty());
  std::string again = request.name;
  for (const std::string& argument : request.arguments) again += ' ' + argument;
  ControlRequest second;
  HOLDS(!is_good || (parse_request(again, second).empty() && second.arguments == request.arguments));
  FollowRequest follow;
  parse_follow(request.arguments, follow);
  HOLDS(follow.names.size() <= 33 && (follow.run.empty() || follow.run.size() == 8));
  for (const std::string& pattern : follow.names) check_pattern(pattern, request.name);
  if (request.arguments.size() == 1) check_pattern(request.arguments[0], request.name);
}

}  // namespace

void fuzz(size_t choice, std::string input) {
  check_encoding(input);
  if (choice >= 240) input.insert(input.size() / 2, 3840 + choice, 'x');
  const size_t piece_size = choice >= 240 ? 1500 : choice + 1;
  RequestLines lines;
  std::vector<std::string> taken;
  const auto take = [&] {
    for (std::string line;;) {
      const bool has_line = lines.has_line();
      const RequestLines::Next next = lines.take(line);
      if (next == RequestLines::Next::nothing) return;
      HOLDS(has_line || next == RequestLines::Next::line);
      taken.push_back(next == RequestLines::Next::too_long ? "\n" : line);
      if (next == RequestLines::Next::line) check(line);
    }
  };
  for (size_t fed = 0; fed < input.size();) {
    const size_t size = std::min({piece_size, lines.room(), input.size() - fed});
    HOLDS(size > 0);
    lines.add(Exact(std::string_view(input).substr(fed, size)).view());
    fed += size;
    take();
  }
  lines.finish();
  take();
  HOLDS(taken == reference_lines(input));
}
