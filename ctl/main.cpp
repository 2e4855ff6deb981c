// zelvctl: posts events to a running zelvind, listens to the events that it forwards, and looks after the daemon
// itself. The table of its commands; each does its work in the files that have its name.
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "ctl/check/check.h"
#include "ctl/command_line.h"
#include "ctl/completion.h"
#include "ctl/inspect/inspect.h"
#include "ctl/inspect/uplink.h"
#include "ctl/listen.h"
#include "ctl/live/tail.h"
#include "ctl/live/top.h"
#include "ctl/metrics.h"
#include "ctl/post.h"
#include "ctl/reload.h"
#include "ctl/run.h"
#include "ctl/running_daemon.h"
#include "device/event_source.h"

namespace {

void run_post(const Given& given) {
  const std::string type = given.value("TYPE");
  const std::string socket = given.root + kEventSocketPath;
  const bool quit_allowed = given.has("--quit");
  if (type == "-") {
    if (given.has("NAME")) throw Failure(Exit::usage, "post -: events come from standard input, not as arguments");
    EventConnection connection(socket);
    fail_if_ended(given.root, connection.daemon());
    return post_lines(STDIN_FILENO, quit_allowed, connection);
  }
  if (!given.has("NAME")) throw Failure(Exit::usage, "NAME is required");
  const std::string line = line_of_event(type, given.value("NAME"), given.values("FIELD=VALUE"), quit_allowed);
  EventConnection connection(socket);
  fail_if_ended(given.root, connection.daemon());
  connection.send(line);
  connection.finish(quit_allowed);
}

void run_listen(const Given& given) {
  ListenRequest request;
  request.root = given.root;
  request.host = given.value("--host");
  request.port = static_cast<int>(given.number("--port", 0));
  request.socket = given.value("--socket");
  if (given.has("--socket") && (given.has("--host") || given.has("--port"))) {
    throw Failure(Exit::usage, "--socket takes the place of --host and --port: leave them out");
  }
  if (given.has("--socket") && request.socket.empty()) {
    throw Failure(Exit::usage, "--socket is '': expected the path of a Unix socket");
  }
  if (given.has("--socket") && request.socket.front() != '/') {
    std::error_code error;
    const std::filesystem::path path = std::filesystem::absolute(request.socket, error);
    if (error) throw Failure(Exit::usage, "--socket is '" + request.socket + "': expected an absolute path");
    request.socket = path;
  }
  request.json = given.has("--json");
  request.count = given.number("--count", 0);
  request.reconnect = given.has("--reconnect");
  request.names = given.values("NAME");
  if (request.names.empty() != given.has("--all")) throw Failure(Exit::usage, "expected names of events, or --all");
  print_events(request, stdout);
}

void run_tail(const Given& given) {
  TailRequest request;
  request.follow = {given.root, given.values("NAME"), given.value("--from"), true};
  request.where = given.values("--where");
  request.slow_us = static_cast<uint64_t>(given.number("--slow", 0)) * 1000;
  request.errors = given.has("--errors");
  request.json = given.has("--json");
  print_tail(request, stdout);
}

void run_top(const Given& given) {
  show_top(given.root, given.has("--once"), stdout);
}

void run_check(const Given& given) {
  const CheckRequest request{given.root, given.values("DIR"), given.value("--user"), given.has("--strict")};
  check_scripts(request, stdout);
}

void run_reload(const Given& given) {
  const ReloadRequest request{given.root, given.value("--pidfile"), given.has("--strict"), given.has("--no-trial")};
  if (given.has("--watch")) return reload_at_changes(request, stdout);
  reload_scripts(request, stdout);
}

void run_status(const Given& given) {
  print_status(given.root, given.has("--json"), stdout);
}

void run_scripts(const Given& given) {
  print_scripts(given.root, given.has("--json"), stdout);
}

void run_uplink(const Given& given) {
  print_uplink(given.root, given.has("--json"), stdout);
}

void run_log_level(const Given& given) {
  print_log_level(given.root, given.has("N") ? std::optional(given.number("N", 0)) : std::nullopt, stdout);
}

void run_metrics(const Given& given) {
  const std::string file = given.value("--textfile");
  if (file.empty() && given.has("--textfile")) throw Failure(Exit::usage, "--textfile '': expected a file's path");
  print_metrics(given.root, file, stdout);
}

void run_run(const Given& given) {
  const std::vector<std::string> arguments = given.values("ARGUMENT");
  if (arguments.size() > given.behind_dashes) {
    throw Failure(Exit::usage, "run: put the daemon's arguments behind --, as in: zelvctl run -- -p FILE");
  }
  run_daemon({given.root, arguments, given.has("--force")});
}

using Takes = Parameter::Takes;

const std::vector<Command>& commands() {
  static const std::vector<Command> table = {
      {"post",
       "Post one event, or with - for TYPE the events of standard input",
       "With - for TYPE, standard input has an event a line, \"TYPE NAME INFO\"; INFO is FIELD=VALUE items joined\n"
       "by &. The first bad line ends the command.\n"
       "Ends with status 0 when the daemon has taken in all events, with 1 when it has shown no progress for 10 s;\n"
       "it may still handle them later, and posting them again may double them.\n"
       "--root and the exit statuses: see zelvctl --help.\n"
       "\nExamples:\n"
       "  zelvctl post 1 door state=open by=anna\n"
       "  zelvctl post - < events.txt\n"
       "  zelvctl post 9999 quit --quit       ends the daemon's event loop",
       {{"TYPE", Takes::needed, "Type code, a whole number of 32 bits; or -"},
        {"NAME", Takes::value, "Name of the event, at most 127 bytes without blanks"},
        {"FIELD=VALUE", Takes::values, "Fields of the event"},
        {"--quit", Takes::nothing, "Allow type 9999, which ends the daemon's event loop"}},
       run_post},
      {"listen",
       "Subscribe to events and print them as they come",
       "Prints SECONDS.MICROSECONDS NAME INFO, or with --json an object with \"time\", \"name\" and \"fields\".\n"
       "Names come from the listener, which leaves out events when we read too slowly and cannot say so; with --all\n"
       "or a pattern, standard error says how many are missing.\n"
       "--root and the exit statuses: see zelvctl --help.\n"
       "\nExamples:\n"
       "  zelvctl listen door heartbeat\n"
       "  zelvctl listen --count 1 door       waits for one event\n"
       "  zelvctl listen 'net.*'              all names that begin so, on this machine\n"
       "  zelvctl listen --socket /run/zelvind/listener.sock door\n"
       "  zelvctl listen --host 192.0.2.7 --port 5512 --json door | jq .fields.state",
       {{"--host", Takes::value, "Where the daemon runs (default: where this machine's daemon listens)", "HOST"},
        {"--port", Takes::number, "Its port (default: the running daemon's, else from the settings, else 5512)", "PORT",
         1, 65535},
        {"--socket", Takes::value, "A Unix socket at which the daemon listens, or one that is forwarded to it", "PATH"},
        {"--json", Takes::nothing, "Print one JSON object a line"},
        {"--count", Takes::number, "End after N events", "N", 1},
        {"--reconnect", Takes::nothing, "Wait for a daemon that is not there or goes away, and tell the gap"},
        {"--all", Takes::nothing, "All events of the daemon on this machine"},
        {"NAME", Takes::values, "Names of events; on this machine, * and ? stand for any letters"}},
       run_listen},
      {"tail",
       "Print the events that the daemon has handled, with what they cost",
       "Prints TIME ID NAME INFO and how long the event waited and its handlers ran. Waits for a daemon that goes "
       "away\n"
       "and goes on behind the last event; says on standard error what is missing.\n"
       "--root and the exit statuses: see zelvctl --help.\n"
       "\nExamples:\n"
       "  zelvctl tail\n"
       "  zelvctl tail 'net.*' --where state=down\n"
       "  zelvctl tail --slow 100             what takes 100 ms or longer\n"
       "  zelvctl tail --from 5f3a90c1-812    the events behind that one, as far as the daemon remembers them",
       {{"NAME", Takes::values, "Names of events; * and ? stand for any letters (default: all)"},
        {"--where", Takes::repeated, "Only events with that field; more than once: all of them", "FIELD=VALUE"},
        {"--slow", Takes::number, "Only events whose handlers took MS milliseconds or longer", "MS"},
        {"--errors", Takes::nothing, "Only events of which a handler has failed"},
        {"--from", Takes::value, "Begin behind the event with that ID", "ID"},
        {"--json", Takes::nothing, "Print one JSON object a line"}},
       run_tail},
      {"top",
       "Show what the daemon does right now, by event, by tag and by client",
       "Redrawn every second; rates and times are those of the last 10 s. Where no screen can be drawn on, prints "
       "plain\n"
       "text every 5 s. LOOP is the share of the event loop's time.\n"
       "--root and the exit statuses: see zelvctl --help.",
       {{"--once", Takes::nothing, "Print everything once, after a second, as plain text"}},
       run_top},
      {"check",
       "Compile the daemon's scripts and report their faults",
       "Prints each fault as FILE:LINE: MESSAGE, of the settings of the uplink too, where there are any. Warns of\n"
       "settings that the daemon ignores, of folders that are missing and, where luacheck is installed, of globals "
       "that nothing defines. Compiles the scripts in the\n"
       "daemon's order and runs none.\n"
       "Ends with status 0 when there is no fault, with 1 when there is.\n"
       "\nExamples:\n"
       "  zelvctl check                       the scripts that the settings name\n"
       "  zelvctl check ./scripts             all scripts of a folder",
       {{"DIR", Takes::values, "Folders or files to check instead of those that the settings name"},
        {"--strict", Takes::nothing, "Count warnings as faults"},
        {"--user", Takes::value, "Read the files with that user's rights; for root (default: the daemon's)", "USER"}},
       run_check},
      {"reload",
       "Have the daemon load its scripts again, if they have no faults",
       "Checks the scripts first, as zelvctl check does; with a fault, the daemon is not told. Warnings are printed\n"
       "and stop nothing, unless with --strict. Then the daemon tries the reload in a copy of itself: when a script\n"
       "fails or hangs there, its error is printed, and the daemon goes on with the scripts that it has.\n"
       "Ends with status 0 when the daemon has reloaded, with 1 when it has not, when the reload has ended it,\n"
       "or when it takes longer than 60 s.\n"
       "--root and the exit statuses: see zelvctl --help.",
       {{"--pidfile", Takes::value, "The daemon's pid file (default: the daemon that answers)", "FILE"},
        {"--no-trial", Takes::nothing, "Reload at once: a script that fails ends the daemon"},
        {"--watch", Takes::nothing, "Reload whenever a script file changes, one in lib/ included"},
        {"--strict", Takes::nothing, "Count warnings as faults"}},
       run_reload},
      {"run",
       "Start the daemon and stay in the foreground as long as it runs",
       "Stays in the foreground until the daemon ends. Passes on SIGHUP, SIGINT and SIGTERM; kills a daemon that\n"
       "has not ended 30 s after one of the last two. Refuses to start a second daemon for the same DEVICE_ROOT.\n"
       "When the daemon fails and its log is not on standard error, prints its last lines of level 1.\n"
       "Ends with status 0 when the daemon was told to end and did, with 1 when it ended otherwise.\n"
       "\nExamples:\n"
       "  zelvctl run\n"
       "  zelvctl run -- -p /run/zelvind.pid",
       {{"ARGUMENT", Takes::values, "Arguments of the daemon; put -- in front of them"},
        {"--force", Takes::nothing, "Start a daemon although one is already running"}},
       run_run},
      {"status",
       "Tell on one screen how the daemon is",
       "The first line says whether it takes events; lines that begin with ! say what deserves a look.\n"
       "Ends with status 0 when the daemon takes events, with 1 when it does not or when none answers.\n"
       "--root and the exit statuses: see zelvctl --help.",
       {{"--json", Takes::nothing, "Print one JSON object, with everything"}},
       run_status},
      {"scripts",
       "List the daemon's script files, handlers, timers and tasks",
       "The event loop itself tells them: while a script holds it, the command ends with 1 and names that script.",
       {{"--json", Takes::nothing, "Print one JSON object, with everything"}},
       run_scripts},
      {"metrics",
       "Write what the daemon counts in the text format of Prometheus",
       "docs/metrics.md lists the metrics. Where no daemon answers, writes zelvind_up 0, and ends with status 1.\n"
       "\nExamples:\n"
       "  zelvctl metrics\n"
       "  zelvctl metrics --textfile /var/lib/prometheus/node-exporter/zelvind.prom",
       {{"--textfile", Takes::value,
         "Replace FILE, a regular one, as a whole; for the textfile collector of node_exporter", "FILE"}},
       run_metrics},
      {"uplink",
       "Tell how the connection to the broker is",
       "The first line says whether events reach the broker; lines that begin with ! say what deserves a look.\n"
       "Ends with status 0 when they do, with 1 when they do not or when no uplink answers.\n"
       "--root and the exit statuses: see zelvctl --help.",
       {{"--json", Takes::nothing, "Print one JSON object, with everything"}},
       run_uplink},
      {"log-level",
       "Print the daemon's log level, or set it until its next start",
       "0 is silent, 1 errors, 2 progress, 3 each event, 4 each packet; scripts may use levels up to 99.",
       {{"N", Takes::number, "The new level", nullptr, 0, 99}},
       run_log_level},
  };
  return table;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);                            // a reader of ours that goes away is an error like any other
  if (argc > 1 && strcmp(argv[1], "complete") == 0) {  // asked by a shell; no command for people
    print_completions(commands(), {argv + 2, argv + argc}, stdout);
    return 0;
  }
  Exit status = Exit::unreachable;
  try {
    run_command_line(commands(), argc, argv);
    status = Exit::done;
  } catch (const Failure& failure) {
    if (*failure.what() != '\0') fprintf(stderr, "zelvctl: %s\n", failure.what());  // else it is said already
    status = failure.status;
  } catch (const std::exception& error) {
    fprintf(stderr, "zelvctl: %s\n", error.what());
  }
  return static_cast<int>(status);
}
