// How a command of zelvctl fails: one whole sentence for standard error, and the exit status that goes with it.
#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

enum class Exit {
  done = 0,
  unreachable =
      1,      // the daemon could not be reached or went away, the output could not be written, scripts have faults
  usage = 2,  // wrong arguments, or input that is no event
};

// Thrown where the failure is noticed; main writes the sentence and ends the program.
class Failure : public std::runtime_error {
 public:
  Failure(Exit exit_status, const std::string& sentence) : std::runtime_error(sentence), status(exit_status) {}

  const Exit status;
};

// The system's words for errno value `error`.
inline std::string error_text(int error) {
  return std::generic_category().message(error);
}
