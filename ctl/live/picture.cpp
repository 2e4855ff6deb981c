#include "ctl/live/picture.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "ctl/human_text.h"
#include "util/safe_text.h"
#include "util/text.h"

namespace {

constexpr size_t kLabelWidth = 8;
constexpr size_t kMinute = 60;  // bars

// duration_text without its blanks: a column of figures is narrow.
std::string narrow(uint64_t us) {
  std::string text = duration_text(us);
  text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
  return text;
}

Cell duration_cell(const std::optional<Spread>& spread, uint64_t Spread::*member) {
  if (!spread) return {"-", -1};
  return {narrow((*spread).*member), static_cast<double>((*spread).*member)};
}

Cell count_cell(uint64_t count) {
  return {std::to_string(count), static_cast<double>(count)};
}

Cell rate_cell(double rate) {
  return {rate == 0 ? "-" : rate_text(rate), rate};
}

std::string part_text(double part) {
  return sstr(part < 0.0995 ? "%.1f%%" : "%.0f%%", part * 100);
}

// How long the call that runs has taken so far, in us, when it belongs to the event or tag of `line`; else 0.
uint64_t running_us(const Answers& answers, const AnswerLine& line) {
  const AnswerLine& loop = answers.stat("loop");
  const char* const kind = line.kind().c_str();
  return loop.has(kind) && loop.text(kind) == line.text("name") ? loop.count("for_us") : 0;
}

// The part of the last seconds in which the loop was busy with the event or tag of `now`. A call counts as far as it
// has come, not when it ends.
double busy_part(const History& history, const AnswerLine& old, const AnswerLine& now) {
  const uint64_t before_us = old.count("run_sum_us") + running_us(history.before(), now);
  const uint64_t now_us = now.count("run_sum_us") + running_us(history.now(), now);
  const auto busy_us = static_cast<double>(now_us - std::min(before_us, now_us));
  return std::min(busy_us / 1e6 / history.seconds(), 1.0);
}

// The columns that events and tags share: rates and run times.
void add_runs(Table::Row& row, const History& history, const AnswerLine& now, const char* count_key) {
  const AnswerLine& old = same_line(history.before().stats, now, "name");
  const auto spread = spread_between(old, now, "run_max_us");
  const double busy = busy_part(history, old, now);
  row.push_back(rate_cell(history.rate(old, now, count_key)));
  row.push_back(count_cell(now.count(count_key)));
  row.push_back(count_cell(now.count("errors")));
  row.push_back(duration_cell(spread, &Spread::half));
  row.push_back(duration_cell(spread, &Spread::nearly));
  row.push_back(duration_cell(spread, &Spread::longest));
  row.push_back({busy == 0 ? "-" : part_text(busy), busy});
}

Table runs_table(const History& history, const char* kind, const char* title, const char* count_key) {
  Table table;
  table.columns = {{title, 0}, {"PER S", 7}, {"TOTAL", 10}, {"ERRORS", 7},
                   {"P50", 7}, {"P99", 7},   {"MAX", 7},    {"LOOP", 6}};
  const Answers& now = history.now();
  Lines lines = lines_of(now.stats, kind);
  // What runs for the first time is not counted yet.
  const AnswerLine running(kind + (" name=" + encoded(now.stat("loop").text(kind))));
  if (now.stat("loop").has(kind) && same_line(now.stats, running, "name").kind().empty()) lines.push_back(&running);
  for (const AnswerLine* line : lines) {
    Table::Row row = {{escaped(line->text("name"))}};
    add_runs(row, history, *line, count_key);
    table.rows.push_back(std::move(row));
  }
  return table;
}

Table clients_table(const History& history) {
  Table table;
  table.columns = {{"ADDRESS", 0}, {"STATE", 0}, {"PER S", 7}, {"BYTES/S", 8},
                   {"OWES", 8},    {"LOST", 7},  {"SINCE", 8}, {"WANTS", 0}};
  for (const AnswerLine* client : lines_of(history.now().clients, "client")) {
    const AnswerLine& line = *client;
    const AnswerLine& found = same_line(history.before().clients, line, "id");
    // A descriptor's number comes again with the next client.
    const AnswerLine none;
    const bool is_same =
        found.text("address") == line.text("address") && found.count("connected_s") <= line.count("connected_s");
    const AnswerLine& old = is_same ? found : none;
    const double bytes = history.rate(old, line, "bytes");
    const uint64_t owes = line.count("waiting");
    const uint64_t since_us = line.count("connected_s") * 1000000;
    table.rows.push_back({{escaped(line.text("address"))},
                          {escaped(line.text("state"))},
                          rate_cell(history.rate(old, line, "events")),
                          {bytes == 0 ? "-" : size_text(static_cast<uint64_t>(bytes)), bytes},
                          {owes == 0 ? "-" : size_text(owes), static_cast<double>(owes)},
                          count_cell(line.count("skipped")),
                          {narrow(since_us), static_cast<double>(since_us)},
                          {escaped(line.text("wants"))}});
  }
  return table;
}

// An error of a script without the folder of its file: on a short line, the message matters more.
std::string without_folder(std::string error) {
  const size_t place = error.find(": ");
  if (place == std::string::npos || error[place + 2] != '/') return error;
  const size_t slash = error.rfind('/', error.find(':', place + 1));
  return error.erase(place + 2, slash - place - 1);
}

class Head {
 public:
  Head(const History& all, size_t columns) : history(all), width(columns) {}

  void daemon() {
    const AnswerLine& line = history.now().stat("daemon");
    const std::string what = "zelvind " + line.text("version") + ", process " + line.text("pid") + ", " +
                             line.text("state") + " for " + duration_text(line.count("state_since_s") * 1000000) +
                             ", " + size_text(line.count("rss")) + " of memory";
    const std::string clock = time_text(static_cast<uint64_t>(time(nullptr))).substr(11);
    const std::string left = shown(what, width > 10 ? width - 10 : width);
    lines.push_back(padded(left, width > 8 ? width - 8 : 0) + clock);
  }

  void loop() {
    const AnswerLine& line = history.now().stat("loop");
    const uint64_t silent_us = line.count("alive_us");
    add("loop", loop_text(line) + (silent_us > 1500000 ? "; no event taken for " + duration_text(silent_us) : ""));
  }

  void queue() {
    const AnswerLine& line = history.now().stat("queue");
    if (!line.has("waiting")) return;
    const AnswerLine& wait = history.now().stat("wait");
    const auto spread = spread_between(history.before().stat("wait"), wait, "max_us");
    std::string text = line.text("waiting") + " waiting, highest " + line.text("highest");
    if (line.count("oldest_us") > 0) text += ", oldest " + duration_text(line.count("oldest_us"));
    if (spread) {
      text += "; waited p50 " + duration_text(spread->half) + ", p99 " + duration_text(spread->nearly) + ", max " +
              duration_text(spread->longest);
    }
    add("queue", text);
  }

  // The newest second stands at the right end.
  void events(bool is_utf8) {
    const std::deque<double>& minute = history.minute();
    const double highest = minute.empty() ? 0 : *std::max_element(minute.begin(), minute.end());
    const std::string rate = padded((minute.empty() ? "-" : rate_text(minute.back())) + "/s", 9);
    const std::string peak = " highest " + rate_text(highest) + "/s";
    const size_t taken = kLabelWidth + rate.size() + peak.size();
    const size_t room = width > taken ? std::min(width - taken, kMinute) : 0;
    const std::string bars = sparkline(minute, room, is_utf8);
    add("events", rate + std::string(room - characters_of(bars), ' ') + bars + peak);
  }

  void errors() {
    const Answers& now = history.now();
    const uint64_t count = sum_of(now.stats, "tag", "errors");
    const uint64_t before = sum_of(history.before().stats, "tag", "errors");
    const double rate = static_cast<double>(count - std::min(before, count)) / history.seconds();
    std::string text = count == 0 ? "none" : std::to_string(count) + ", " + rate_text(rate) + "/s";
    if (const AnswerLine& last = now.stat("error"); last.has("time")) {
      text += "; last " + time_text(last.count("time")).substr(11) + " " + without_folder(script_error_text(last));
    }
    add("errors", text);
  }

  void lua() {
    const Answers& now = history.now();
    const AnswerLine& line = now.stat("lua");
    const uint64_t limit = line.count("limit");
    const double collecting = history.rate(history.before().stat("lua"), line, "collect_sum_us") / 1e6;
    add("lua", size_text(line.count("bytes")) + (limit > 0 ? " of " + size_text(limit) : "") + ", " +
                   number_of(now.stat("timers").count("now"), "timer") + ", " +
                   number_of(now.stat("coroutines").count("now"), "task") + ", " +
                   part_text(std::min(collecting, 1.0)) + " of the time in collections");
  }

  void clients() {
    const AnswerLine& line = history.now().stat("listener");
    std::string text = line.text("clients") + ", get " +
                       rate_text(history.rate(history.before().stat("listener"), line, "deliveries")) + "/s";
    if (line.count("owing") > 0) text += ", " + line.text("owing") + " behind";
    if (line.count("skips") > 0) text += ", " + number_of(line.count("skips"), "event") + " lost";
    add("clients", text);
  }

  void cut() {
    const uint64_t bytes = history.now().cut_bytes();
    if (bytes > 0) add("cut", "the answer was too long: " + size_text(bytes) + " of it are not shown here");
  }

  std::vector<std::string> lines;

 private:
  void add(const char* label, const std::string& text) {
    lines.push_back(padded(label, kLabelWidth) + shown(text, width > kLabelWidth + 3 ? width - kLabelWidth : 3));
  }

  const History& history;
  const size_t width;
};

}  // namespace

std::vector<std::string> head_lines(const History& history, size_t width, bool is_utf8) {
  Head head(history, width);
  head.daemon();
  head.loop();
  head.queue();
  head.events(is_utf8);
  head.errors();
  head.lua();
  head.clients();
  head.cut();
  return head.lines;
}

Table table_of(const History& history, View view) {
  switch (view) {
    case View::events:
      return runs_table(history, "event", "EVENT", "events");
    case View::tags:
      return runs_table(history, "tag", "TAG", "runs");
    case View::clients:
      return clients_table(history);
  }
  return {};
}

const char* name_of(View view) {
  switch (view) {
    case View::events:
      return "events";
    case View::tags:
      return "tags";
    case View::clients:
      return "clients";
  }
  return "";
}

size_t first_sort_of(View view) {
  return view == View::clients ? 2 : 1;
}

std::string sparkline(const std::deque<double>& values, size_t width, bool is_utf8) {
  static const char* const kBlocks[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  static const char* const kLetters[] = {" ", ".", ".", ":", "-", "=", "+", "*", "#"};
  constexpr double kHeights = 8;
  const double highest = values.empty() ? 0 : *std::max_element(values.begin(), values.end());
  std::string line;
  for (size_t i = values.size() - std::min(width, values.size()); i < values.size(); ++i) {
    const double part = highest > 0 ? values[i] / highest : 0;
    const auto height = static_cast<size_t>(std::ceil(part * kHeights));  // whatever is not 0 can be seen
    line += is_utf8 ? kBlocks[height] : kLetters[height];
  }
  return line;
}
