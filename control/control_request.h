// Requests at the control socket: bytes of a client cut into lines, lines taken apart (docs/control.md). Knows no
// socket and no lock.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t kRequestMost = 4096;  // bytes, with the line end

// Cuts what a client sends into lines. Holds at most kRequestMost bytes.
class RequestLines {
 public:
  enum class Next { nothing, line, too_long };

  // How many bytes add() takes.
  size_t room() const { return kRequestMost - held.size(); }
  void add(std::string_view bytes) { held += bytes; }

  // No more bytes come: what is left is a line.
  void finish() { finished = true; }

  // Gives the next line, without its end. `too_long`: one has to be skipped; said once, before its end has come.
  Next take(std::string& line);

  // Whether take() has something to give.
  bool has_line() const;

 private:
  std::string held;
  bool skipping = false;  // the rest of a line that is too long
  bool finished = false;
};

struct ControlRequest {
  std::string name;
  std::vector<std::string> arguments;  // as they were sent; empty: none
  pid_t process = 0;                   // whose request it is; 0: not known
  uid_t user = 0;
};

// Takes a line apart. Returns what is wrong with it, or an empty text.
std::string parse_request(std::string_view line, ControlRequest& request);

// The arguments of `follow`.
struct FollowRequest {
  std::string run;  // of from=RUN-SEQUENCE; empty: none was given
  uint64_t sequence = 0;
  std::vector<std::string> names;  // patterns; empty: all

  bool wants(std::string_view name) const;
};
std::string parse_follow(const std::vector<std::string>& arguments, FollowRequest& follow);
