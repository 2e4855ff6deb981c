// What `zelvctl top` shows, as lines of text: made of the daemon's answers, and not of a terminal.
#pragma once

#include <string>
#include <vector>

#include "ctl/live/history.h"
#include "ctl/live/table.h"

enum class View { events, tags, clients };
constexpr View kViews[] = {View::events, View::tags, View::clients};

// The daemon as a whole: state, loop, queue, events with a line of the last minute, errors, memory and clients. Each
// line has at most `width` characters, block characters among them when `is_utf8`.
std::vector<std::string> head_lines(const History& history, size_t width, bool is_utf8);

// The table of a view, not sorted yet.
Table table_of(const History& history, View view);

// "events", "tags", "clients".
const char* name_of(View view);

// The column that a view is sorted by at first: its rate.
size_t first_sort_of(View view);

// One character for each of `values`, as high as its part of the highest one; those of the last `width` values.
std::string sparkline(const std::deque<double>& values, size_t width, bool is_utf8);
