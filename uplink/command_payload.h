// The payload of a command, JSON of a stranger:
//
//   {"id":"q1","until":1763928000,"f":{"door":"front","for_s":5,"loud":true}}
//
// becomes the info of an event, "cmd_id=q1&door=front&for_s=5&loud=true". Only `id` is needed. A payload that is not
// exactly of this form is refused as a whole: a key that is spelled wrong (`untill`) must not become a command without
// that key. Uses no file, no clock and no log: tests and the fuzzer feed it bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

constexpr size_t kCommandPayloadMax = size_t{16} * 1024;  // bytes
constexpr size_t kCommandIdMax = 64;                      // bytes

struct CommandPayload {
  std::string id;               // is_command_id(); empty: the payload tells none that could be answered
  std::optional<double> until;  // seconds since 1970
  std::string info;             // of the event; empty when it is refused
  std::string refusal;          // why it is refused: the rest of a sentence, short; empty: it is good
};

// Any thread. Nothing throws, whatever the bytes are. Looks for the id of a refused payload too, also behind what is
// wrong with it, unless that is its JSON or its size.
CommandPayload parse_command(std::string_view payload);

// Whether `id` is 1 to 64 of the characters A-Z a-z 0-9 _ -, safe as a part of a topic. Any thread.
bool is_command_id(std::string_view id);

// Whether a command is late at `now`, seconds since 1970. A clock before 2024 was never set and judges nothing. Any
// thread.
bool is_late(double until, int64_t now);
