// zelvctl: posts events to a running zelvind, listens to the events that it forwards, and looks after the daemon
// itself. Options only; the work is done in the files named after the commands.
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "ctl/check.h"
#include "ctl/failure.h"
#include "ctl/listen.h"
#include "ctl/post.h"
#include "ctl/reload.h"
#include "ctl/running_daemon.h"
#include "ctl/supervise.h"
#include "device/event_source.h"

namespace {

constexpr char kFooter[] =
    "Exit status: 0 done, 1 the daemon could not be reached or went away, or scripts have faults, 2 wrong usage.";

constexpr char kPostFooter[] =
    "With - for TYPE the events are lines of standard input, \"TYPE NAME INFO\" each, INFO being\n"
    "FIELD=VALUE items joined by &; the first bad line ends it.\n"
    "Ends with status 0 when the daemon has taken in all events, with 1 when it gives no sign of that for 10 s;\n"
    "it may still handle them then, and a second try may double them.\n"
    "--root and the exit statuses: see zelvctl --help.\n"
    "\nExamples:\n"
    "  zelvctl post 1 door state=open by=anna\n"
    "  zelvctl post - < events.txt\n"
    "  zelvctl post 9999 quit --quit       ends the daemon's event loop";

constexpr char kListenFooter[] =
    "Writes SECONDS.MICROSECONDS NAME INFO, or with --json an object with \"time\", \"name\" and \"fields\".\n"
    "--root and the exit statuses: see zelvctl --help.\n"
    "\nExamples:\n"
    "  zelvctl listen door heartbeat\n"
    "  zelvctl listen --count 1 door       waits for one event\n"
    "  zelvctl listen --host 192.0.2.7 --port 5512 --json door | jq .fields.state";

constexpr char kCheckFooter[] =
    "Writes each fault as FILE:LINE: MESSAGE, and warns of settings that the daemon ignores and, where luacheck\n"
    "is installed, of globals that nothing defines. Compiles the scripts in the daemon's order and runs none.\n"
    "Ends with status 0 when there is no fault, with 1 when there is.\n"
    "\nExamples:\n"
    "  zelvctl check                       the scripts of the configuration\n"
    "  zelvctl check ./scripts             all scripts of a folder";

constexpr char kReloadFooter[] =
    "Checks the scripts first, as zelvctl check does; with a fault the daemon hears nothing. Warnings are said\n"
    "and stop nothing, unless with --strict.\n"
    "Ends with status 0 when the daemon has reloaded, with 1 when it has not, has ended over it,\n"
    "or takes longer than 60 s.\n"
    "--root and the exit statuses: see zelvctl --help.";

constexpr char kRunFooter[] =
    "Stays in the foreground until the daemon ends. SIGHUP, SIGINT and SIGTERM are passed on; a daemon that\n"
    "has not ended 30 s after one of the last two is killed.\n"
    "Ends with status 0 when the daemon ended because it was told to, with 1 when it ended otherwise.\n"
    "\nExamples:\n"
    "  zelvctl run\n"
    "  zelvctl run -- -p /run/zelvind.pid";

// CLI11 takes an argument "[a,b]" for a list of two and "++" for the end of a subcommand; here they are values like any
// others. Such arguments go through it with a mark in front.
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

std::vector<std::string> values_of(const CLI::Option* option) {
  std::vector<std::string> values = option->results();
  for (std::string& value : values) {
    if (!value.empty() && value.front() == kMark) value.erase(0, 1);
  }
  return values;
}

// The number of arguments behind the first "--".
size_t behind_dashes(int argc, char** argv) {
  const auto is_dashes = [](const char* argument) { return std::string_view(argument) == "--"; };
  const auto found = std::find_if(argv + 1, argv + argc, is_dashes);
  return found == argv + argc ? 0 : static_cast<size_t>(argv + argc - found - 1);
}

// DEVICE_ROOT, which the configuration store reads by itself, after --root has had its say.
std::string device_root(const CLI::Option* option) {
  if (!option->empty()) setenv("DEVICE_ROOT", values_of(option).front().c_str(), 1);
  const char* root = getenv("DEVICE_ROOT");
  if (root == nullptr || *root == '\0') return "";
  if (*root != '/') {
    throw Failure(Exit::usage, std::string(option->empty() ? "DEVICE_ROOT" : "--root") + " is '" + root +
                                   "'; it must be an absolute path");
  }
  return root;
}

class CommandLine {
 public:
  CommandLine() {
    app.require_subcommand(0, 1);  // none is complained about below, behind anything unknown
    app.set_version_flag("--version", "zelvctl " ZELVIND_VERSION, "Print the version");
    app.set_help_flag("--help", "Print this help");
    app.footer(kFooter);
    root = app.add_option("--root")->type_name("DIR")->description(
        "Look for the daemon below DIR, instead of DEVICE_ROOT");
    add_post();
    add_listen();
    add_check();
    add_reload();
    add_run();
    for (CLI::App* command : {post, listen, check, reload, supervised}) command->fallthrough();
  }

  Exit run(int argc, char** argv) {
    try {
      app.parse(marked(argc, argv));
    } catch (const CLI::ParseError& error) {
      return leave(error);
    }
    const std::string root_path = device_root(root);
    if (post->parsed()) {
      run_post(root_path + kEventSocketPath);
    } else if (listen->parsed()) {
      run_listen();
    } else if (check->parsed()) {
      ::check(root_path, values_of(dirs), strict, stdout);
    } else if (reload->parsed()) {
      run_reload(root_path);
    } else if (supervised->parsed()) {
      if (daemon_arguments->count() > behind_dashes(argc, argv)) {
        throw Failure(Exit::usage, "run: the daemon's arguments stand behind --, as in: zelvctl run -- -p FILE");
      }
      supervise(installed_daemon_folder() + "/zelvind", values_of(daemon_arguments));
    } else {
      throw Failure(Exit::usage, "say post, listen, check, reload or run\nTry: zelvctl --help");
    }
    return Exit::done;
  }

 private:
  void add_post() {
    post = app.add_subcommand("post", "Post one event, or with - for TYPE the events of standard input");
    type = post->add_option("TYPE")->required()->description("Type code, a whole number of 32 bits; or -");
    name = post->add_option("NAME")->description("Name of the event, at most 127 bytes without blanks");
    fields = post->add_option("FIELD=VALUE")->expected(0, -1)->allow_extra_args();
    fields->description("Fields of the event");
    post->add_flag("--quit", quit_allowed, "Allow type 9999, which ends the daemon's event loop");
    post->footer(kPostFooter);
  }

  void add_listen() {
    listen = app.add_subcommand("listen", "Subscribe to events and print them as they come");
    host = listen->add_option("--host")->type_name("HOST")->description("Where the daemon runs (default 127.0.0.1)");
    listen->add_option("--port", request.port, "Its port (default: from the configuration, else 5512)")
        ->type_name("PORT")
        ->check(CLI::Range(1, 65535).description(""));
    listen->add_flag("--json", request.json, "One JSON object a line");
    listen->add_option("--count", request.count, "End after N events")
        ->type_name("N")
        ->check(CLI::Range(1L, LONG_MAX).description(""));
    names = listen->add_option("NAME")->required()->expected(1, -1)->allow_extra_args();
    names->description("Names of events; each must be matched exactly");
    listen->footer(kListenFooter);
  }

  void add_check() {
    check = app.add_subcommand("check", "Compile the daemon's scripts and report their faults");
    dirs = check->add_option("DIR")->expected(0, -1)->allow_extra_args();
    dirs->description("Folders or files to check instead of those of the configuration");
    check->add_flag("--strict", strict, "Let warnings count as faults");
    check->footer(kCheckFooter);
  }

  void add_reload() {
    reload = app.add_subcommand("reload", "Have the daemon load its scripts again, if they are free of faults");
    pid_file = reload->add_option("--pidfile")->type_name("FILE");
    pid_file->description("The daemon's pid file (default: the daemon that has the event socket)");
    reload->add_flag("--watch", watch, "Do so whenever a script file changes");
    reload->add_flag("--strict", strict, "Let warnings count as faults: then it does not reload");
    reload->footer(kReloadFooter);
  }

  void add_run() {
    supervised = app.add_subcommand("run", "Start the daemon and stay in the foreground as long as it runs");
    daemon_arguments = supervised->add_option("ARGUMENT")->expected(1, -1)->allow_extra_args();
    daemon_arguments->description("Arguments of the daemon; put -- in front of them");
    supervised->footer(kRunFooter);
  }

  void run_listen() {
    request.names = values_of(names);
    if (!host->empty()) request.host = values_of(host).front();
    ::listen(request, stdout);
  }

  void run_reload(const std::string& root_path) {
    const ReloadRequest what{root_path, pid_file->empty() ? "" : values_of(pid_file).front(), strict};
    if (watch) {
      reload_at_changes(what, stdout);
    } else {
      ::reload(what, stdout);
    }
  }

  void run_post(const std::string& socket_path) {
    const std::string type_text = values_of(type).front();
    if (type_text == "-") {
      if (!name->empty()) throw Failure(Exit::usage, "post -: the events come from standard input, not as arguments");
      EventConnection connection(socket_path);
      post_lines(STDIN_FILENO, quit_allowed, connection);
      return;
    }
    if (name->empty()) throw Failure(Exit::usage, "NAME is required");
    const std::string line = event_line(type_text, values_of(name).front(), values_of(fields), quit_allowed);
    EventConnection connection(socket_path);
    connection.send(line);
    connection.finish(quit_allowed);
  }

  Exit leave(const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {  // --help, --version
      app.exit(error);
      return Exit::done;
    }
    const std::vector<CLI::App*> commands = app.get_subcommands();
    const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
    throw Failure(Exit::usage, std::string(error.what()) + "\nTry: zelvctl" + command + " --help");
  }

  CLI::App app{"Post events to zelvind, listen to the events that it forwards, and look after the daemon itself.",
               "zelvctl"};
  CLI::Option* root = nullptr;

  CLI::App* post = nullptr;
  CLI::Option* type = nullptr;
  CLI::Option* name = nullptr;
  CLI::Option* fields = nullptr;
  bool quit_allowed = false;

  CLI::App* listen = nullptr;
  CLI::Option* host = nullptr;
  CLI::Option* names = nullptr;
  ListenRequest request;

  CLI::App* check = nullptr;
  CLI::Option* dirs = nullptr;

  bool strict = false;  // of check and reload

  CLI::App* reload = nullptr;
  CLI::Option* pid_file = nullptr;
  bool watch = false;

  CLI::App* supervised = nullptr;
  CLI::Option* daemon_arguments = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // a reader of ours that goes away is an error like any other
  Exit status = Exit::unreachable;
  try {
    CommandLine command_line;
    status = command_line.run(argc, argv);
  } catch (const Failure& failure) {
    fprintf(stderr, "zelvctl: %s\n", failure.what());
    status = failure.status;
  } catch (const std::exception& error) {
    fprintf(stderr, "zelvctl: %s\n", error.what());
  }
  return static_cast<int>(status);
}
