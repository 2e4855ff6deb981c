#include "ctl/inspect/inspect.h"

#include <unistd.h>
#include <cerrno>
#include <vector>

#include "ctl/control_client.h"
#include "ctl/event_connection.h"
#include "ctl/failure.h"
#include "ctl/inspect/answer_json.h"
#include "ctl/inspect/answers.h"
#include "ctl/inspect/diagnosis.h"
#include "ctl/inspect/screen.h"
#include "ctl/inspect/script_list.h"
#include "ctl/output.h"
#include "ctl/running_daemon.h"
#include "device/event_source.h"

namespace {

using Json = nlohmann::ordered_json;

void write(FILE* out, const Json& object) {
  write_now(out, object.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
}

// A reader need not ask whether there is a list.
void add_lists(Json& object, const std::vector<const char*>& names) {
  for (const char* name : names) object.emplace(name, Json::array());
}

Json status_json(const Answers& answers, const Diagnosis& diagnosis) {
  Json object{{"healthy", diagnosis.trouble.empty()}, {"trouble", diagnosis.trouble}, {"notes", diagnosis.notes}};
  object.update(json_of(answers.stats));
  object.update(json_of(answers.clients));
  add_lists(object, {"sources", "events", "tags", "posters", "clients"});
  return object;
}

// By the event socket and the state file: of a daemon that has refused to answer, most likely since all places at its
// control socket are taken.
Diagnosis diagnose_from_outside(const std::string& root, const std::string& refusal) {
  Diagnosis diagnosis{"", {"control socket: " + refusal + "; the event socket and the state file alone were asked"}};
  if (access((root + kEventLockPath).c_str(), F_OK) != 0 && errno == ENOENT) return diagnosis;  // a device's own queue
  try {
    const EventConnection connection(root + kEventSocketPath, kAnswerLimitMs);
    const pid_t pid = connection.daemon();
    fail_if_ended(root, pid);
    const auto state = reported_state(root, pid);
    if (state && (state->name == "starting" || state->name == "stopping")) diagnosis.trouble = "it is " + state->name;
  } catch (const Failure& failure) {
    diagnosis.trouble = failure.what();
  }
  return diagnosis;
}

}  // namespace

void print_status(const std::string& root, bool json, FILE* out) {
  Answers answers;
  Diagnosis diagnosis;
  try {
    ControlClient daemon(root);
    answers.stats = daemon.ask("stats");
    answers.clients = daemon.ask("clients");
    diagnosis = diagnose(answers);
  } catch (const Refused& refused) {
    diagnosis = diagnose_from_outside(root, refused.what());
  } catch (const Failure& failure) {
    diagnosis.trouble = failure.what();
  }
  if (json) {
    write(out, status_json(answers, diagnosis));
  } else {
    write_now(out, answers.stats.empty() ? verdict_lines(diagnosis) : status_screen(answers, diagnosis));
  }
  if (!diagnosis.trouble.empty()) fail("");
}

void print_scripts(const std::string& root, bool json, FILE* out) {
  const std::vector<AnswerLine> answer = ControlClient(root).ask("scripts");
  if (!json) return write_now(out, script_list(answer));
  Json object = json_of(answer);
  add_lists(object, {"files", "handlers", "timers", "tasks"});
  write(out, object);
}

void print_log_level(const std::string& root, std::optional<long> level, FILE* out) {
  const std::string request = level ? "log_level " + std::to_string(*level) : "log_level";
  const std::vector<AnswerLine> answer = ControlClient(root).ask(request);
  write_now(out, std::to_string(line_of(answer, "log_level").count("now")) + "\n");
}
