#include "ctl/inspect/answers.h"

#include <pwd.h>
#include <algorithm>

#include "ctl/human_text.h"
#include "ctl/process.h"

namespace {

constexpr size_t kNameWidth = 40;
constexpr size_t kPlaceWidth = 100;

std::string user_name(uint64_t id) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread of ours asks for users
  const passwd* entry = getpwuid(static_cast<uid_t>(id));
  return entry == nullptr ? std::to_string(id) : entry->pw_name;
}

}  // namespace

Lines heaviest(const std::vector<AnswerLine>& answer, const char* kind, const Weight& weight) {
  Lines found;
  for (const AnswerLine& line : answer) {
    if (line.kind() == kind && weight(line) > 0) found.push_back(&line);
  }
  std::stable_sort(found.begin(), found.end(), [&](auto* a, auto* b) { return weight(*a) > weight(*b); });
  return found;
}

Lines heaviest(const std::vector<AnswerLine>& answer, const char* kind, const char* key) {
  return heaviest(answer, kind, [key](const AnswerLine& line) { return line.count(key); });
}

uint64_t sum_of(const std::vector<AnswerLine>& answer, const char* kind, const char* key) {
  uint64_t sum = 0;
  for (const AnswerLine& line : answer) sum += line.kind() == kind ? line.count(key) : 0;
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
  uint64_t total = 0;
  for (const std::string& bucket : line.items("buckets")) total += strtoull(bucket.c_str(), nullptr, 10);
  return total;
}

std::string loop_text(const AnswerLine& loop) {
  const std::string activity = loop.text("activity");
  if (activity == "idle" || activity == "starting" || activity == "stopped") return activity;
  const bool has_script = loop.has("tag") || activity == "handler";
  std::string text = (has_script ? "in " : "") + shown(activity, kNameWidth);
  if (loop.has("tag")) text += " '" + shown(loop.text("tag"), kNameWidth) + "'";
  if (loop.has("event")) text += " of " + shown(loop.text("event"), kNameWidth);
  text += " for " + duration_text(loop.count("for_us"));
  if (activity == "collecting" || activity == "forwarding") return text;  // a place would be that of the last call
  return loop.has("where") ? text + ", " + shown(loop.text("where"), kPlaceWidth) : text;
}

std::string client_text(const AnswerLine& client) {
  return client.text("id") + " (" + shown(client.text("address"), kNameWidth) + ")";
}

std::string poster_text(const AnswerLine& poster) {
  const auto entry = process_entry(static_cast<pid_t>(poster.count("pid")));
  const std::string program = entry ? shown(entry->name, kNameWidth) + ", " : "";
  return "process " + poster.text("pid") + " (" + program + "user " + user_name(poster.count("uid")) + ")";
}

double poster_rate(const AnswerLine& poster) {
  constexpr double kLeastS = 5;  // a burst is no flood
  if (poster.has("recent_ms")) return poster.number("recent") / std::max(poster.number("recent_ms") / 1000, kLeastS);
  return poster.number("events") / std::max(poster.number("since_s") + 0.5, kLeastS);  // whole seconds
}
