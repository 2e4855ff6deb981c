#include "listener/client_protocol.h"

#include <cstdint>
#include <cstring>

#include "device/event_queue.h"

namespace {

constexpr int kHeaderSize = 8;  // of a subscription packet; the shortest one has an empty type string behind it

int32_t read_int(const char* bytes) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(bytes[i]);
  return static_cast<int32_t>(value);
}

char* write_int(char* out, uint32_t value) {
  for (int i = 0; i < 4; ++i) *out++ = static_cast<char>(value >> (8 * i));
  return out;
}

}  // namespace

ClientPacket next_packet(const char* bytes, size_t held) {
  if (held < 4) return {PacketKind::incomplete, 0, nullptr};
  const int length = read_int(bytes);
  if (length == 0) return {PacketKind::reset, 0, nullptr};
  // Checked before any use: what a client announces becomes an index into our memory.
  if (length <= kHeaderSize || length > kSubscriptionMax) return {PacketKind::bad_length, length, nullptr};
  if (static_cast<size_t>(length) > held) return {PacketKind::incomplete, length, nullptr};
  if (bytes[length - 1] != '\0') return {PacketKind::bad_end, length, nullptr};
  return {PacketKind::subscription, length, bytes + kHeaderSize};
}

int match_type_string(const char* type_string, const char* type_name) {
  // Not strstr: on some machines, a malicious string slows it down tenfold.
  const void* const found = memmem(type_string, strlen(type_string), type_name, strlen(type_name));
  if (found == nullptr) return -1;
  return found == type_string || static_cast<const char*>(found)[-1] == ',' ? 1 : -1;
}

EventPacket::EventPacket(const event_item& event) {
  const size_t name_size = strlen(event.type_name) + 1;
  const size_t info_size = strlen(event.info) + 1;
  length = 12 + name_size + info_size;
  char* out = small;
  if (length > sizeof(small)) {
    large.resize(length);
    out = large.data();
  }
  out = write_int(out, static_cast<uint32_t>(length));
  out = write_int(out, static_cast<uint32_t>(event.timestamp[0]));
  out = write_int(out, static_cast<uint32_t>(event.timestamp[1]));
  memcpy(out, event.type_name, name_size);
  memcpy(out + name_size, event.info, info_size);
}
