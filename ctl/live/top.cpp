#include "ctl/live/top.h"

#include <sys/ioctl.h>
#include <algorithm>
#include <memory>
#include <string>

#include "ctl/control_client.h"
#include "ctl/human_text.h"
#include "ctl/live/history.h"
#include "ctl/live/picture.h"
#include "ctl/live/terminal.h"
#include "ctl/output.h"
#include "util/clock.h"

namespace {

constexpr int kEveryMs = 1000;
constexpr int kPlainEveryMs = 5000;
constexpr int kLimitMs = 2000;       // for an answer
constexpr size_t kPlainWidth = 120;  // where the output is not a terminal
constexpr char kKeys[] = "e events  t tags  c clients  < > sort  r reverse  up/down scroll  q quit";

// The daemon as it answers, through its restarts.
class Source {
 public:
  explicit Source(std::string the_root) : root(std::move(the_root)) {}

  // Asks the daemon. Throws Failure when it does not answer.
  void ask() {
    try {
      if (client == nullptr) client = std::make_unique<ControlClient>(root, kLimitMs);
      Answers answers;
      answers.stats = client->ask("stats", kLimitMs);
      answers.clients = client->ask("clients", kLimitMs);
      history.add(steady_ms(), std::move(answers));
    } catch (const Failure&) {
      client.reset();
      throw;
    }
  }

  // The same, but remembers a failure as `trouble` instead.
  void ask_again() {
    trouble.clear();
    try {
      ask();
    } catch (const Failure& failure) {
      trouble = failure.what();
    }
  }

  History history;
  std::string trouble;  // why there is no answer; the history is an old one then

 private:
  const std::string root;
  std::unique_ptr<ControlClient> client;
};

class Screen {
 public:
  Screen(Source& answers, Terminal& drawn_on) : source(answers), terminal(drawn_on) {}

  void run() {
    for (;;) {
      const int64_t next = steady_ms() + kEveryMs;
      for (int64_t left = kEveryMs; left > 0; left = next - steady_ms()) {
        draw();
        const Terminal::Key key = terminal.next_key(static_cast<int>(left));
        if (key == Terminal::Key::quit) return;
        handle(key);
      }
      source.ask_again();
    }
  }

 private:
  struct Order {
    size_t column;
    bool reversed = false;
  };

  void handle(Terminal::Key key) {
    Order& order = orders[static_cast<size_t>(view)];
    switch (key) {
      case Terminal::Key::next_view:
        return show(kViews[(static_cast<size_t>(view) + 1) % std::size(kViews)]);
      case Terminal::Key::events:
        return show(View::events);
      case Terminal::Key::tags:
        return show(View::tags);
      case Terminal::Key::clients:
        return show(View::clients);
      case Terminal::Key::left:
        order.column -= order.column > 0 ? 1 : 0;
        break;
      case Terminal::Key::right:
        order.column += order.column + 1 < table_of(source.history, view).columns.size() ? 1 : 0;
        break;
      case Terminal::Key::reverse:
        order.reversed = !order.reversed;
        break;
      case Terminal::Key::up:
        first_row -= first_row > 0 ? 1 : 0;
        break;
      case Terminal::Key::down:
        ++first_row;  // draw() sets it back at the end
        break;
      default:
        break;
    }
  }

  void show(View wanted) {
    view = wanted;
    first_row = 0;
  }

  // "[events 12]   tags 7   clients 3   sorted by PER S".
  std::string view_line(const Table& table) const {
    std::string line;
    for (const View each : kViews) {
      const std::string name =
          std::string(name_of(each)) + " " + std::to_string(table_of(source.history, each).rows.size());
      line += each == view ? "[" + name + "] " : " " + name + "  ";
    }
    const Order& order = orders[static_cast<size_t>(view)];
    return line + "  by " + table.columns[table.sorted_by].title + (order.reversed ? ", reversed" : "");
  }

  void draw() {
    const size_t width = terminal.columns();
    const size_t height = terminal.rows();
    const Order& order = orders[static_cast<size_t>(view)];
    Table table = table_of(source.history, view);
    table.sort(order.column, order.reversed);
    std::vector<Terminal::Line> lines;
    for (const std::string& line : head_lines(source.history, width, Terminal::is_utf8())) lines.push_back({line});
    lines.front().style = Terminal::Style::bold;
    if (!source.trouble.empty()) lines[1] = {shown("NO ANSWER: " + source.trouble, width), Terminal::Style::bold};
    lines.push_back({});
    lines.push_back({view_line(table), Terminal::Style::bold});
    lines.push_back({table.title_line(width), Terminal::Style::title});
    const size_t room = height > lines.size() + 1 ? height - lines.size() - 1 : 0;
    first_row = std::min(first_row, table.rows.size() - std::min(room, table.rows.size()));
    for (size_t i = first_row; i < std::min(first_row + room, table.rows.size()); ++i) {
      lines.push_back({table.line(table.rows[i], width)});
    }
    lines.resize(std::max<size_t>(height, 1) - 1);
    lines.push_back({kKeys});
    terminal.draw(lines);
  }

  Source& source;
  Terminal& terminal;
  View view = View::events;
  Order orders[std::size(kViews)] = {
      {first_sort_of(View::events)}, {first_sort_of(View::tags)}, {first_sort_of(View::clients)}};
  size_t first_row = 0;
};

size_t width_of(FILE* out) {
  winsize size{};
  return ioctl(fileno(out), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kPlainWidth;
}

std::string plain_text_of(const History& history, size_t width) {
  std::string text;
  for (const std::string& line : head_lines(history, width, false)) text += line + "\n";
  for (const View view : kViews) {
    Table table = table_of(history, view);
    table.sort(first_sort_of(view), false);
    text += "\n" + table.title_line(width) + "\n";
    for (const Table::Row& row : table.rows) text += table.line(row, width) + "\n";
  }
  return text;
}

void write_plain(Source& source, bool once, FILE* out) {
  for (int wait_ms = kEveryMs;; wait_ms = kPlainEveryMs) {
    wait_to_read(-1, out, wait_ms);
    source.ask_again();
    write_now(out, source.trouble.empty() ? plain_text_of(source.history, width_of(out))
                                          : "no answer: " + source.trouble + "\n");
    if (once) return;
    write_now(out, "\n");
  }
}

}  // namespace

void show_top(const std::string& root, bool once, FILE* out) {
  Source source(root);
  source.ask();
  const auto terminal = once ? nullptr : Terminal::open();
  if (terminal == nullptr) return write_plain(source, once, out);
  Screen(source, *terminal).run();
}
