#include "uplink/spool_segment.h"

#include <array>

namespace {

constexpr size_t kFrame = 16;  // bytes before the body

constexpr std::array<uint32_t, 256> crc_table() {
  std::array<uint32_t, 256> table{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x82f63b78 : 0);
    table[byte] = crc;
  }
  return table;
}

// The CRC-32C of the file's head with these bytes behind it.
uint32_t crc_of(std::string_view number_and_body) {
  static constexpr std::array<uint32_t, 256> kTable = crc_table();
  uint32_t crc = UINT32_MAX;
  for (const std::string_view part : {kSegmentHead, number_and_body}) {
    for (const char c : part) crc = (crc >> 8) ^ kTable[(crc ^ static_cast<uint8_t>(c)) & 0xff];
  }
  return ~crc;
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

}  // namespace

void write_item(const SpoolItem& item, std::string& out) {
  const UplinkRecord& record = item.record;
  std::string framed;
  put_fixed(item.number, 8, framed);
  framed += static_cast<char>(item.is_mark);
  put_number(item.value, framed);
  put_number(record.count, framed);
  for (const std::string* text : {&record.id, &record.last_id, &record.name, &record.payload}) put_text(*text, framed);
  put_fixed(framed.size() - 8, 4, out);
  put_fixed(crc_of(framed), 4, out);
  out += framed;
}

bool read_item(std::string_view bytes, size_t& at, SpoolItem& out) {
  if (at > bytes.size() || bytes.size() - at <= kFrame) return false;
  bytes.remove_prefix(at);
  const uint64_t length = get_fixed(bytes.substr(0, 4));
  if (length == 0 || length > bytes.size() - kFrame) return false;
  if (get_fixed(bytes.substr(4, 4)) != crc_of(bytes.substr(8, 8 + length))) return false;
  std::string_view body = bytes.substr(kFrame, length);
  UplinkRecord& record = out.record;
  out.number = get_fixed(bytes.substr(8, 8));
  out.is_mark = body.front() != 0;
  body.remove_prefix(1);
  if (!take_number(body, out.value) || !take_number(body, record.count)) return false;
  for (std::string* text : {&record.id, &record.last_id, &record.name, &record.payload}) {
    if (!take_text(body, *text)) return false;
  }
  at += kFrame + length;
  return body.empty();
}
