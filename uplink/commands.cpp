#include "uplink/commands.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "device/log.h"
#include "uplink/command_memory.h"
#include "uplink/command_payload.h"
#include "uplink/event_payload.h"
#include "util/clock.h"
#include "util/rate_limit.h"
#include "util/safe_text.h"
#include "util/text.h"

namespace {

std::string answer_of(const std::string& id, std::string_view status, const std::string& reason = "") {
  const std::string end = reason.empty() ? "}" : ",\"reason\":" + json_text(reason) + "}";
  return R"({"id":")" + id + R"(","status":)" + json_text(status) + end;
}

// What a script says in its reply. Of equal fields the first counts, as everywhere in an info.
struct Reply {
  explicit Reply(std::string_view info) {
    while (!info.empty()) {
      const std::string_view item = take_item(info, '&');
      std::string_view value = item;
      const std::string_view name = take_item(value, '=');
      if (name == "cmd_id") {
        if (id.empty()) id = value;
      } else if (name == "status") {
        if (status.empty()) status = value;
      } else {
        (fields += fields.empty() ? "" : "&") += item;
      }
    }
    if (status.empty()) status = "ok";
  }

  std::string text() const {
    const std::string answer = answer_of(id, status);
    return fields.empty() ? answer : answer.substr(0, answer.size() - 1) + info_members(fields) + "}";
  }

  // The same without the fields, for where it would be too long.
  std::string short_text() const {
    const std::string answer = answer_of(id, cut_text(status, kStatusRemembered));
    return answer.substr(0, answer.size() - 1) + R"(,"f_cut":true})";
  }

  std::string id, status;
  std::string fields;  // the other items

 private:
  static constexpr size_t kStatusRemembered = 100;  // bytes, of which each may take six
};

// At most so many a second, and as many at once.
class Allowance {
 public:
  explicit Allowance(int per_second) : rate(per_second), left(per_second) {}

  bool take() {
    const int64_t now = steady_ms();
    left = std::min<double>(rate, left + static_cast<double>(now - last_ms) * rate / 1000);
    last_ms = now;
    if (left < 1) return false;
    --left;
    return true;
  }

 private:
  const int rate;
  double left;
  int64_t last_ms = steady_ms();
};

}  // namespace

struct Commands::Data {
  Data(const UplinkSettings& all_settings, const std::string& folder, Ways all_ways)
      : settings(all_settings), ways(std::move(all_ways)), memory(folder), allowance(all_settings.down_rate) {}

  // The name among those of `down` that a topic ends in; empty: none.
  std::string name_of(std::string_view part) const {
    const auto found = std::find_if(settings.down.begin(), settings.down.end(),
                                    [&](const std::string& name) { return topic_part(name) == part; });
    return found == settings.down.end() ? "" : *found;
  }

  // Why a command is not taken; empty: it is.
  std::string refusal_of(const std::string& name, const CommandPayload& command, bool retained) {
    if (!command.refusal.empty()) return command.refusal;
    if (retained) return "it is retained: commands are published without";
    if (name.empty()) return "the name is not among those of `down`";
    if (command.until && is_late(*command.until, time(nullptr))) return "it is late: `until` has passed";
    if (!ways.can_post()) return "the daemon takes no commands at present";
    if (!allowance.take()) return sstr("more than %d commands a second", settings.down_rate);
    return "";
  }

  void refuse(const std::string& id, std::string_view name, const std::string& reason) {
    ++state.refused;
    const std::string what = "command '" + id + "' for '" + std::string(name.substr(0, 127)) + "'";
    state.last_refusal = escaped(what + ": " + reason);
    if (const auto left_out = log_limit.allow())
      elog(1, "uplink: refused %s%s", state.last_refusal.c_str(), left_out->text);
    if (!id.empty()) ways.answer(id, answer_of(id, "refused", reason));
  }

  // Remembers an answer and publishes it; when it cannot be remembered, it is published all the same.
  void settle(const std::string& id, const std::string& answer, const std::string& remembered) {
    const std::string error = memory.set_answer(id, remembered);
    if (!error.empty()) complain(error);
    ways.answer(id, answer);
  }

  void complain(const std::string& error) {
    if (const auto left_out = error_limit.allow())
      elog(1, "uplink: cannot remember an answer: %s%s", error.c_str(), left_out->text);
  }

  void post(const std::string& id, const std::string& name, const std::string& info) {
    if (ways.post(std::to_string(settings.down_type) + " " + name + " " + info)) {
      ++state.taken;
      return;
    }
    ++state.failed;
    const std::string answer = answer_of(id, "failed", "the daemon is not known to have taken it in");
    settle(id, answer, answer);
  }

  const UplinkSettings settings;
  const Ways ways;
  CommandMemory memory;
  Allowance allowance;
  State state;
  RateLimit log_limit, error_limit, reply_limit;
};

Commands::Commands(const UplinkSettings& all_settings, const std::string& folder, Ways all_ways)
    : data(std::make_unique<Data>(all_settings, folder, std::move(all_ways))) {}

Commands::~Commands() = default;

// A known id is answered from memory whatever else is wrong: what was done is then told, and not what would be done
// now.
void Commands::take(std::string_view name, std::string_view payload, bool retained) {
  const CommandPayload command = parse_command(payload);
  const std::string unread = data->memory.read();
  if (!unread.empty()) return data->refuse(command.id, name, unread);
  if (const std::string* const known = data->memory.find(command.id)) {
    ++data->state.repeated;
    return data->ways.answer(command.id, known->empty() ? answer_of(command.id, "pending") : *known);
  }
  const std::string type_name = data->name_of(name);
  std::string refusal = data->refusal_of(type_name, command, retained);
  if (refusal.empty()) refusal = data->memory.add(command.id);
  if (!refusal.empty()) return data->refuse(command.id, name, refusal);
  data->post(command.id, type_name, command.info);
}

void Commands::reply(std::string_view info) {
  const Reply reply(info);
  const std::string unread = data->memory.read();
  if (!unread.empty()) return data->complain(unread);
  if (data->memory.find(reply.id) == nullptr) {
    ++data->state.stray_replies;
    if (const auto left_out = data->reply_limit.allow())
      elog(1, "uplink: a script replies to '%s', which is not a command it was given%s", reply.id.c_str(),
           left_out->text);
    return;
  }
  const std::string whole = reply.text();
  const std::string remembered = whole.size() <= kAnswerRemembered ? whole : reply.short_text();
  data->settle(reply.id, whole.size() <= kPayloadMax ? whole : remembered, remembered);
}

Commands::State Commands::state() const {
  return data->state;
}
