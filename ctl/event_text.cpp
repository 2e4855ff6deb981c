#include "ctl/event_text.h"

#include <nlohmann/json.hpp>

#include "util/text.h"

namespace {

// The C1 control characters, U+0080 to U+009F: C2 80 to C2 9F in UTF-8. Terminals obey them like the ones below blank.
bool is_c1(std::string_view text, size_t at) {
  return text[at] == '\xc2' && at + 1 < text.size() && (text[at + 1] & '\xe0') == '\x80';
}

void append_escaped(std::string& line, std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(text[i]);
    if (byte == '\n') {
      line += "\\n";
    } else if (byte < ' ' || byte == 0x7f || is_c1(text, i)) {
      line += sstr("\\x%02x", byte);
      if (byte == 0xc2) line += sstr("\\x%02x", static_cast<unsigned char>(text[++i]));
    } else {
      line += text[i];
    }
  }
}

nlohmann::json fields_of(std::string_view info) {
  nlohmann::json fields = nlohmann::json::object();
  nlohmann::json bare_items = nlohmann::json::object();
  while (!info.empty()) {
    const std::string_view item = info.substr(0, info.find('&'));
    const size_t equals = item.find('=');
    if (equals != std::string_view::npos) {
      fields.emplace(item.substr(0, equals), item.substr(equals + 1));  // leaves a field alone that is already there
    } else if (!item.empty()) {
      bare_items.emplace(item, "");
    }
    info.remove_prefix(std::min(item.size() + 1, info.size()));
  }
  fields.insert(bare_items.begin(), bare_items.end());  // a real field of the same name stays
  return fields;
}

}  // namespace

std::string plain_text(const EventPacket& event) {
  std::string line = sstr("%d.%06d ", event.seconds, event.microseconds);
  append_escaped(line, event.name);
  if (!event.info.empty()) {
    line += ' ';
    append_escaped(line, event.info);
  }
  return line + "\n";
}

std::string json_text(const EventPacket& event) {
  nlohmann::ordered_json line;
  line["time"] = event.seconds + event.microseconds / 1e6;
  line["name"] = event.name;
  line["fields"] = fields_of(event.info);
  return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}
