// What is published, as JSON, and where. docs/uplink.md describes both to whoever reads them at the broker.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "ctl/control_client.h"
#include "uplink/spool.h"

constexpr size_t kPayloadMax = size_t{128} * 1024;  // bytes, what the narrowest of the known brokers takes

// The record of an event, a line `event` of the daemon's control socket, with its payload:
//
//   {"id":"5f3a90c1-813","t":1763928000.123456,"type":1,"name":"door","f":{"state":"open"}}
//
// A text that is not UTF-8 is an object {"hex":"..."} of its bytes. An info that is not a list of items NAME=VALUE, or
// that "f" cannot hold whole (a name that comes twice, or is not UTF-8), is there as it came too, as "info". "cut" is
// how many bytes of the info are left out, "t_ok":false says that the clock is before 2024. Any thread, as all here.
UplinkRecord event_record(const AnswerLine& event);

// The payload of a gap: {"gap":["5f3a90c1-813","5f3a90c1-820"],"n":8}; "n" is null when nobody knows.
std::string gap_payload(const UplinkRecord& gap);

// `text` as a JSON value.
std::string json_text(std::string_view text);

// The end of an object, `,"f":{...}` with the items of `info`, and `,"info":...` behind it where that is not all.
std::string info_members(std::string_view info);

// `name` as a part of a topic: bytes other than [A-Za-z0-9_-] are "%XX".
std::string topic_part(std::string_view name);
