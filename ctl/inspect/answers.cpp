#include "ctl/inspect/answers.h"

#include <pwd.h>
#include <algorithm>
#include <map>
#include <numeric>

#include "ctl/human_text.h"
#include "ctl/process.h"
#include "device/listener_access.h"
#include "util/text.h"

namespace {

constexpr size_t kNameWidth = 40;
constexpr size_t kPlaceWidth = 100;
constexpr size_t kErrorWidth = 160;

std::string user_name(uint64_t id) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread of ours asks for users
  const passwd* entry = getpwuid(static_cast<uid_t>(id));
  return entry == nullptr ? std::to_string(id) : entry->pw_name;
}

// Events a second: lately, or since it is connected where the daemon does not tell.
double poster_rate(const AnswerLine& poster) {
  constexpr double kLeastS = 5;  // a burst is no flood
  if (poster.has("recent_ms")) return poster.number("recent") / std::max(poster.number("recent_ms") / 1000, kLeastS);
  return poster.number("events") / std::max(poster.number("since_s") + 0.5, kLeastS);  // whole seconds
}

}  // namespace

Lines lines_of(const std::vector<AnswerLine>& answer, std::string_view kind) {
  Lines found;
  for (const AnswerLine& line : answer) {
    if (line.kind() == kind) found.push_back(&line);
  }
  return found;
}

void add_event_names(const std::vector<AnswerLine>& answer, std::set<std::string>& names) {
  for (const AnswerLine* line : lines_of(answer, "event")) names.insert(line->text("name"));
  for (const AnswerLine* line : lines_of(answer, "handler")) names.insert(line->text("event"));
}

Lines heaviest(const std::vector<AnswerLine>& answer, const char* kind, const Weight& weight) {
  Lines found = lines_of(answer, kind);
  found.erase(std::remove_if(found.begin(), found.end(), [&](auto* line) { return weight(*line) == 0; }), found.end());
  std::stable_sort(found.begin(), found.end(), [&](auto* a, auto* b) { return weight(*a) > weight(*b); });
  return found;
}

Lines heaviest(const std::vector<AnswerLine>& answer, const char* kind, const char* key) {
  return heaviest(answer, kind, [key](const AnswerLine& line) { return line.count(key); });
}

uint64_t sum_of(const std::vector<AnswerLine>& answer, const char* kind, const char* key) {
  uint64_t sum = 0;
  for (const AnswerLine* line : lines_of(answer, kind)) sum += line->count(key);
  return sum;
}

std::string listed(const Lines& lines, size_t most, const std::function<std::string(const AnswerLine&)>& text) {
  std::string list;
  for (size_t i = 0; i < std::min(lines.size(), most); ++i) list += (i == 0 ? "" : ", ") + text(*lines[i]);
  if (lines.size() > most) list += " and " + std::to_string(lines.size() - most) + " more";
  return list;
}

uint64_t mean_us(const AnswerLine& line, const char* sum_key, uint64_t number) {
  return number == 0 ? 0 : line.count(sum_key) / number;
}

uint64_t bucket_total(const AnswerLine& line) {
  const std::vector<uint64_t> buckets = line.counts("buckets");
  return std::accumulate(buckets.begin(), buckets.end(), uint64_t{0});
}

std::string loop_text(const AnswerLine& loop) {
  std::string activity = loop.text("activity");
  if (activity == "idle" || activity == "starting" || activity == "stopped") return activity;
  const bool has_script = loop.has("tag") || activity == "handler";
  std::string text = (has_script ? "in " : "") + shown(activity, kNameWidth);
  if (loop.has("tag")) text += " '" + shown(loop.text("tag"), kNameWidth) + "'";
  if (loop.has("event")) text += " of " + shown(loop.text("event"), kNameWidth);
  text += " for " + duration_text(loop.count("for_us"));
  if (activity == "collecting" || activity == "forwarding") return text;  // a place would be that of the last call
  return loop.has("where") ? text + ", " + shown(loop.text("where"), kPlaceWidth) : text;
}

std::string first_line(const AnswerLine& line, const char* key) {
  const std::string text = line.text(key);
  return shown(text.substr(0, text.find('\n')), kErrorWidth);
}

std::string script_error_text(const AnswerLine& error) {
  const std::string event = error.text("event");
  return shown(error.text("tag"), kNameWidth) + (event.empty() ? "" : " of " + shown(event, kNameWidth)) + ": " +
         first_line(error, "text");
}

std::string listener_text(const AnswerLine& listener) {
  const std::string address = listener.text("address", kEveryAddress);
  const uint64_t port = listener.count("port");
  if (address == "none") return "closed to everybody";
  if (address.empty() || address == kEveryAddress) return "port " + (port == 0 ? "not open" : std::to_string(port));
  const auto endpoints = parse_listener_address(address).value_or(std::vector<ListenEndpoint>());
  const bool has_port =
      std::any_of(endpoints.begin(), endpoints.end(), [](const auto& endpoint) { return endpoint.path.empty(); });
  const bool is_local =
      std::all_of(endpoints.begin(), endpoints.end(), [](const auto& endpoint) { return endpoint.is_local(); });
  const std::string number = !has_port ? "" : port == 0 ? "port not open, " : "port " + std::to_string(port) + " ";
  return number + "at " + shown(address, kPlaceWidth) + (is_local ? ", for this machine only" : "");
}

std::string client_text(const AnswerLine& client) {
  return client.text("id") + " (" + shown(client.text("address"), kNameWidth) + ")";
}

std::vector<AnswerLine> posters_by_process(const std::vector<AnswerLine>& stats) {
  struct Sums {
    unsigned long long events = 0, refused = 0, since_s = 0;
    double rate = 0;
  };
  std::map<std::pair<std::string, std::string>, Sums> processes;
  for (const AnswerLine* line : lines_of(stats, "poster")) {
    Sums& sums = processes[{line->text("pid"), line->text("uid")}];
    sums.events += line->count("events");
    sums.refused += line->count("refused");
    sums.since_s = std::max<unsigned long long>(sums.since_s, line->count("since_s"));
    sums.rate += poster_rate(*line);
  }
  std::vector<AnswerLine> posters;
  posters.reserve(processes.size());
  for (const auto& [process, sums] : processes) {
    posters.emplace_back(sstr("poster pid=%s uid=%s events=%llu refused=%llu since_s=%llu rate=%.3f",
                              encoded(process.first).c_str(), encoded(process.second).c_str(), sums.events,
                              sums.refused, sums.since_s, sums.rate));
  }
  return posters;
}

std::string poster_text(const AnswerLine& poster) {
  const auto entry = process_entry(static_cast<pid_t>(poster.count("pid")));
  const std::string program = entry ? shown(entry->name, kNameWidth) + ", " : "";
  return "process " + poster.text("pid") + " (" + program + "user " + user_name(poster.count("uid")) + ")";
}
