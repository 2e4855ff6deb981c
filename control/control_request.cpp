#include "control/control_request.h"

#include <algorithm>
#include <charconv>

#include "control/answer.h"
#include "util/text.h"

namespace {

constexpr size_t kPatternsMost = 32;
constexpr size_t kPatternMost = 255;  // bytes
constexpr size_t kRunSize = 8;        // digits

std::string quoted(std::string_view text) {
  constexpr size_t kShown = 40;
  return "'" + std::string(text.substr(0, kShown)) + (text.size() > kShown ? "..." : "") + "'";
}

bool is_control(char c) {
  return (c >= 0 && c < ' ') || c == 0x7f;
}

std::string parse_from(std::string_view id, FollowRequest& follow) {
  std::string problem = "from is " + quoted(id) + ": expected RUN-NUMBER, as in an event's id";
  if (id.size() <= kRunSize || id[kRunSize] != '-') return problem;
  follow.run = id.substr(0, kRunSize);
  if (follow.run.find_first_not_of("0123456789abcdef") != std::string::npos) return problem;
  const char* const end = id.data() + id.size();
  const auto number = std::from_chars(id.data() + kRunSize + 1, end, follow.sequence);
  return number.ec == std::errc() && number.ptr == end ? "" : problem;
}

std::string parse_names(std::string_view list, FollowRequest& follow) {
  while (!list.empty()) {
    std::string name;
    if (!append_decoded(name, take_item(list, ','))) return "names: two hexadecimal digits must follow a %";
    if (name.size() > kPatternMost) return "names: a pattern has more than 255 bytes";
    if (!name.empty()) follow.names.push_back(std::move(name));
    if (follow.names.size() > kPatternsMost) return "names: more than 32 patterns";
  }
  return "";
}

bool take_prefix(std::string_view& text, std::string_view prefix) {
  if (text.substr(0, prefix.size()) != prefix) return false;
  text.remove_prefix(prefix.size());
  return true;
}

}  // namespace

RequestLines::Next RequestLines::take(std::string& line) {
  size_t end = held.find('\n');
  if (skipping) {
    skipping = end == std::string::npos;
    held.erase(0, skipping ? std::string::npos : end + 1);
    if (skipping) return Next::nothing;
    end = held.find('\n');
  }
  if (end == std::string::npos) {
    if (held.size() == kRequestMost) {
      held.clear();
      skipping = true;
      return Next::too_long;
    }
    if (!finished || held.empty()) return Next::nothing;
    end = held.size();
  }
  line.assign(held, 0, end);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  held.erase(0, end + 1);
  return Next::line;
}

bool RequestLines::has_line() const {
  return held.size() == kRequestMost || held.find('\n') != std::string::npos || (finished && !held.empty());
}

std::string parse_request(std::string_view line, ControlRequest& request) {
  if (std::any_of(line.begin(), line.end(), is_control)) return "a request has no control characters";
  std::vector<std::string> words;
  while (!line.empty()) {
    const std::string_view word = take_item(line, ' ');
    if (!word.empty()) words.emplace_back(word);
  }
  if (words.empty()) return "the request is empty";
  request.name = std::move(words.front());
  words.erase(words.begin());
  request.arguments = std::move(words);
  return "";
}

std::string parse_follow(const std::vector<std::string>& arguments, FollowRequest& follow) {
  for (const std::string& argument : arguments) {
    std::string_view value = argument;
    std::string problem;
    if (take_prefix(value, "from=")) {
      problem = parse_from(value, follow);
    } else if (take_prefix(value, "names=")) {
      problem = parse_names(value, follow);
    } else {
      problem = "unknown argument " + quoted(argument) + ": expected from=ID or names=GLOB,...";
    }
    if (!problem.empty()) return problem;
  }
  return "";
}

bool FollowRequest::wants(std::string_view name) const {
  return names.empty() || std::any_of(names.begin(), names.end(),
                                      [&](const std::string& pattern) { return matches_pattern(pattern, name); });
}
