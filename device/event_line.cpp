#include "device/event_line.h"

#include <algorithm>
#include <charconv>

const char* check_event_name(std::string_view name) {
  if (name.empty()) return "the name is missing";
  if (name.size() > kEventNameMax) return "the name is longer than 127 bytes";
  const auto forbidden = [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7f'; };
  if (std::any_of(name.begin(), name.end(), forbidden)) return "the name holds a blank or a control character";
  return nullptr;
}

const char* check_event_field(std::string_view name, std::string_view value) {
  if (name.empty()) return "the field's name is missing";
  if (name.find('=') != std::string_view::npos) return "a field's name cannot contain '='";
  if (name.find('&') != std::string_view::npos) return "a field's name cannot contain '&'";
  if (value.find('&') != std::string_view::npos) return "a field's value cannot contain '&'";
  for (const std::string_view text : {name, value}) {
    if (text.find('\n') != std::string_view::npos) return "a field cannot contain a line end";
    if (text.find('\0') != std::string_view::npos) return "a field cannot contain a zero byte";
  }
  return nullptr;
}

const char* parse_event_line(std::string_view line, EventLine& event) {
  if (line.empty()) return "the line is empty";
  if (line.size() > kEventLineMax) return "the line is longer than 65000 bytes";
  if (line.find('\0') != std::string_view::npos) return "the line holds a zero byte";
  const char* const end = line.data() + line.size();
  const auto [rest, error] = std::from_chars(line.data(), end, event.type);
  if (error == std::errc::result_out_of_range) return "the type is out of range";
  if (error != std::errc() || (rest != end && *rest != ' ')) return "the type is not a whole number";
  if (rest == end) return "the name is missing";
  const std::string_view after_type(rest + 1, static_cast<size_t>(end - rest - 1));
  const size_t blank = after_type.find(' ');
  event.name = after_type.substr(0, blank);
  event.info = blank == std::string_view::npos ? std::string_view() : after_type.substr(blank + 1);
  return check_event_name(event.name);
}
