#include "ctl/event_text.h"

#include <nlohmann/json.hpp>

#include "util/safe_text.h"
#include "util/text.h"

nlohmann::json fields_of(std::string_view info) {
  nlohmann::json fields = nlohmann::json::object();
  nlohmann::json bare_items = nlohmann::json::object();
  while (!info.empty()) {
    const std::string_view item = take_item(info, '&');
    const size_t equals = item.find('=');
    if (equals != std::string_view::npos) {
      fields.emplace(item.substr(0, equals), item.substr(equals + 1));  // a field that is already there stays
    } else if (!item.empty()) {
      bare_items.emplace(item, "");
    }
  }
  fields.insert(bare_items.begin(), bare_items.end());  // a real field of the same name stays
  return fields;
}

std::string json_line(const nlohmann::ordered_json& object) {
  return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string plain_text(const ReceivedEvent& event) {
  std::string line = sstr("%u.%06d ", event.seconds, event.microseconds);
  line += escaped(event.name);
  if (!event.info.empty()) line += ' ' + escaped(event.info);
  return line + "\n";
}

std::string json_text(const ReceivedEvent& event) {
  nlohmann::ordered_json line;
  line["time"] = event.seconds + event.microseconds / 1e6;
  line["name"] = event.name;
  line["fields"] = fields_of(event.info);
  return json_line(line);
}
