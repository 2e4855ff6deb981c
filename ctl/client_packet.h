// The two packets of the listener's protocol, as its client sees them. All integers are 32 bits, little-endian.
//
//   subscription, client to daemon          event, daemon to client
//   offset 0  length of the whole packet    offset 0   length of the whole packet
//   offset 4  unused                        offset 4   seconds
//   offset 8  type string, zero byte        offset 8   microseconds
//                                           offset 12  name, zero byte, info, zero byte
//
// The daemon searches the type string, a comma-separated list, for an event's name. Only the first place where it finds
// the name counts: it must be at the beginning or just after a comma. So names are sent shortest first: otherwise the
// first place of a name could lie inside a longer one before it. And since "vsignal" is also found in "vsignal2", a
// client must compare the names of the events that come. docs/protocol.md describes this for all clients. No sockets
// here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The packet that subscribes to `names`. Throws Failure(Exit::usage) when one of them cannot be an event's name or
// cannot be in the list, or when they are too long together.
std::string subscription_packet(std::vector<std::string> names);

struct ReceivedEvent {
  size_t size;       // bytes of the whole packet
  uint32_t seconds;  // since 1970; unsigned, so that they last until 2106
  int32_t microseconds;
  std::string_view name;  // both point into the bytes
  std::string_view info;
};

// The packet at the beginning of `bytes`, or nothing when its end has not come yet. Throws Failure(Exit::unreachable)
// when the bytes cannot begin a packet: the sender is not the daemon.
std::optional<ReceivedEvent> first_packet(std::string_view bytes);
