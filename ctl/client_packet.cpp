#include "ctl/client_packet.h"

#include <algorithm>
#include <tuple>

#include "ctl/failure.h"
#include "device/event_line.h"

namespace {

constexpr size_t kSubscriptionMax = 65024;        // bytes; the daemon refuses a longer packet
constexpr uint32_t kEventMin = 14;                // an empty name and an empty info
constexpr uint32_t kEventMax = 64 * 1024 * 1024;  // the daemon's queue holds no more
constexpr size_t kNameOffset = 12;

void append_integer(std::string& packet, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) packet += static_cast<char>(value >> shift & 0xff);
}

uint32_t integer_at(std::string_view bytes, size_t offset) {
  uint32_t value = 0;
  for (size_t i = 4; i-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[offset + i]);
  return value;
}

void check_name(const std::string& name) {
  const char* error = check_event_name(name);
  if (error == nullptr && name.find(',') != std::string::npos) error = "a name to subscribe to cannot contain a comma";
  if (error != nullptr) throw Failure(Exit::usage, "NAME '" + name + "': " + error);
}

[[noreturn]] void refuse_packet(const std::string& why) {
  fail("the server sent something that is not an event packet: " + why);
}

}  // namespace

std::string subscription_packet(std::vector<std::string> names) {
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return std::forward_as_tuple(a.size(), a) < std::forward_as_tuple(b.size(), b);
  });
  names.erase(std::unique(names.begin(), names.end()), names.end());
  std::string type_string;
  for (const std::string& name : names) {
    check_name(name);
    if (!type_string.empty()) type_string += ',';
    type_string += name;
  }
  const size_t size = 8 + type_string.size() + 1;
  if (size > kSubscriptionMax) {
    throw Failure(Exit::usage, "the names are too long: expected at most 65015 bytes together, commas included");
  }
  std::string packet;
  append_integer(packet, static_cast<uint32_t>(size));
  append_integer(packet, 0);
  return packet + type_string + '\0';
}

std::optional<ReceivedEvent> first_packet(std::string_view bytes) {
  if (bytes.size() < 4) return std::nullopt;
  const uint32_t size = integer_at(bytes, 0);
  if (size < kEventMin || size > kEventMax) refuse_packet("its length is " + std::to_string(size));
  if (bytes.size() < size) return std::nullopt;
  const std::string_view texts = bytes.substr(kNameOffset, size - kNameOffset);
  const size_t name_end = texts.find('\0');
  if (name_end == std::string_view::npos) refuse_packet("its name does not end");
  if (texts.find('\0', name_end + 1) != texts.size() - 1) refuse_packet("its info does not end where the packet does");
  const std::string_view info = texts.substr(name_end + 1, texts.size() - name_end - 2);
  return ReceivedEvent{size, integer_at(bytes, 4), static_cast<int32_t>(integer_at(bytes, 8)),
                       texts.substr(0, name_end), info};
}
