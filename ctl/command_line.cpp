#include "ctl/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace {

constexpr char kAbout[] =
    "Post events to zelvind, listen to the events that it forwards, and look after the daemon itself.";

constexpr char kFooter[] =
    "Exit status: 0 done, 1 the daemon could not be reached or went away, or scripts have faults, 2 wrong usage.";

// CLI11 takes an argument "[a,b]" for a list of two and "++" for the end of a subcommand; here they are values like any
// others. Such arguments pass through it with a mark in front.
constexpr char kMark = '\x01';

std::vector<std::string> marked(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  for (std::string& argument : arguments) {
    const bool brackets = argument.size() > 1 && argument.front() == '[' && argument.back() == ']';
    const bool begins_marked = !argument.empty() && argument.front() == kMark;
    if (brackets || begins_marked || argument == "++") argument.insert(0, 1, kMark);
  }
  return {arguments.rbegin(), arguments.rend()};  // the order in which CLI11 wants them
}

std::vector<std::string> values_of(const CLI::Option& option) {
  std::vector<std::string> values = option.results();
  for (std::string& value : values) {
    if (!value.empty() && value.front() == kMark) value.erase(0, 1);
  }
  return values;
}

size_t count_behind_dashes(int argc, char** argv) {
  const auto is_dashes = [](const char* argument) { return std::string_view(argument) == "--"; };
  auto* const found = std::find_if(argv + 1, argv + argc, is_dashes);
  return found == argv + argc ? 0 : static_cast<size_t>(argv + argc - found - 1);
}

void add(CLI::App& command, const Parameter& parameter) {
  using Takes = Parameter::Takes;
  if (parameter.takes == Takes::nothing) {
    command.add_flag(parameter.name)->description(parameter.help);
    return;
  }
  CLI::Option* const option = command.add_option(parameter.name)->description(parameter.help);
  if (parameter.value_name != nullptr) option->type_name(parameter.value_name);
  switch (parameter.takes) {
    case Takes::number:
      option->check(CLI::Range(parameter.least, parameter.most).description(""));
      break;
    case Takes::needed:
      option->required();
      break;
    case Takes::values:
      option->expected(1, -1)->allow_extra_args();  // with 0, it would get nothing from behind "--"
      break;
    case Takes::repeated:
      option->expected(1)->take_all();
      break;
    case Takes::nothing:
    case Takes::value:
      break;
  }
}

void add(CLI::App& app, const Command& command) {
  CLI::App* const added = app.add_subcommand(command.name, command.help);
  for (const Parameter& parameter : command.parameters) {
    if (parameter.name != nullptr) add(*added, parameter);
  }
  added->footer(command.footer);
  added->fallthrough();
}

// DEVICE_ROOT, after --root has replaced it for the configuration store too, which reads it by itself.
std::string device_root(const CLI::Option& option) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs
  if (!option.empty()) setenv("DEVICE_ROOT", values_of(option).front().c_str(), 1);
  const char* root = getenv("DEVICE_ROOT");
  if (root == nullptr || *root == '\0') return "";
  if (*root == '/') return root;
  const std::string name = option.empty() ? "DEVICE_ROOT" : "--root";
  throw Failure(Exit::usage, name + " is '" + root + "': expected an absolute path");
}

[[noreturn]] void refuse(const std::string& what, const std::string& command) {
  throw Failure(Exit::usage, what + "\nTry: zelvctl" + command + " --help");
}

// "post, listen or run".
std::string names_of(const std::vector<Command>& commands) {
  std::string names;
  for (size_t i = 0; i < commands.size(); ++i) {
    names += (i == 0 ? "" : i + 1 < commands.size() ? ", " : " or ") + std::string(commands[i].name);
  }
  return names;
}

}  // namespace

bool Given::has(const char* parameter) const {
  return !command[parameter]->empty();
}

std::vector<std::string> Given::values(const char* parameter) const {
  return values_of(*command[parameter]);
}

std::string Given::value(const char* parameter, const char* absent) const {
  return has(parameter) ? values(parameter).front() : absent;
}

long Given::number(const char* parameter, long absent) const {
  return has(parameter) ? command[parameter]->as<long>() : absent;
}

void run_command_line(const std::vector<Command>& commands, int argc, char** argv) {
  CLI::App app{kAbout, "zelvctl"};
  app.require_subcommand(0, 1);  // without one we complain ourselves, after any unknown argument
  app.set_version_flag("--version", "zelvctl " ZELVIND_VERSION, "Print the version");
  app.set_help_flag("--help", "Print this help");
  app.footer(kFooter);
  const CLI::Option* const root =
      app.add_option("--root")->type_name("DIR")->description("Look for the daemon below DIR, instead of DEVICE_ROOT");
  for (const Command& command : commands) add(app, command);
  try {
    app.parse(marked(argc, argv));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {  // --help, --version
      app.exit(error);
      return;
    }
    const std::vector<CLI::App*> parsed = app.get_subcommands();
    refuse(error.what(), parsed.empty() ? "" : " " + parsed.front()->get_name());
  }
  const std::string root_path = device_root(*root);
  for (const Command& command : commands) {
    CLI::App& parsed = *app.get_subcommand(command.name);
    if (parsed.parsed()) return command.run(Given(root_path, parsed, count_behind_dashes(argc, argv)));
  }
  refuse("expected a command: " + names_of(commands), "");
}
