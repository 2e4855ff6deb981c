#include "ctl/live/tail.h"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "ctl/event_text.h"
#include "ctl/failure.h"
#include "ctl/human_text.h"
#include "ctl/inspect/diagnosis.h"
#include "ctl/output.h"
#include "util/safe_text.h"
#include "util/text.h"

namespace {

constexpr int kAskMs = 1000;  // for answers that are of use only

// Whether the first item "FIELD=..." of `info` is `condition`, as scripts see it.
bool holds(const std::string& condition, const std::string& info) {
  const size_t value = condition.find('=') + 1;
  std::string found(info.size() + 1, '\0');
  if (query_field(info.c_str(), condition.substr(0, value).c_str(), found.data(), static_cast<int>(info.size())) < 0) {
    return false;
  }
  return std::string_view(condition).substr(value) == found.c_str();
}

bool is_wanted(const TailRequest& request, const AnswerLine& event) {
  if (event.count("run_us") < request.slow_us || (request.errors && event.count("errors") == 0)) return false;
  const std::string info = event.text("info");
  return std::all_of(request.where.begin(), request.where.end(),
                     [&](const std::string& condition) { return holds(condition, info); });
}

// "2026-11-22 19:26:33.123456", local time, of "SECONDS.MICROSECONDS".
std::string local_time(const std::string& time) {
  const size_t point = time.find('.');
  return time_text(strtoull(time.c_str(), nullptr, 10)) +
         (point == std::string::npos ? "" : escaped(time.substr(point)));
}

std::string plain_line(const AnswerLine& event) {
  std::string line =
      local_time(event.text("time")) + " " + escaped(event.text("id")) + " " + escaped(event.text("name"));
  if (const std::string info = event.text("info"); !info.empty()) line += " " + escaped(info);
  if (event.has("info_cut")) line += "... (" + std::to_string(event.count("info_cut")) + " bytes more)";
  line += " (waited " + duration_text(event.count("wait_us")) + ", ran " + duration_text(event.count("run_us"));
  if (const uint64_t errors = event.count("errors"); errors > 0) line += ", " + number_of(errors, "error");
  return line + ")\n";
}

std::string json_of(const AnswerLine& event) {
  nlohmann::ordered_json line;
  line["id"] = event.text("id");
  line["time"] = event.number("time");
  line["type"] = strtol(event.text("type").c_str(), nullptr, 10);
  line["name"] = event.text("name");
  line["fields"] = fields_of(event.text("info"));
  if (event.has("info_cut")) line["info_cut"] = event.count("info_cut");
  for (const char* const key : {"wait_us", "run_us", "errors"}) line[key] = event.count(key);
  return json_line(line);
}

std::string json_gap(const std::string& number) {
  nlohmann::ordered_json line;
  char* end = nullptr;
  const auto lost = strtoull(number.c_str(), &end, 10);
  line["lost"] = *end == '\0' ? nlohmann::ordered_json(lost) : nlohmann::ordered_json();
  return json_line(line);
}

// Tells on standard error why no events come: what holds the event loop, and that lines of posters are refused.
class Silence {
 public:
  explicit Silence(const std::string& the_root) : root(the_root) {}

  void tell() try {
    const auto stats = ControlClient(root, kAskMs).ask("stats", kAskMs);
    const std::string trouble = diagnose({stats, {}}).trouble;
    if (!trouble.empty() && !is_told) fprintf(stderr, "zelvctl: no event comes: %s\n", trouble.c_str());
    is_told = !trouble.empty();
    const uint64_t now = sum_of(stats, "source", "refused");
    if (refused && now > *refused) {
      fprintf(stderr, "zelvctl: %s refused; see the daemon's log for the lines\n",
              number_of(now - *refused, "posted event was", "posted events were").c_str());
    }
    refused = now;
  } catch (const Failure&) {  // who follows learns that the daemon has gone
  }

 private:
  const std::string& root;
  bool is_told = false;             // the trouble that there is
  std::optional<uint64_t> refused;  // events, as we know
};

// "5f3a90c1-812".
bool is_event_id(const std::string& text) {
  const size_t dash = text.find('-');
  return dash != std::string::npos && dash > 0 && dash + 1 < text.size() &&
         text.find_first_not_of("0123456789abcdef") == dash &&
         text.find_first_not_of("0123456789", dash + 1) == std::string::npos;
}

}  // namespace

void print_tail(const TailRequest& request, FILE* out) {
  for (const std::string& condition : request.where) {
    const size_t equals = condition.find('=');
    if (equals == 0 || equals == std::string::npos) {
      throw Failure(Exit::usage, "--where '" + condition + "': expected FIELD=VALUE");
    }
  }
  if (!request.follow.from.empty() && !is_event_id(request.follow.from)) {
    throw Failure(Exit::usage, "--from '" + request.follow.from + "': expected an ID, as in 5f3a90c1-812");
  }
  Silence silence(request.follow.root);
  FollowRequest follow = request.follow;
  follow.on_silence = [&] { silence.tell(); };
  follow_events(
      follow, out,
      [&](const AnswerLine& event) {
        if (is_wanted(request, event)) write_now(out, request.json ? json_of(event) : plain_line(event));
        return true;
      },
      [&](const std::string& number) {
        if (request.json) write_now(out, json_gap(number));
      });
}
