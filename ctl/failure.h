// How a command of zelvctl fails: one whole sentence for standard error, and the exit status that goes with it.
#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

enum class Exit {
  done = 0,
  // The daemon could not be reached or went away, the output could not be written, or scripts have faults.
  unreachable = 1,
  // Wrong arguments, or input that is not an event.
  usage = 2,
};

// Thrown where the failure is found; main writes the sentence and ends the program. An empty sentence is not written:
// the command has said all already.
class Failure : public std::runtime_error {
 public:
  Failure(Exit exit_status, const std::string& sentence) : std::runtime_error(sentence), status(exit_status) {}

  const Exit status;
};

// Fails with Exit::unreachable.
[[noreturn]] inline void fail(const std::string& sentence) {
  throw Failure(Exit::unreachable, sentence);
}

// The system's words for errno value `error`.
inline std::string error_text(int error) {
  return std::generic_category().message(error);
}
