// How `zelvctl listen` writes an event: one line; `zelvctl tail` uses parts of it.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "ctl/client_packet.h"

// "SECONDS.MICROSECONDS NAME INFO" with six digits of microseconds; without the last blank when there is no info. No
// event can drive a terminal: control characters, line ends too, and bytes that are not UTF-8 are escaped
// (util/safe_text.h).
std::string plain_text(const ReceivedEvent& event);

// {"time":SECONDS.MICROSECONDS,"name":NAME,"fields":{FIELD:VALUE,...}}.
std::string json_text(const ReceivedEvent& event);

// The fields of an event, sorted by name; their values are texts. When a field comes twice, the first one counts, as
// for scripts. An item without "=" is a field with an empty value.
nlohmann::json fields_of(std::string_view info);

// `object` on a line. Bytes that are not UTF-8 become U+FFFD.
std::string json_line(const nlohmann::ordered_json& object);
