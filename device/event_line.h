// One event as a line of text, the form in which other processes post events:
//
//   TYPE NAME[ INFO]
//
// TYPE is a decimal signed 32-bit integer, NAME 1 to 127 bytes without blanks and control characters, INFO the rest of
// the line as it is; single blanks separate them. A line has at most 65,000 bytes, no zero byte, and is ended by a line
// feed that does not belong to it. Described for posters in docs/events.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr size_t kEventLineMax = 65000;  // bytes, without the line feed
constexpr size_t kEventNameMax = 127;    // bytes

struct EventLine {
  int32_t type;
  std::string_view name;  // both point into the line
  std::string_view info;
};

// Parses a line. Returns null and fills `event`, or returns what is wrong with the line. Any thread.
const char* parse_event_line(std::string_view line, EventLine& event);

// Returns what is wrong with the name of an event type, or null. Any thread.
const char* check_event_name(std::string_view name);

// Returns why "name=value" cannot be an item of an event's info, or null. Any thread.
const char* check_event_field(std::string_view name, std::string_view value);
