#include "ctl/inspect/inspect.h"

#include <vector>

#include "ctl/control_client.h"
#include "ctl/failure.h"
#include "ctl/inspect/answer_json.h"
#include "ctl/inspect/answers.h"
#include "ctl/inspect/diagnosis.h"
#include "ctl/inspect/screen.h"
#include "ctl/inspect/script_list.h"
#include "ctl/output.h"

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

}  // namespace

void print_status(const std::string& root, bool json, FILE* out) {
  Answers answers;
  Diagnosis diagnosis;
  try {
    ControlClient daemon(root);
    answers.stats = daemon.ask("stats");
    answers.clients = daemon.ask("clients");
    diagnosis = diagnose(answers);
  } catch (const Failure& failure) {
    diagnosis.trouble = failure.what();
  }
  if (json) {
    write(out, status_json(answers, diagnosis));
  } else {
    write_now(out, answers.stats.empty() ? verdict_line(diagnosis) : status_screen(answers, diagnosis));
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
