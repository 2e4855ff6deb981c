// The terminal of `zelvctl top`: draws lines on the whole screen and reads keys.
#pragma once

#define NCURSES_NOMACROS 1
#define NCURSES_WIDECHAR 1
#include <curses.h>
#include <memory>
#include <string>
#include <vector>

class Terminal {
 public:
  enum class Style { plain, bold, title };
  struct Line {
    std::string text;  // safe for a terminal; what does not fit is cut
    Style style = Style::plain;
  };
  enum class Key { none, other, resized, quit, next_view, events, tags, clients, left, right, reverse, up, down };

  // Takes the user's locale. The terminal of standard input and output; null when there is none, or it cannot be drawn
  // on.
  static std::unique_ptr<Terminal> open();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  // Leaves the terminal as it was.
  ~Terminal();

  // Whether it shows UTF-8, by the user's locale.
  static bool is_utf8();

  size_t rows() const;
  size_t columns() const;

  // Shows `lines` from the top on, and nothing else.
  void draw(const std::vector<Line>& lines) const;

  // Waits at most `wait_ms` for a key, or a change of the terminal's size. `quit` also when the terminal has gone.
  Key next_key(int wait_ms) const;

 private:
  Terminal(SCREEN* opened, WINDOW* whole) : handle(opened), window(whole) {}

  SCREEN* const handle;
  WINDOW* const window;
};
