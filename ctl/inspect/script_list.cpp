#include "ctl/inspect/script_list.h"

#include <algorithm>
#include <map>

#include "ctl/human_text.h"
#include "ctl/inspect/answers.h"

namespace {

constexpr size_t kWidthMax = 50;
constexpr size_t kDueListed = 20;
constexpr size_t kTagsListed = 5;

using Row = std::vector<std::string>;

std::string in_columns(const std::vector<Row>& rows) {
  std::vector<size_t> widths;
  for (const Row& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], std::min(characters_of(row[i]), kWidthMax));
  }
  std::string text;
  for (const Row& row : rows) {
    text += " ";
    for (size_t i = 0; i < row.size(); ++i) text += " " + (i + 1 == row.size() ? row[i] : padded(row[i], widths[i]));
    text += "\n";
  }
  return text;
}

class ScriptList {
 public:
  explicit ScriptList(const std::vector<AnswerLine>& all) : answer(all) {}

  void files() {
    std::vector<Row> rows;
    for (const AnswerLine* line : lines_of(answer, "file"))
      rows.push_back({value(*line, "path"), value(*line, "module")});
    text += number_of(rows.size(), "file") + " in load order, loaded " +
            number_of(line_of(answer, "round").count("n"), "time") + "\n" + in_columns(rows);
  }

  void handlers() {
    Lines lines = lines_of(answer, "handler");
    std::stable_sort(lines.begin(), lines.end(), [](auto* a, auto* b) { return a->text("event") < b->text("event"); });
    std::vector<Row> rows;
    for (const AnswerLine* line : lines) {
      rows.push_back({value(*line, "event"), value(*line, "tag"), value(*line, "where")});
    }
    text += number_of(rows.size(), "handler") + "\n" + in_columns(rows);
  }

  // Timers or tasks, of which a script can make thousands by mistake.
  void due(const char* kind) {
    Lines lines = lines_of(answer, kind);
    std::stable_sort(lines.begin(), lines.end(),
                     [](auto* a, auto* b) { return a->count("due_in_ms") < b->count("due_in_ms"); });
    // Those that a place in a script has made with the same interval stand on one line.
    std::vector<std::pair<const AnswerLine*, size_t>> groups;
    std::map<Row, size_t> group_of;
    for (const AnswerLine* line : lines) {
      const auto found =
          group_of.emplace(Row{line->text("tag"), line->text("where"), line->text("every_ms")}, groups.size());
      if (found.second) groups.emplace_back(line, 0);
      ++groups[found.first->second].second;
    }
    std::vector<Row> rows;
    for (size_t i = 0; i < std::min(groups.size(), kDueListed); ++i) {
      const auto& [line, number] = groups[i];
      const std::string group = number > 1 ? number_of(number, kind) + ", the first " : "";
      rows.push_back({value(*line, "tag"), group + when(*line), value(*line, "where")});
    }
    text += number_of(lines.size(), kind) + (groups.size() > kDueListed ? ": " + tags_of(lines) : "") + "\n";
    text += in_columns(rows);
    if (groups.size() > kDueListed) text += "  and " + number_of(groups.size() - kDueListed, "more line") + "\n";
  }

  void end() {
    if (line_of(answer, "cut").has("bytes")) text += "The answer was too long; there is more than this.\n";
  }

  std::string text;

 private:
  static std::string value(const AnswerLine& line, const char* key) { return shown(line.text(key), 4 * kWidthMax); }

  static std::string when(const AnswerLine& line) {
    std::string due = line.has("due_in_ms") ? "due in " + duration_text(line.count("due_in_ms") * 1000) : "waits";
    if (!line.has("every_ms")) return due;
    const uint64_t every_ms = line.count("every_ms");
    return due + (every_ms == 0 ? ", once" : ", every " + duration_text(every_ms * 1000));
  }

  // "front 39990, clock 10 and 2 more".
  static std::string tags_of(const Lines& lines) {
    std::map<std::string, size_t> numbers;
    for (const AnswerLine* line : lines) ++numbers[line->text("tag")];
    std::vector<std::pair<std::string, size_t>> tags(numbers.begin(), numbers.end());
    std::stable_sort(tags.begin(), tags.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string list;
    for (size_t i = 0; i < std::min(tags.size(), kTagsListed); ++i) {
      list += (i == 0 ? "" : ", ") + shown(tags[i].first, kWidthMax) + " " + std::to_string(tags[i].second);
    }
    return tags.size() > kTagsListed ? list + " and " + std::to_string(tags.size() - kTagsListed) + " more tags" : list;
  }

  const std::vector<AnswerLine>& answer;
};

}  // namespace

std::string script_list(const std::vector<AnswerLine>& answer) {
  ScriptList list(answer);
  list.files();
  list.handlers();
  list.due("timer");
  list.due("task");
  list.end();
  return list.text;
}
