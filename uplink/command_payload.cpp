#include "uplink/command_payload.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "device/event_line.h"
#include "util/clock.h"
#include "util/text.h"

namespace {

using Json = nlohmann::json;

constexpr size_t kNameShown = 64;  // bytes of a key in a reason

// Takes the parser's events one by one: no tree is built, so depth costs nothing. It goes on behind what is wrong, for
// the id may still come.
class Reader : public nlohmann::json_sax<Json> {
 public:
  CommandPayload take(bool is_json) {
    if (!is_json) refuse("the payload is not JSON: " + syntax_error);
    if (!has_id) refuse("the id is missing");
    if (!found.refusal.empty()) return std::move(found);
    found.info = "cmd_id=" + found.id + fields;
    return std::move(found);
  }

  void refuse(const std::string& reason) {
    if (found.refusal.empty()) found.refusal = reason;
  }

  bool null() override { return other("null"); }
  bool boolean(bool value) override { return scalar(Kind::other, value ? "true" : "false"); }
  bool number_integer(number_integer_t value) override {
    return scalar(Kind::number, std::to_string(value), static_cast<double>(value));
  }
  bool number_unsigned(number_unsigned_t value) override {
    return scalar(Kind::number, std::to_string(value), static_cast<double>(value));
  }
  bool number_float(number_float_t value, const string_t& text) override { return scalar(Kind::number, text, value); }
  bool string(string_t& value) override { return scalar(Kind::text, value); }
  bool binary(binary_t& /*value*/) override { return other("binary"); }

  bool start_object(std::size_t /*size*/) override {
    const bool opens_fields = depth == 1 && top_key == "f";
    if (depth > 0 && !opens_fields) other("an object");
    in_fields = in_fields || opens_fields;
    ++depth;
    return true;
  }
  bool end_object() override {
    --depth;
    in_fields = in_fields && depth > 1;
    return true;
  }
  bool start_array(std::size_t /*size*/) override {
    other("an array");
    ++depth;
    return true;
  }
  bool end_array() override { return end_object(); }

  bool key(string_t& value) override {
    if (depth == 1) {
      top_key = value;
      if (top_key != "id" && top_key != "until" && top_key != "f") refuse("there is no key " + quoted(top_key));
      if (!top_keys.insert(top_key).second) refuse(quoted(top_key) + " is there twice");
    } else if (is_field()) {
      field = value;
      if (field == "cmd_id") refuse("a field cannot be named cmd_id");
      if (!names.insert(field).second) refuse("the field " + quoted(field) + " is there twice");
    }
    return true;
  }

  bool parse_error(std::size_t position, const std::string& /*token*/, const Json::exception& /*error*/) override {
    syntax_error = "byte " + std::to_string(position);
    return false;
  }

 private:
  enum class Kind { text, number, other };

  // Part of a reason, which must stay short.
  static std::string quoted(std::string_view name) { return "'" + std::string(cut_text(name, kNameShown)) + "'"; }

  bool is_field() const { return in_fields && depth == 2; }

  bool other(const char* what) {
    if (depth == 0) refuse(std::string("the payload is not an object but ") + what);
    if (depth == 1) refuse(quoted(top_key) + " cannot be " + what);
    if (is_field()) refuse("the field " + quoted(field) + " cannot be " + what);
    return true;
  }

  bool scalar(Kind kind, const std::string& text, double number = 0) {
    if (depth == 0) refuse("the payload is not an object");
    if (depth == 1) top_value(kind, text, number);
    if (is_field()) add_field(text);
    return true;
  }

  void top_value(Kind kind, const std::string& text, double number) {
    if (top_key == "f") refuse("'f' is not an object");
    if (top_key == "until" && kind != Kind::number) refuse("'until' is not a number");
    if (top_key == "until") found.until = number;
    if (top_key != "id") return;
    has_id = true;
    if (kind != Kind::text || !is_command_id(text)) return refuse("the id is not 1 to 64 of A-Z a-z 0-9 _ -");
    if (found.id.empty()) found.id = text;
  }

  void add_field(const std::string& text) {
    const char* const wrong = check_event_field(field, text);
    if (wrong != nullptr) return refuse("the field " + quoted(field) + ": " + wrong);
    fields += "&" + field + "=" + text;
  }

  CommandPayload found;
  std::string syntax_error;
  std::string fields;  // "&NAME=VALUE&NAME=VALUE"
  bool has_id = false;
  int depth = 0;           // objects and arrays around what comes
  bool in_fields = false;  // inside the object of "f"
  std::string top_key;     // the key before what comes, in the outer object
  std::string field;       // the same inside "f"
  std::set<std::string> top_keys, names;
};

}  // namespace

CommandPayload parse_command(std::string_view payload) {
  Reader reader;
  if (payload.size() > kCommandPayloadMax) {
    reader.refuse(sstr("the payload is longer than %zu bytes", kCommandPayloadMax));
    payload = payload.substr(0, kCommandPayloadMax);  // its id may stand in what is left
  }
  const bool is_json = Json::sax_parse(payload.begin(), payload.end(), &reader);
  return reader.take(is_json);
}

bool is_command_id(std::string_view id) {
  const auto is_safe = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
  };
  return !id.empty() && id.size() <= kCommandIdMax && std::all_of(id.begin(), id.end(), is_safe);
}

bool is_late(double until, int64_t now) {
  return now >= kClockIsSet && until < static_cast<double>(now);
}
