#include "ctl/inspect/answer_json.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>

namespace {

using Json = nlohmann::ordered_json;

// Kinds of which there may be several.
constexpr std::string_view kRepeated[] = {"source", "event",   "tag",   "poster", "client",
                                          "file",   "handler", "timer", "task"};

// Values that are texts, also those that look like numbers.
constexpr std::string_view kTexts[] = {"version", "run",      "state",       "root",      "exe",     "device",  "lua",
                                       "tag",     "event",    "where",       "activity",  "socket",  "name",    "text",
                                       "result",  "module",   "last_result", "last_text", "address", "path",    "wants",
                                       "host",    "position", "place",       "error",     "refusal", "not_open"};

template <size_t size>
bool is_among(const std::string_view (&list)[size], const std::string& word) {
  return std::find(std::begin(list), std::end(list), word) != std::end(list);
}

Json value_of(const AnswerLine& line, const std::string& key) {
  const char* const name = key.c_str();
  if (key == "buckets") return line.counts(name);
  if (is_among(kTexts, key)) return line.text(name);
  constexpr uint64_t kNoCount = UINT64_MAX;
  const uint64_t count = line.count(name, kNoCount);
  if (count != kNoCount) return count;
  const double number = line.number(name, NAN);
  if (!std::isnan(number)) return number;
  return line.text(name);
}

Json object_of(const AnswerLine& line) {
  Json object = Json::object();
  for (const auto& [key, value] : line.values()) object[key] = value_of(line, key);
  return object;
}

}  // namespace

nlohmann::ordered_json json_of(const std::vector<AnswerLine>& answer) {
  Json object = Json::object();
  for (const AnswerLine& line : answer) {
    if (is_among(kRepeated, line.kind())) {
      object[line.kind() + "s"].push_back(object_of(line));
    } else {
      object[line.kind()] = object_of(line);
    }
  }
  return object;
}
