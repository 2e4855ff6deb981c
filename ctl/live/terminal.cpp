#include "ctl/live/terminal.h"

#include <langinfo.h>
#include <poll.h>
#include <unistd.h>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace {

constexpr int kEscapeMs = 25;  // between the bytes of a key that sends several

// The beginning of `text` that fits into `columns`. What the locale cannot write becomes "?".
std::wstring fitted(const std::string& text, size_t columns) {
  std::wstring line;
  mbstate_t state{};
  for (size_t at = 0, used = 0; at < text.size();) {
    wchar_t letter = 0;
    size_t size = mbrtowc(&letter, text.data() + at, text.size() - at, &state);  // NOLINT(concurrency-mt-unsafe)
    int width = size > text.size() ? -1 : wcwidth(letter);
    if (width < 0) {
      letter = L'?';
      width = 1;
      size = 1;
      state = {};
    }
    used += static_cast<size_t>(width);
    if (used > columns) break;
    line += letter;
    at += size;
  }
  return line;
}

// A terminal that was closed gives no key, and makes nobody wait for one.
bool has_gone() {
  pollfd entry{STDIN_FILENO, 0, 0};
  return poll(&entry, 1, 0) > 0;  // POLLHUP and POLLERR come unasked
}

attr_t attributes_of(Terminal::Style style) {
  switch (style) {
    case Terminal::Style::bold:
      return A_BOLD;
    case Terminal::Style::title:
      return A_REVERSE;
    case Terminal::Style::plain:
      break;
  }
  return A_NORMAL;
}

}  // namespace

std::unique_ptr<Terminal> Terminal::open() {
  const char* const type = getenv("TERM");  // NOLINT(concurrency-mt-unsafe): no other thread runs
  if (type == nullptr || strcmp(type, "dumb") == 0) return nullptr;
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) return nullptr;
  setlocale(LC_CTYPE, "");  // NOLINT(concurrency-mt-unsafe): no other thread runs
  SCREEN* const opened = newterm(nullptr, stdout, stdin);
  if (opened == nullptr) return nullptr;
  cbreak();
  noecho();
  curs_set(0);
  keypad(stdscr, TRUE);
  set_escdelay(kEscapeMs);
  return std::unique_ptr<Terminal>(new Terminal(opened, stdscr));
}

Terminal::~Terminal() {
  endwin();
  delscreen(handle);
}

bool Terminal::is_utf8() {
  return strcmp(nl_langinfo(CODESET), "UTF-8") == 0;  // NOLINT(concurrency-mt-unsafe): no other thread runs
}

size_t Terminal::rows() const {
  return static_cast<size_t>(getmaxy(window));
}

size_t Terminal::columns() const {
  return static_cast<size_t>(getmaxx(window));
}

void Terminal::draw(const std::vector<Line>& lines) const {
  werase(window);
  for (size_t row = 0; row < lines.size() && row < rows(); ++row) {
    const Line& line = lines[row];
    wattrset(window, static_cast<int>(attributes_of(line.style)));
    std::wstring text = fitted(line.text, columns());
    if (line.style == Style::title) text.resize(std::max(text.size(), columns()), L' ');  // to the end of the row
    mvwaddwstr(window, static_cast<int>(row), 0, text.c_str());
  }
  wattrset(window, A_NORMAL);
  wrefresh(window);
}

Terminal::Key Terminal::next_key(int wait_ms) const {
  wtimeout(window, wait_ms);
  switch (wgetch(window)) {
    case ERR:
      return has_gone() ? Key::quit : Key::none;
    case KEY_RESIZE:
      return Key::resized;
    case 'q':
    case 'Q':
      return Key::quit;
    case '\t':
      return Key::next_view;
    case 'e':
      return Key::events;
    case 't':
      return Key::tags;
    case 'c':
      return Key::clients;
    case KEY_LEFT:
    case '<':
      return Key::left;
    case KEY_RIGHT:
    case '>':
      return Key::right;
    case 'r':
      return Key::reverse;
    case KEY_UP:
    case 'k':
      return Key::up;
    case KEY_DOWN:
    case 'j':
      return Key::down;
    default:
      return Key::other;
  }
}
