// A table of figures on a terminal: sorted by one column, and cut to a width.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct Cell {
  std::string text;   // safe for a terminal
  double weight = 0;  // what the column is sorted by; texts among equal ones
};

struct Table {
  struct Column {
    const char* title;
    size_t width;  // of a figure; 0: a text, as wide as its longest one and the table allow
  };
  using Row = std::vector<Cell>;

  std::vector<Column> columns;
  std::vector<Row> rows;
  size_t sorted_by = 0;

  // Sorts by `column`: figures from the highest on, texts by the alphabet, or `reversed` the other way
  // round.
  void sort(size_t column, bool reversed);

  // The titles and a row, in at most `width` characters.
  std::string title_line(size_t width) const;
  std::string line(const Row& row, size_t width) const;

 private:
  std::vector<size_t> widths(size_t width) const;
};
