#include "ctl/reload.h"

#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "ctl/check/check.h"
#include "ctl/daemon_rights.h"
#include "ctl/failure.h"
#include "ctl/running_daemon.h"
#include "ctl/script_watch.h"
#include "device/event_source.h"
#include "device/settings.h"

namespace {

constexpr std::chrono::milliseconds kPoll{20};
constexpr std::chrono::seconds kReloadLimit{60};
constexpr int kAliveCheckMs = 1000;

RunningDaemon daemon_of(const ReloadRequest& request) {
  if (!request.pid_file.empty()) return RunningDaemon::from_pid_file(request.pid_file, request.root);
  const auto daemon = RunningDaemon::find(request.root);
  if (daemon) return *daemon;
  const std::string lock = request.root + kEventLockPath;
  if (access(lock.c_str(), F_OK) == 0 && access(lock.c_str(), R_OK) != 0) {
    fail("failed to read " + lock + ": " + error_text(errno));
  }
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

// A reload in progress may have read the scripts before they were changed: then the next one counts.
long long reloads_wanted(const DaemonState& before) {
  return before.reloads + (before.name == "reloading" ? 2 : 1);
}

[[noreturn]] void fail_without_state(const RunningDaemon& daemon) {
  fail(daemon.text() + " was told to reload, but keeps no state that tells how that ends; see its log");
}

void wait_for_reload(const RunningDaemon& daemon, long long wanted) {
  const auto limit = std::chrono::steady_clock::now() + kReloadLimit;
  while (std::chrono::steady_clock::now() < limit) {
    const auto now = daemon.state();
    if (now && now->reloads >= wanted) return;
    if (!now && daemon.is_alive()) fail_without_state(daemon);
    if (!now) fail(daemon.text() + " has ended during the reload; its log says why");
    std::this_thread::sleep_for(kPoll);
  }
  fail(daemon.text() + " has not finished the reload within " + std::to_string(kReloadLimit.count()) +
       " s and goes on: a script is busy");
}

void reload_checked(const RunningDaemon& daemon, FILE* out) {
  const auto before = daemon.state();
  if (before && before->name == "stopping") fail(daemon.text() + " is stopping");
  daemon.send_signal(SIGHUP);
  if (!before) fail_without_state(daemon);
  wait_for_reload(daemon, reloads_wanted(*before));
  fprintf(out, "%s has reloaded its scripts\n", daemon.text().c_str());
  fflush(out);
}

}  // namespace

void reload_scripts(const ReloadRequest& request, FILE* out) {
  const RunningDaemon daemon = daemon_of(request);
  check_first(daemon, request, out);
  reload_checked(daemon, out);
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
      reload_checked(daemon, out);
    } catch (const Failure& failure) {
      if (!daemon.is_alive()) throw;
      fprintf(out, "%s\n", failure.what());
      fflush(out);
    }
  }
}
