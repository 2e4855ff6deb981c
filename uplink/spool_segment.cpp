#include "uplink/spool_segment.h"

#include <array>

namespace {

constexpr size_t kFrame = 16;   // bytes before the body
constexpr size_t kBodyMin = 8;  // one byte for each part
constexpr uint8_t kMark = 1;    // the flags
constexpr uint8_t kUrgent = 2;
constexpr uint8_t kAllFlags = 3;

constexpr std::array<uint32_t, 256> crc_table() {
  std::array<uint32_t, 256> table{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x82f63b78 : 0);
    table[byte] = crc;
  }
  return table;
}

// Goes on with the CRC-32C of what came before, 0 for nothing.
uint32_t crc32c(std::string_view bytes, uint32_t crc) {
  static constexpr std::array<uint32_t, 256> kTable = crc_table();
  crc = ~crc;
  for (const char c : bytes) crc = (crc >> 8) ^ kTable[(crc ^ static_cast<uint8_t>(c)) & 0xff];
  return ~crc;
}

uint32_t crc_of_record(std::string_view number_and_body) {
  return crc32c(number_and_body, crc32c(kSegmentHead, 0));
}

void put_fixed(uint64_t value, int size, std::string& out) {
  for (int i = 0; i < size; ++i) out += static_cast<char>(value >> (8 * i));
}

uint64_t get_fixed(std::string_view bytes) {
  uint64_t value = 0;
  for (size_t i = bytes.size(); i > 0; --i) value = value << 8 | static_cast<uint8_t>(bytes[i - 1]);
  return value;
}

void put_number(uint64_t value, std::string& out) {
  for (; value >= 0x80; value >>= 7) out += static_cast<char>(value | 0x80);
  out += static_cast<char>(value);
}

void put_text(std::string_view text, std::string& out) {
  put_number(text.size(), out);
  out += text;
}

// These take what they read from the front of `body`. They return false when it is too short or not in our form.
bool take_number(std::string_view& body, uint64_t& value) {
  value = 0;
  for (unsigned shift = 0; shift < 64 && !body.empty(); shift += 7) {
    const auto byte = static_cast<uint8_t>(body.front());
    body.remove_prefix(1);
    value |= uint64_t{byte & 0x7fU} << shift;
    if (byte < 0x80) return true;
  }
  return false;
}

bool take_text(std::string_view& body, std::string& text) {
  uint64_t size = 0;
  if (!take_number(body, size) || size > body.size()) return false;
  text = body.substr(0, size);
  body.remove_prefix(size);
  return true;
}

bool read_body(std::string_view body, SpoolItem& out) {
  const auto flags = static_cast<uint8_t>(body.front());
  body.remove_prefix(1);
  out.is_mark = (flags & kMark) != 0;
  out.record.urgent = (flags & kUrgent) != 0;
  return flags <= kAllFlags && take_number(body, out.back) && take_number(body, out.value) &&
         take_number(body, out.record.count) && take_text(body, out.record.id) && take_text(body, out.record.last_id) &&
         take_text(body, out.record.name) && take_text(body, out.record.payload) && body.empty();
}

// Reads the item at the front of `bytes`. Returns its size, or 0: there is none.
size_t read_front(std::string_view bytes, SpoolItem& out) {
  if (bytes.size() < kFrame + kBodyMin) return 0;
  const uint64_t length = get_fixed(bytes.substr(0, 4));
  if (length < kBodyMin || length > kSpoolBodyMax || length > bytes.size() - kFrame) return 0;
  if (get_fixed(bytes.substr(4, 4)) != crc_of_record(bytes.substr(8, 8 + length))) return 0;
  out.number = get_fixed(bytes.substr(8, 8));
  return read_body(bytes.substr(kFrame, length), out) && out.back <= out.number ? kFrame + length : 0;
}

}  // namespace

void write_item(const SpoolItem& item, std::string& out) {
  const UplinkRecord& record = item.record;
  std::string framed;
  put_fixed(item.number, 8, framed);
  framed += static_cast<char>((item.is_mark ? kMark : 0) | (record.urgent ? kUrgent : 0));
  put_number(item.back, framed);
  put_number(item.value, framed);
  put_number(record.count, framed);
  put_text(record.id, framed);
  put_text(record.last_id, framed);
  put_text(record.name, framed);
  put_text(record.payload, framed);
  put_fixed(framed.size() - 8, 4, out);
  put_fixed(crc_of_record(framed), 4, out);
  out += framed;
}

bool read_item(std::string_view bytes, size_t& at, SpoolItem& out, bool& passed) {
  for (size_t begin = at; begin < bytes.size(); ++begin) {
    const size_t size = read_front(bytes.substr(begin), out);
    if (size == 0) continue;
    passed = passed || begin > at;
    at = begin + size;
    return true;
  }
  return false;
}
