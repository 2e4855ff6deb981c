#include "ctl/inspect/screen.h"

#include <algorithm>
#include <ctime>

#include "ctl/human_text.h"

namespace {

constexpr size_t kLabelWidth = 12;
constexpr size_t kNamesListed = 5;
constexpr size_t kRowsListed = 5;
constexpr size_t kNameWidth = 30;
constexpr size_t kTextWidth = 100;

class Screen {
 public:
  explicit Screen(const Answers& all) : answers(all) {}

  void verdict(const Diagnosis& diagnosis) {
    const AnswerLine& daemon = answers.stat("daemon");
    text += verdict_lines(diagnosis);
    row("daemon", "zelvind " + value(daemon, "version") + ", process " + value(daemon, "pid") + ", " +
                      value(daemon, "state") + " for " + duration_text(daemon.count("state_since_s") * 1000000) +
                      ", started " + time_text(daemon.count("started")));
    const std::string root = value(daemon, "root");
    row("", value(daemon, "exe") + (root.empty() ? "" : " below " + root) + ", log level " +
                value(daemon, "log_level") + ", " + size_text(daemon.count("rss")) + " of memory");
  }

  void events() {
    const AnswerLine& loop = answers.stat("loop");
    row("loop", loop_text(loop) + ", looked for an event " + duration_text(loop.count("alive_us")) + " ago");
    const AnswerLine& queue = answers.stat("queue");
    const AnswerLine& wait = answers.stat("wait");
    row("queue", number_of(queue.count("waiting"), "event waits", "events wait") + ", highest " +
                     std::to_string(queue.count("highest")) + "; waited " + mean_and_max(wait, "sum_us", "max_us"));
    const AnswerLine& recent = answers.stat("recent");
    std::string line = std::to_string(sum_of(answers.stats, "event", "events")) + " so far";
    if (recent.count("over_ms") > 0) {
      line += ", " + rate_text(recent.number("events") * 1000 / recent.number("over_ms")) + "/s in the last " +
              duration_text(recent.count("over_ms") * 1000);
    }
    const char* separator = "; ";
    for (const AnswerLine* source : lines_of(answers.stats, "source")) {
      line += separator + std::to_string(source->count("events")) + " from " +
              (source->text("name") == "process" ? "the process itself" : value(*source, "name"));
      separator = ", ";
      if (source->count("refused") > 0) line += " (" + std::to_string(source->count("refused")) + " refused)";
    }
    row("events", line);
    names("types", "event", "events", [](const AnswerLine& event) { return std::to_string(event.count("events")); });
  }

  void scripts() {
    names("slowest", "tag", "run_max_us", [](const AnswerLine& tag) {
      return duration_text(tag.count("run_max_us")) + " (mean " +
             duration_text(mean_us(tag, "run_sum_us", tag.count("runs"))) + ")";
    });
    names("errors", "tag", "errors", [](const AnswerLine& tag) { return std::to_string(tag.count("errors")); });
    const AnswerLine& error = answers.stat("error");
    if (error.has("time")) {
      row("last error", time_text(error.count("time")) + " in " + script_error_text(error));
    }
    row("timers", std::to_string(answers.stat("timers").count("now")) + ", " + lateness("timers") + "; tasks " +
                      std::to_string(answers.stat("coroutines").count("now")) + ", " + lateness("coroutines"));
    const AnswerLine& lua = answers.stat("lua");
    row("lua", size_text(lua.count("bytes")) + (lua.count("limit") > 0 ? " of " + size_text(lua.count("limit")) : "") +
                   ", " + number_of(lua.count("collections"), "collection") + ", the longest " +
                   duration_text(lua.count("collect_max_us")));
    const AnswerLine& reload = answers.stat("reload");
    row("reloads",
        std::to_string(reload.count("done")) + " done, " + std::to_string(reload.count("failed")) + " failed" +
            (reload.count("last") == 0
                 ? ""
                 : "; the last at " + time_text(reload.count("last")) + ": " + value(reload, "last_result")));
  }

  void connections() {
    const AnswerLine& listener = answers.stat("listener");
    row("listener", listener_text(listener) + ", " + number_of(listener.count("clients"), "client") + " (" +
                        std::to_string(listener.count("owing")) + " owing), " +
                        number_of(listener.count("deliveries"), "event") + " sent, " +
                        std::to_string(listener.count("skips")) + " lost");
    rows("clients", heaviest(answers.clients, "client", urgency), [](const AnswerLine& client) {
      std::string line = client_text(client) + " " + value(client, "state") + ", " + client.text("events") + " sent";
      if (client.count("waiting") > 0) line += ", owes " + size_text(client.count("waiting"));
      if (client.count("skipped") > 0) line += ", lost " + client.text("skipped");
      if (client.has("last_skip_s")) {
        line += " (" + duration_text(client.count("last_skip_s") * 1000000) + " ago)";
      }
      return line + ": " + shown(client.text("wants"), kNameWidth);
    });
    const std::vector<AnswerLine> processes = posters_by_process(answers.stats);
    rows("posters",
         heaviest(processes, "poster",
                  [](const AnswerLine& poster) { return 1 + static_cast<uint64_t>(poster.number("rate")); }),
         [](const AnswerLine& poster) {
           const uint64_t refused = poster.count("refused");
           return poster_text(poster) + " " + std::to_string(poster.count("events")) + " events" +
                  (refused > 0 ? ", " + std::to_string(refused) + " refused" : "") + " in " +
                  duration_text(poster.count("since_s") * 1000000);
         });
  }

  std::string text;

 private:
  static std::string value(const AnswerLine& line, const char* key) { return shown(line.text(key), kTextWidth); }

  // Clients that have lost events first, then those that owe most.
  static uint64_t urgency(const AnswerLine& client) {
    return 1 + client.count("waiting") + (client.count("skipped") << 32);
  }

  static std::string mean_and_max(const AnswerLine& line, const char* sum_key, const char* max_key) {
    return duration_text(mean_us(line, sum_key, bucket_total(line))) + " on average, at most " +
           duration_text(line.count(max_key));
  }

  std::string lateness(const char* kind) const {
    return "late by " + duration_text(answers.stat(kind).count("lateness_max_us")) + " at most";
  }

  void row(const char* label, const std::string& line) { text += padded(label, kLabelWidth) + line + "\n"; }

  void names(const char* label, const char* kind, const char* key,
             const std::function<std::string(const AnswerLine&)>& figure) {
    const Lines lines = heaviest(answers.stats, kind, key);
    if (lines.empty()) return;
    row(label, listed(lines, kNamesListed, [&](const AnswerLine& line) {
          return shown(line.text("name"), kNameWidth) + " " + figure(line);
        }));
  }

  void rows(const char* label, const Lines& lines, const std::function<std::string(const AnswerLine&)>& line_text) {
    for (size_t i = 0; i < std::min(lines.size(), kRowsListed); ++i) row(i == 0 ? label : "", line_text(*lines[i]));
    if (lines.size() > kRowsListed) row("", "and " + std::to_string(lines.size() - kRowsListed) + " more");
  }

  const Answers& answers;
};

}  // namespace

std::string verdict_lines(const Diagnosis& diagnosis) {
  std::string text = (diagnosis.trouble.empty() ? "healthy" : "NOT HEALTHY: " + diagnosis.trouble) + "\n";
  for (const std::string& note : diagnosis.notes) text += "! " + note + "\n";
  return text;
}

std::string status_screen(const Answers& answers, const Diagnosis& diagnosis) {
  Screen screen(answers);
  screen.verdict(diagnosis);
  screen.events();
  screen.scripts();
  screen.connections();
  return screen.text;
}
