// The packets that clients of the listener and the daemon exchange; docs/protocol.md describes them for authors of
// clients.
// All integers are 32 bits wide and little-endian.
//
// Subscription packet, client to daemon:           Event packet, daemon to client:
//   offset 0   length of the whole packet, signed    offset 0       length of the whole packet, unsigned
//   offset 4   4 bytes that nobody reads             offset 4       first integer of the event's time stamp
//   offset 8   type string, ended by a zero byte;    offset 8       second integer of the event's time stamp
//              padding may follow, but the last      offset 12      type name of n bytes, and a zero byte
//              byte is zero                          offset 13 + n  info, and a zero byte
//
// Uses no socket, no lock and no log. Any thread.
#pragma once

#include <cstddef>
#include <vector>

struct event_item;

constexpr int kSubscriptionMax = 65024;  // bytes of a subscription packet: with a piece of 512, it fits into 64 KiB

// What the bytes that a client has sent begin with.
enum class PacketKind {
  incomplete,   // wait for more bytes
  reset,        // a length of 0: everything held is to be dropped
  bad_length,   // broken: a length that no packet can have; everything held is to be dropped
  bad_end,      // broken: the last byte is not zero; everything held is to be dropped
  subscription  // a good packet
};

struct ClientPacket {
  PacketKind kind;
  int length;               // of the packet, as announced; 0 while that is not known
  const char* type_string;  // of a good packet: zero-terminated, inside the bytes that were passed
};

// Examines the first packet among `held` bytes. Changes nothing.
ClientPacket next_packet(const char* bytes, size_t held);

// Whether a client's type string asks for events of `type_name`: 1 yes, -1 no. The first occurrence of the name in the
// string decides: it must stand at the start or right behind a comma; what follows it does not matter.
int match_type_string(const char* type_string, const char* type_name);

// An event as the packet that clients get. Lives on the stack; a packet of more than 2048 bytes takes memory from the
// heap (std::bad_alloc when there is none).
class EventPacket {
 public:
  explicit EventPacket(const event_item& event);

  const char* data() const { return large.empty() ? small : large.data(); }
  size_t size() const { return length; }

 private:
  size_t length;
  std::vector<char> large;
  char small[2048];
};
