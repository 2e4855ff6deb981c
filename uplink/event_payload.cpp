#include "uplink/event_payload.h"

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <set>

#include "util/clock.h"
#include "util/text.h"

namespace {

constexpr size_t kInfoOfLargePayload = size_t{20000};  // each byte may take six

std::string hex_of(std::string_view bytes) {
  std::string digits;
  for (const char c : bytes) digits += sstr("%02x", static_cast<unsigned char>(c));
  return digits;
}

bool is_utf8(std::string_view text) {
  try {
    return !nlohmann::json(text).dump().empty();
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

std::string payload_of(const AnswerLine& event, std::string_view info, size_t cut) {
  const std::string time = event.text("time");
  std::string payload = "{\"id\":" + json_text(event.text("id")) + ",\"t\":" + time;
  if (strtoll(time.c_str(), nullptr, 10) < kClockIsSet) payload += ",\"t_ok\":false";
  payload += ",\"type\":" + event.text("type") + ",\"name\":" + json_text(event.text("name")) + info_members(info);
  if (cut > 0) payload += ",\"cut\":" + std::to_string(cut);
  return payload + "}";
}

}  // namespace

std::string json_text(std::string_view text) {
  return is_utf8(text) ? nlohmann::json(text).dump() : R"({"hex":")" + hex_of(text) + "\"}";
}

std::string info_members(std::string_view info) {
  std::string fields;
  bool is_whole = true;
  std::set<std::string_view> names;
  for (std::string_view rest = info; !rest.empty();) {
    std::string_view value = take_item(rest, '&');
    const bool is_field = value.find('=') != std::string_view::npos;
    const std::string_view name = is_field ? take_item(value, '=') : std::string_view();
    if (is_field && is_utf8(name) && names.insert(name).second) {
      fields += (fields.empty() ? "" : ",") + nlohmann::json(name).dump() + ":" + json_text(value);
    } else {
      is_whole = false;
    }
  }
  return ",\"f\":{" + fields + "}" + (is_whole ? "" : ",\"info\":" + json_text(info));
}

UplinkRecord event_record(const AnswerLine& event) {
  const std::string info = event.text("info");
  const size_t cut = event.count("info_cut");
  UplinkRecord record;
  record.id = event.text("id");
  record.name = event.text("name");
  record.payload = payload_of(event, info, cut);
  if (record.payload.size() > kPayloadMax && info.size() > kInfoOfLargePayload) {
    const std::string_view kept = std::string_view(info).substr(0, kInfoOfLargePayload);
    record.payload = payload_of(event, kept, cut + info.size() - kept.size());
  }
  return record;
}

std::string gap_payload(const UplinkRecord& gap) {
  const std::string count = gap.count == 0 ? "null" : std::to_string(gap.count);
  return "{\"gap\":[" + json_text(gap.id) + "," + json_text(gap.last_id) + "],\"n\":" + count + "}";
}

std::string topic_part(std::string_view name) {
  std::string part;
  for (const char c : name) {
    const bool is_plain =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
    part += is_plain ? std::string(1, c) : sstr("%%%02X", static_cast<unsigned char>(c));
  }
  return part;
}
