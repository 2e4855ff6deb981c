#include "ctl/inspect/diagnosis.h"

#include <algorithm>
#include <ctime>

#include "ctl/human_text.h"

namespace {

// From where on something deserves a note.
constexpr uint64_t kSilentUs = 2000000;  // without a sign of life; an idle loop gives one a second
constexpr uint64_t kSlowUs = 100000;     // a call that holds up everything else
constexpr uint64_t kLateUs = 1000000;    // the age of an event that waits
constexpr uint64_t kManyWaiting = 1000;  // events
constexpr uint64_t kManyLive = 1000;     // timers, or coroutines
constexpr uint64_t kManyNew = 50;        // of them in `recent`
constexpr double kFastPoster = 1000;     // events a second
constexpr uint64_t kRecentErrorS = 600;
constexpr size_t kNamesListed = 3;
constexpr size_t kNameWidth = 40;
constexpr size_t kPlacesWidth = 100;

std::string name_and(const AnswerLine& line, const std::string& figure) {
  return shown(line.text("name"), kNameWidth) + " " + figure;
}

// "10.0 s ago", when `recent` begins.
std::string ago(const AnswerLine& recent) {
  return duration_text(recent.count("over_ms") * 1000) + " ago";
}

// The names of `lines`, each with its count `key`.
std::string counted_names(const Lines& lines, const char* key) {
  return listed(lines, kNamesListed, [key](const AnswerLine& line) { return name_and(line, line.text(key)); });
}

std::string trouble_of(const Answers& answers) {
  const AnswerLine& loop = answers.stat("loop");
  const std::string state = answers.stat("daemon").text("state");
  const std::string activity = loop.text("activity");
  if (state == "ended" || activity == "stopped") return "the quit event came, and the event loop has ended: restart it";
  const bool is_silent = loop.count("alive_us") > kSilentUs;
  if (state == "stopping")
    return "it is stopping" + (is_silent ? ", and the event loop is busy: " + loop_text(loop) : "");
  if (state == "starting" || state == "loading" || activity == "starting") return "it is starting";
  if (state != "ready" && state != "reloading") return "it answers, but tells no state that is known";
  if (activity.empty()) return "it answers, but tells nothing of its event loop";
  if (is_silent && activity == "idle") return "the event loop is silent for " + duration_text(loop.count("alive_us"));
  if (is_silent) return "the event loop is busy: " + loop_text(loop);
  const std::string socket = answers.stat("queue").text("socket", "owned");
  if (socket != "owned") return "it does not have the event socket (" + shown(socket, kNameWidth) + "): see its log";
  return "";
}

class Notes {
 public:
  explicit Notes(const Answers& all) : answers(all) {}

  std::vector<std::string> take() {
    queue();
    live("timers", "timer", "timers_then");
    live("coroutines", "task", "coroutines_then");
    errors();
    names();
    slow_calls();
    posters();
    listener();
    rest();
    return std::move(notes);
  }

 private:
  void queue() {
    const AnswerLine& queue = answers.stat("queue");
    const AnswerLine& recent = answers.stat("recent");
    const uint64_t waiting = queue.count("waiting");
    if (waiting < kManyWaiting && queue.count("oldest_us") < kLateUs) return;
    std::string note = number_of(waiting, "event waits", "events wait");
    if (recent.has("waiting_then")) {
      note += " (" + ago(recent) + ": " + std::to_string(recent.count("waiting_then")) + ")";
    }
    notes.push_back(note + ", the oldest for " + duration_text(queue.count("oldest_us")));
  }

  // Timers or coroutines that become more and more.
  void live(const char* kind, const char* thing, const char* key_then) {
    const uint64_t now = answers.stat(kind).count("now");
    const AnswerLine& recent = answers.stat("recent");
    const uint64_t then = recent.count(key_then, now);
    const bool grows = now >= then + kManyNew;
    if (now < kManyLive && !grows) return;
    const std::string growth = grows ? ", " + std::to_string(now - then) + " more than " + ago(recent) : "";
    notes.push_back(number_of(now, thing) + growth + ": zelvctl scripts tells whose they are");
  }

  void errors() {
    const AnswerLine& last = answers.stat("error");
    const auto age =
        static_cast<uint64_t>(std::max<int64_t>(time(nullptr) - static_cast<int64_t>(last.count("time")), 0));
    if (last.has("time") && age < kRecentErrorS) {
      notes.push_back("scripts fail, the last time " + duration_text(age * 1000000) +
                      " ago: " + counted_names(heaviest(answers.stats, "tag", "errors"), "errors"));
    }
    const AnswerLine& reload = answers.stat("reload");
    if (reload.text("last_result") == "failed") {
      notes.push_back("the last reload failed: " + first_line(reload, "last_text"));
    }
  }

  void names() {
    const Lines unknown = heaviest(answers.stats, "event", "unknown");
    if (!unknown.empty()) notes.push_back("nobody handles: " + counted_names(unknown, "unknown"));
  }

  void slow_calls() {
    const Lines slow = heaviest(answers.stats, "tag", [](const AnswerLine& tag) {
      const uint64_t longest = tag.count("run_max_us");
      return longest >= kSlowUs ? longest : 0;
    });
    if (slow.empty()) return;
    notes.push_back(
        "slow calls hold up everything, so far: " +
        listed(slow, kNamesListed,
               [](const AnswerLine& tag) { return name_and(tag, "up to " + duration_text(tag.count("run_max_us"))); }) +
        "; zelvctl tail --slow 100 shows the next ones");
  }

  void posters() {
    const uint64_t refused = sum_of(answers.stats, "source", "refused");
    const std::vector<AnswerLine> processes = posters_by_process(answers.stats);
    const Lines refusing = heaviest(processes, "poster", "refused");
    if (refused > 0) {
      std::string note = number_of(refused, "posted event was", "posted events were") + " refused";
      if (!refusing.empty())
        note += ": " + listed(refusing, kNamesListed, [](const AnswerLine& poster) {
                  return poster_text(poster) + " " + poster.text("refused");
                });
      notes.push_back(note + "; see the log for the lines");
    }
    const Lines fast = heaviest(processes, "poster", [](const AnswerLine& poster) {
      const double rate = poster.number("rate");
      return rate >= kFastPoster ? static_cast<uint64_t>(rate) : 0;
    });
    if (fast.empty()) return;
    notes.push_back("many events come from " + listed(fast, kNamesListed, [](const AnswerLine& poster) {
                      return poster_text(poster) + ", " + rate_text(poster.number("rate")) + "/s";
                    }));
  }

  void listener() {
    const AnswerLine& listener = answers.stat("listener");
    const std::string address = listener.text("address", kEveryAddress);
    const std::string not_open = listener.text("not_open");
    if (address.empty()) {
      notes.emplace_back("no client can connect: listener_address is not understood; the log says why");
    } else if (address != kEveryAddress && !not_open.empty()) {
      notes.push_back("no client can connect at " + shown(not_open, kPlacesWidth) + "; the log says why");
    } else if (address == kEveryAddress && listener.has("port") && listener.count("port") == 0) {
      notes.push_back("no client can connect: port " + listener.text("wanted") + " is not open; the log says why");
    } else if (listener.count("places", 1) == 0 && address != "none") {
      notes.emplace_back("no client can connect: the daemon's descriptor limit is too low, it needs more than 320");
    }
    const Lines owing = heaviest(answers.clients, "client", [](const AnswerLine& client) {
      return client.text("state") == "owing" ? client.count("waiting") : 0;
    });
    if (!owing.empty()) notes.push_back("does not read: client " + listed(owing, kNamesListed, client_text));
    const Lines losing = heaviest(answers.clients, "client", "skipped");
    if (!losing.empty()) {
      notes.push_back("has lost events: client " + listed(losing, kNamesListed, [](const AnswerLine& client) {
                        return client_text(client) + " " + client.text("skipped");
                      }));
    }
  }

  void rest() {
    const AnswerLine& lua = answers.stat("lua");
    const uint64_t limit = lua.count("limit");
    if (limit > 0 && lua.count("bytes") > limit / 5 * 4) {
      notes.push_back("scripts use " + size_text(lua.count("bytes")) + " of script_memory, " + size_text(limit));
    }
    if (answers.cut_bytes() > 0) {
      notes.push_back("the answer was too long: " + size_text(answers.cut_bytes()) + " of it are not shown here");
    }
    const uint64_t lost = answers.stat("log").count("lost");
    if (lost > 0) notes.push_back(number_of(lost, "log line was", "log lines were") + " lost");
  }

  const Answers& answers;
  std::vector<std::string> notes;
};

}  // namespace

std::string trouble_told(const std::string& root) try {
  constexpr int kLimitMs = 1000;
  return trouble_of({ControlClient(root, kLimitMs).ask("stats", kLimitMs), {}});
} catch (const Failure&) {
  return "";
}

Diagnosis diagnose(const Answers& answers) {
  return {trouble_of(answers), Notes(answers).take()};
}
