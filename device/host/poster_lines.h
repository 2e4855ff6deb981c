// Cuts the bytes of one poster into lines.
//
// Holds nothing when the bytes end with a line feed, otherwise the beginning of one line, at most kEventLineMax bytes
// and one. A line that grows longer is handed on as far as it has come, which is too long for an event, and the
// rest of it up to its line feed is skipped without being held.
//
// Uses no socket: tests and the fuzzer feed it bytes. Not shared between threads.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "device/event_line.h"

class PosterLines {
 public:
  // Calls take_line(std::string_view) for every line that `bytes` completes, until it returns false; the view is valid
  // during the call. Returns the bytes after that line, to be fed later, or nothing.
  template <typename TakeLine>
  std::string_view feed(std::string_view bytes, TakeLine&& take_line) {
    for (bool wants_more = true; wants_more && !bytes.empty();) {
      const size_t end = bytes.find('\n');
      const bool is_complete = end != std::string_view::npos;
      wants_more = add(bytes.substr(0, end), is_complete, take_line);
      bytes.remove_prefix(is_complete ? end + 1 : bytes.size());
    }
    return bytes;
  }

  // The poster is done: a last line without a line feed counts too. Ready for another poster afterwards.
  template <typename TakeLine>
  void finish(TakeLine&& take_line) {
    if (!held.empty()) take_line(std::string_view(held));
    reset();
  }

  // Bytes of the beginning of a line that are held.
  size_t waiting() const { return held.size(); }

  // Forgets the beginning of a line. Ready for another poster afterwards.
  void reset() {
    std::string().swap(held);
    is_skipping = false;
  }

 private:
  template <typename TakeLine>
  bool add(std::string_view piece, bool is_complete, TakeLine&& take_line) {
    if (is_skipping) {
      is_skipping = !is_complete;
      return true;
    }
    is_skipping = !is_complete;
    if (held.empty()) {
      if (is_complete || piece.size() > kEventLineMax) return take_line(piece);
      held = piece;
    } else {
      held.append(piece.substr(0, kEventLineMax + 1 - held.size()));
      if (is_complete || held.size() > kEventLineMax) {
        const std::string line = std::move(held);
        std::string().swap(held);  // hundreds of posters must not hold 64 KiB each
        return take_line(std::string_view(line));
      }
    }
    is_skipping = false;
    return true;
  }

  std::string held;          // the beginning of a line
  bool is_skipping = false;  // inside a line that was too long
};
