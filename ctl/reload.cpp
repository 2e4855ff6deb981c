#include "ctl/reload.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <sstream>
#include <thread>

#include "ctl/check/check.h"
#include "ctl/control_client.h"
#include "ctl/daemon_rights.h"
#include "ctl/failure.h"
#include "ctl/inspect/diagnosis.h"
#include "ctl/process.h"
#include "ctl/running_daemon.h"
#include "ctl/script_watch.h"
#include "device/event_source.h"
#include "device/service.h"
#include "device/settings.h"
#include "util/control_paths.h"
#include "util/safe_text.h"

namespace {

constexpr std::chrono::milliseconds kPoll{20};
constexpr std::chrono::seconds kReloadLimit{60};
constexpr std::chrono::milliseconds kEndLimit{2000};
constexpr int kAliveCheckMs = 1000;
constexpr int kPatienceMs = 2000;  // then we say what holds the reload up

// Why the daemon cannot be asked for a tried reload; empty when it can.
std::string no_trial_reason(const ReloadRequest& request) {
  if (!request.pid_file.empty()) return "--pidfile was given";
  const std::string socket = request.root + kControlSocketPath;
  return access(socket.c_str(), F_OK) != 0 && errno == ENOENT ? "there is no " + socket : "";
}

RunningDaemon daemon_of(const ReloadRequest& request) {
  if (!request.pid_file.empty()) return RunningDaemon::from_pid_file(request.pid_file, request.root);
  if (no_trial_reason(request).empty()) return RunningDaemon::answering(request.root);
  if (const auto daemon = RunningDaemon::find(request.root)) return *daemon;
  RunningDaemon::fail_if_locks_hidden(request.root);
  fail("no daemon owns the event socket " + request.root + kEventSocketPath);
}

void check_first(const RunningDaemon& daemon, const ReloadRequest& request, FILE* out) {
  fail_if_ended(request.root, daemon.process());
  const std::string folder = daemon.folder();
  const std::string settings = request.root + kSettingsPath;
  Findings findings(out, request.strict);
  if (daemon.is_older_than(settings)) {
    findings.fault(settings + ": changed since the daemon started, which read it only then: restart the daemon");
  }
  {
    const DaemonRights rights(daemon.process());
    check_configured(configured_folders(request.root, folder), findings);
  }
  if (!findings.passed()) fail("not reloaded: " + findings.counts());
}

[[noreturn]] void fail_late(const RunningDaemon& daemon) {
  fail(daemon.text() + " has not finished the reload within " + std::to_string(kReloadLimit.count()) +
       " s and goes on: a script is busy");
}

[[noreturn]] void fail_ended(const RunningDaemon& daemon) {
  fail(daemon.text() + " has ended during the reload; its log says why");
}

[[noreturn]] void fail_without_state(const RunningDaemon& daemon) {
  fail(daemon.text() + " was told to reload, but keeps no state that tells how that ends; see its log");
}

// A message with a traceback: the lines stay, whatever they hold.
std::string safe_lines(const std::string& text) {
  std::istringstream lines(text);
  std::string safe;
  for (std::string line; std::getline(lines, line);) {
    const bool is_indented = line[0] == '\t';
    safe +=
        (safe.empty() ? "" : "\n") + std::string(is_indented ? "  " : "") + escaped(line.substr(is_indented ? 1 : 0));
  }
  return safe;
}

// Throws when the daemon goes away.
AnswerLine verdict_of(const RunningDaemon& daemon, const ReloadRequest& request) {
  ControlClient client(request.root);
  client.send(request.no_trial ? "reload no-trial" : "reload");
  AnswerLine verdict;
  const auto limit = std::chrono::milliseconds(kReloadLimit).count();
  auto got = client.next(verdict, kPatienceMs);
  if (got == ControlClient::Got::nothing) {
    const std::string trouble = trouble_told(request.root);
    if (!trouble.empty()) fprintf(stderr, "zelvctl: waiting: %s\n", trouble.c_str());
    got = client.next(verdict, static_cast<int>(limit) - kPatienceMs);
  }
  if (got != ControlClient::Got::line) fail_late(daemon);
  return verdict;
}

void reload_asked(const RunningDaemon& daemon, const ReloadRequest& request) {
  AnswerLine verdict;
  try {
    verdict = verdict_of(daemon, request);
  } catch (const Refused&) {
    throw;
  } catch (const Failure&) {  // a daemon that ends closes the connection first
    for (auto left = kEndLimit; daemon.is_alive() && left.count() > 0; left -= kPoll)
      std::this_thread::sleep_for(kPoll);
    if (!daemon.is_alive()) fail_ended(daemon);
    throw;
  }
  if (verdict.text("result") != "done") fail("not reloaded: " + safe_lines(verdict.text("text")));
}

// When the state was last written, in s since the epoch; 0: never.
double state_time(const ReloadRequest& request) {
  struct stat status {};
  return stat((request.root + kServiceStatePath).c_str(), &status) == 0 ? seconds_of(status.st_mtim) : 0;
}

// Sends SIGHUP, and waits until a reload is done that began after that. One in progress may have read the scripts
// before they were changed: then the next one counts.
void reload_signalled(const RunningDaemon& daemon, const ReloadRequest& request) {
  const double written = state_time(request);
  const auto before = daemon.state();
  daemon.send_signal(SIGHUP);
  if (!before) fail_without_state(daemon);
  const bool was_reloading = before->name == "reloading";
  const long long wanted = before->reloads + (was_reloading ? 2 : 1);
  const auto limit = std::chrono::steady_clock::now() + kReloadLimit;
  while (std::chrono::steady_clock::now() < limit) {
    const auto now = daemon.state();
    if (now && now->reloads >= wanted) return;
    if (now && now->name == "ready" && !was_reloading && state_time(request) != written) {
      fail(daemon.text() + " has not reloaded: the trial has failed; its log says why");
    }
    if (!now && daemon.is_alive()) fail_without_state(daemon);
    if (!now) fail_ended(daemon);
    std::this_thread::sleep_for(kPoll);
  }
  fail_late(daemon);
}

void reload_checked(const RunningDaemon& daemon, const ReloadRequest& request, FILE* out) {
  const auto state = daemon.state();
  if (state && state->name == "stopping") fail(daemon.text() + " is stopping");
  const std::string reason = no_trial_reason(request);
  if (reason.empty()) {
    reload_asked(daemon, request);
  } else {
    if (!request.no_trial) fprintf(out, "the reload is not tried first: %s\n", reason.c_str());
    reload_signalled(daemon, request);
  }
  fprintf(out, "%s has reloaded its scripts\n", daemon.text().c_str());
  fflush(out);
}

}  // namespace

void reload_scripts(const ReloadRequest& request, FILE* out) {
  const RunningDaemon daemon = daemon_of(request);
  check_first(daemon, request, out);
  reload_checked(daemon, request, out);
}

void reload_at_changes(const ReloadRequest& request, FILE* out) {
  const RunningDaemon daemon = daemon_of(request);
  const ScriptFolders folders = configured_folders(request.root, daemon.folder());
  ScriptWatch watch({folders.script, folders.external});
  fprintf(out, "watching %s for %s\n", watch.text().c_str(), daemon.text().c_str());
  fflush(out);
  for (;;) {
    while (!watch.wait_for_change(kAliveCheckMs)) {
      if (!daemon.is_alive()) fail(daemon.text() + " has gone");
    }
    try {
      check_first(daemon, request, out);
      reload_checked(daemon, request, out);
    } catch (const Failure& failure) {
      if (!daemon.is_alive()) throw;
      fprintf(out, "%s\n", failure.what());
      fflush(out);
    }
  }
}
