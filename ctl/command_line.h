// The command line of zelvctl: a table of commands with their parameters, from which it is parsed and its help written.
#pragma once

#include <climits>
#include <string>
#include <utility>
#include <vector>

#include "ctl/failure.h"

namespace CLI {
class App;
}

// What a command takes. A name that starts with "--" is an option's; any other is an argument's, whose place in the
// table is its place on the command line.
struct Parameter {
  enum class Takes {
    nothing,   // an option that is there or not
    value,     // may be left out
    number,    // from `least` to LONG_MAX or `most`; may be left out
    needed,    // one value
    values,    // any number of them
    repeated,  // of an option: one each time it is given
  };

  const char* name = nullptr;
  Takes takes = Takes::nothing;
  const char* help = nullptr;
  const char* value_name = nullptr;  // of an option that takes one
  long least = 0;
  long most = LONG_MAX;
};

// What the user has given.
class Given {
 public:
  Given(std::string the_root, CLI::App& the_command, size_t arguments_behind_dashes)
      : root(std::move(the_root)), behind_dashes(arguments_behind_dashes), command(the_command) {}

  bool has(const char* parameter) const;
  std::vector<std::string> values(const char* parameter) const;
  std::string value(const char* parameter, const char* absent = "") const;
  long number(const char* parameter, long absent) const;

  const std::string root;      // DEVICE_ROOT or --root; empty or an absolute path
  const size_t behind_dashes;  // how many arguments follow the first "--"

 private:
  CLI::App& command;
};

struct Command {
  const char* name = nullptr;
  const char* help = nullptr;    // one line
  const char* footer = nullptr;  // of its own help: the rules in words, and examples
  Parameter parameters[8];
  void (*run)(const Given& given) = nullptr;  // throws Failure
};

// Parses the command line and runs its command, or writes the help or the version. Throws Failure: of the command, or
// Exit::usage.
void run_command_line(const std::vector<Command>& commands, int argc, char** argv);
