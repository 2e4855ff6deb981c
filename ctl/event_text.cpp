#include "ctl/event_text.h"

#include <nlohmann/json.hpp>

#include "util/safe_text.h"
#include "util/text.h"

namespace {

void append_safely(std::string& line, std::string_view text) {
  while (!text.empty()) {
    const size_t run = harmless_run(text);
    line.append(text.substr(0, run));
    text.remove_prefix(run);
    if (text.empty()) break;
    append_escaped(line, text[0]);
    text.remove_prefix(1);
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

std::string plain_text(const ReceivedEvent& event) {
  std::string line = sstr("%d.%06d ", event.seconds, event.microseconds);
  append_safely(line, event.name);
  if (!event.info.empty()) {
    line += ' ';
    append_safely(line, event.info);
  }
  return line + "\n";
}

std::string json_text(const ReceivedEvent& event) {
  nlohmann::ordered_json line;
  line["time"] = event.seconds + event.microseconds / 1e6;
  line["name"] = event.name;
  line["fields"] = fields_of(event.info);
  return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}
