#include "ctl/live/table.h"

#include <algorithm>

#include "ctl/human_text.h"

namespace {

constexpr size_t kTextMin = 8;

// Figures stand at the right end of their column, texts at the left end.
std::string placed(const std::string& text, size_t width, bool is_figure) {
  const std::string cut = shown(text, width);
  if (!is_figure) return padded(cut, width);
  return std::string(width - std::min(width, characters_of(cut)), ' ') + cut;
}

}  // namespace

void Table::sort(size_t column, bool reversed) {
  sorted_by = std::min(column, columns.size() - 1);
  const bool is_text = columns[sorted_by].width == 0;
  std::stable_sort(rows.begin(), rows.end(), [&](const Row& left, const Row& right) {
    const Cell& a = left[sorted_by];
    const Cell& b = right[sorted_by];
    if (is_text) return reversed ? b.text < a.text : a.text < b.text;
    if (a.weight != b.weight) return reversed ? a.weight < b.weight : a.weight > b.weight;
    return left.front().text < right.front().text;
  });
}

std::string Table::title_line(size_t width) const {
  Row titles;
  for (const Column& column : columns) titles.push_back({column.title, 0});
  return line(titles, width);
}

std::string Table::line(const Row& row, size_t width) const {
  const std::vector<size_t> all = widths(width);
  std::string text;
  for (size_t i = 0; i < columns.size(); ++i) {
    text += (i == 0 ? "" : " ") + placed(row[i].text, all[i], columns[i].width != 0);
  }
  text.resize(text.find_last_not_of(' ') + 1);
  return text;
}

// Texts get what the figures leave: each as much as it needs, as far as the texts behind it keep the least.
std::vector<size_t> Table::widths(size_t width) const {
  size_t taken = columns.size() - 1;  // blanks between the columns
  size_t texts = 0;
  for (const Column& column : columns) {
    taken += column.width;
    texts += column.width == 0 ? 1 : 0;
  }
  size_t left = width > taken ? width - taken : 0;
  std::vector<size_t> all;
  for (size_t i = 0; i < columns.size(); ++i) {
    all.push_back(columns[i].width);
    if (columns[i].width != 0) continue;
    size_t needed = characters_of(columns[i].title);
    for (const Row& row : rows) needed = std::max(needed, characters_of(row[i].text));
    const size_t kept = --texts * kTextMin;
    all[i] = std::max(std::min(needed, left > kept ? left - kept : 0), kTextMin);
    left -= std::min(left, all[i]);
  }
  return all;
}
