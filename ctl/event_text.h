// How `zelvctl listen` writes an event, one line each.
#pragma once

#include <string>

#include "ctl/client_packet.h"

// "SECONDS.MICROSECONDS NAME INFO" with six digits of microseconds; without the last blank when there is no info.
// Control characters, line ends among them, and bytes that are no UTF-8 are escaped (util/safe_text.h): no event can
// drive a terminal.
std::string plain_text(const ReceivedEvent& event);

// {"time":SECONDS.MICROSECONDS,"name":NAME,"fields":{FIELD:VALUE,...}} with texts as values of the fields, which are
// sorted by name. Of a field that comes twice the first counts, as it does for scripts; an item without "=" is a field
// with an empty value; bytes that are no UTF-8 become U+FFFD.
std::string json_text(const ReceivedEvent& event);
