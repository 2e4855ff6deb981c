// The client's side of the daemon's control socket. docs/control.md describes the protocol: a request is a line, and
// its answer lines "KIND KEY=VALUE ...", ended by an empty one; only `follow` has no end.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/failure.h"
#include "util/control_paths.h"
#include "util/descriptor.h"

constexpr int kAnswerLimitMs = 5000;

// The daemon has refused a request; the sentence is the daemon's, made safe for a terminal. Any other Failure of a
// ControlClient means that there is no daemon behind it, or none that answers.
class Refused : public Failure {
 public:
  explicit Refused(const std::string& sentence) : Failure(Exit::unreachable, sentence) {}
};

// One line of an answer.
class AnswerLine {
 public:
  AnswerLine() = default;
  // Takes any bytes: what is not KEY=VALUE is left out, and of equal keys the first counts.
  explicit AnswerLine(std::string_view line);

  const std::string& kind() const { return the_kind; }
  bool has(const char* key) const { return raw.count(key) != 0; }

  // The value as the daemon meant it: any bytes, so escape it (util/safe_text.h) before a terminal sees it.
  std::string text(const char* key, const char* absent = "") const;
  // Numbers are at least 0; `absent` also stands for a value that is not a number.
  uint64_t count(const char* key, uint64_t absent = 0) const;
  double number(const char* key, double absent = 0) const;
  // The items of a list, which commas separate; none for an empty value.
  std::vector<std::string> items(const char* key) const;
  // The items of a list of numbers.
  std::vector<uint64_t> counts(const char* key) const;

  // All values by key, as they came: "%XX" stands for a byte.
  const std::map<std::string, std::string, std::less<>>& values() const { return raw; }

 private:
  std::string the_kind;
  std::map<std::string, std::string, std::less<>> raw;
};

// `text` with each "%XX" replaced by its byte.
std::string decoded(std::string_view text);

// `text` as a value of a request: blanks, control characters and "%" become "%XX".
std::string encoded(std::string_view text);

// One connection; one thread only. Every member throws Failure(Exit::unreachable) when the daemon cannot be reached,
// goes away, or does not answer in time, and Refused.
class ControlClient {
 public:
  // Connects to the control socket below `root`, DEVICE_ROOT or empty; `socket_path` names another one that speaks the
  // same protocol.
  explicit ControlClient(const std::string& root, int connect_limit_ms = kAnswerLimitMs,
                         const char* socket_path = kControlSocketPath);

  // Sends a request and returns its whole answer, without the empty line; all of it takes at most `limit_ms`.
  std::vector<AnswerLine> ask(const std::string& request, int limit_ms = kAnswerLimitMs);

  // Sends a request whose answer is read with next(). `request` has no line end.
  void send(const std::string& request);

  enum class Got { line, end, nothing };
  // The next line of the answer, or its end. Nothing when none comes within `wait_ms`; 0: looks only, below 0: waits
  // for as long as it takes. Before a poll on the descriptor, read until there is nothing.
  Got next(AnswerLine& line, int wait_ms);

  // The user who answers; root when the system does not tell.
  uid_t user() const;

  // Readable when next() may have something new, or when the daemon has gone. Owned by this object.
  int descriptor() const { return socket.get(); }

 private:
  std::optional<std::string_view> first_held_line();
  bool receive(int wait_ms);

  const Descriptor socket;
  uint64_t received = 0;   // bytes
  std::string held;        // what came
  size_t used = 0;         // bytes of it that were given out
  size_t searched = 0;     // where the search for the next line end goes on
  bool in_answer = false;  // an answer has begun and not ended
};

// The first line of `kind`, or one without values.
const AnswerLine& line_of(const std::vector<AnswerLine>& answer, std::string_view kind);
