// The two packets of the listener's protocol, as its client sees them. All integers are 32 bits, little-endian.
//
//   subscription, client to daemon          event, daemon to client
//   offset 0  length of the whole packet    offset 0   length of the whole packet
//   offset 4  unused                        offset 4   seconds
//   offset 8  type string, zero byte        offset 8   microseconds
//                                           offset 12  name, zero byte, info, zero byte
//
// The daemon looks for an event's name in the type string, a comma-separated list, and counts only the first place
// where it finds it: right at the beginning or just behind a comma. So names are sent shortest first, or the first
// place of one could lie inside a longer one; and since "vsignal" is also found in "vsignal2", a client must compare
// the names of the events that come. Described for all clients in docs/protocol.md. No sockets here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The packet that subscribes to `names`. Throws Failure(Exit::usage) when one of them cannot be the name of an event or
// cannot stand in the list, or when they are too long together.
std::string subscription_packet(std::vector<std::string> names);

struct ReceivedEvent {
  size_t size;  // bytes of the whole packet
  int32_t seconds;
  int32_t microseconds;
  std::string_view name;  // both point into the bytes
  std::string_view info;
};

// The packet at the beginning of `bytes`, or nothing when its end has not come yet. Throws Failure(Exit::unreachable)
// when these bytes cannot begin a packet: whoever sends them is not the daemon.
std::optional<ReceivedEvent> first_packet(std::string_view bytes);
