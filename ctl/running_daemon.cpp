#include "ctl/running_daemon.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <memory>
#include <sstream>

#include "ctl/control_client.h"
#include "ctl/failure.h"
#include "device/event_source.h"
#include "device/service.h"
#include "util/control_paths.h"
#include "util/descriptor.h"
#include "util/exe_dir.h"
#include "util/text.h"

namespace {

constexpr char kProgram[] = "zelvind";
constexpr const char* kLockPaths[] = {kEventLockPath, kControlLockPath};  // a device's own libraries have no event lock

// The beginning of a short file; of a FIFO that others have put there, nothing, without a wait.
std::istringstream read_words(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  char text[128];
  const ssize_t size = file.get() < 0 ? 0 : read(file.get(), text, sizeof(text));
  return std::istringstream(std::string(text, static_cast<size_t>(std::max<ssize_t>(size, 0))));
}

// The process id at the beginning of a file; 0 when there is none.
pid_t read_pid(const std::string& path) {
  std::istringstream file = read_words(path);
  pid_t pid = 0;
  return file >> pid && pid > 0 ? pid : 0;
}

// The system has hidden a process whose id is in `path`: fails if that may be the daemon.
void fail_if_hidden(pid_t pid, const std::string& path) {
  const auto entry = process_entry(pid);
  if (!entry || entry->has_ended() || entry->name != kProgram) return;
  fail(sstr("failed to look at process %d, named in %s: %s; this needs its user, or root with CAP_SYS_PTRACE", pid,
            path.c_str(), error_text(EACCES).c_str()));
}

// Whether process `pid` has `path` open; nothing when the system does not tell.
std::optional<bool> has_open(pid_t pid, const std::string& path) {
  struct stat wanted {};
  if (stat(path.c_str(), &wanted) != 0) return false;
  const std::string folder = proc_path(pid, "fd");
  const std::unique_ptr<DIR, int (*)(DIR*)> descriptors(opendir(folder.c_str()), closedir);
  bool is_hidden = descriptors == nullptr && errno == EACCES;
  while (const dirent* entry = descriptors == nullptr ? nullptr : readdir(descriptors.get())) {
    struct stat status {};
    const bool known = stat((folder + "/" + entry->d_name).c_str(), &status) == 0;
    if (known && status.st_dev == wanted.st_dev && status.st_ino == wanted.st_ino) return true;
    is_hidden |= !known && errno == EACCES;
  }
  return is_hidden ? std::nullopt : std::optional(false);
}

// True for "zelvind (deleted)" too.
bool is_daemon(const std::string& exe) {
  return exe.compare(exe.rfind('/') + 1, sizeof(kProgram) - 1, kProgram) == 0;
}

}  // namespace

std::optional<RunningDaemon> RunningDaemon::find(const std::string& root) {
  for (const char* const path : kLockPaths) {
    const std::string lock = root + path;
    const pid_t pid = read_pid(lock);
    const auto is_open = pid == 0 ? false : has_open(pid, lock);
    if (!is_open) fail_if_hidden(pid, lock);
    if (is_open.value_or(false)) return RunningDaemon(pid, root, "");
  }
  return std::nullopt;
}

RunningDaemon RunningDaemon::answering(const std::string& root) {
  const auto stats = ControlClient(root).ask("stats");
  const AnswerLine& line = line_of(stats, "daemon");
  const auto pid = static_cast<pid_t>(line.count("pid"));
  if (pid <= 0) fail("the daemon does not tell its process id");
  return {pid, root, line.text("exe")};
}

void RunningDaemon::fail_if_locks_hidden(const std::string& root) {
  for (const char* const path : kLockPaths) {
    const std::string lock = root + path;
    if (access(lock.c_str(), R_OK) != 0 && errno == EACCES) fail("failed to read " + lock + ": " + error_text(EACCES));
  }
}

RunningDaemon RunningDaemon::from_pid_file(const std::string& pid_file, const std::string& root) {
  const pid_t pid = read_pid(pid_file);
  if (pid == 0) fail("there is no process id in " + pid_file);
  if (const std::string exe = exe_of(pid); !is_daemon(exe)) {
    if (exe.empty()) fail_if_hidden(pid, pid_file);
    fail(sstr("process %d of %s is not a running %s", pid, pid_file.c_str(), kProgram));
  }
  const auto theirs = environment_of(pid, "DEVICE_ROOT");
  std::error_code ignored;
  if (theirs && *theirs != root && !std::filesystem::equivalent(*theirs + "/", root + "/", ignored)) {
    fail(daemon_text(pid) + " of " + pid_file + " runs with DEVICE_ROOT '" + *theirs + "', not '" + root +
         "'; see --root");
  }
  return {pid, root, ""};
}

std::string RunningDaemon::folder() const {
  const std::string exe = exe_of(pid);
  if (!exe.empty()) return exe_dir_of(exe);
  return told_exe.empty() ? installed_daemon_folder() : exe_dir_of(told_exe);
}

std::optional<DaemonState> RunningDaemon::state() const {
  const auto state = reported_state(root, pid);
  return state && is_alive() ? state : std::nullopt;
}

bool RunningDaemon::is_older_than(const std::string& file) const {
  constexpr double kTick = 0.02;  // s; a file written just before the start must not count as newer
  struct stat status {};
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const double start = start_of(pid);
  if (start == 0 || stat(file.c_str(), &status) != 0) return false;
  const double changed = seconds_of(status.st_ctim);
  return changed > start + kTick && changed <= seconds_of(now);
}

bool RunningDaemon::is_alive() const {
  for (const char* const lock : kLockPaths) {
    if (has_open(pid, root + lock).value_or(false)) return true;
  }
  if (const std::string exe = exe_of(pid); !exe.empty()) return is_daemon(exe);
  const auto entry = process_entry(pid);  // what other users may see
  if (entry) return !entry->has_ended() && entry->name == kProgram;
  return kill(pid, 0) != 0 && errno == EPERM;
}

void RunningDaemon::send_signal(int number) const {
  if (kill(pid, number) != 0) fail("failed to signal process " + std::to_string(pid) + ": " + error_text(errno));
}

std::optional<DaemonState> reported_state(const std::string& root, pid_t pid) {
  std::istringstream file = read_words(root + kServiceStatePath);
  pid_t owner = 0;
  DaemonState state;
  if (file >> owner >> state.name >> state.reloads && owner == pid) return state;
  return std::nullopt;
}

void fail_if_ended(const std::string& root, pid_t pid) {
  const auto state = reported_state(root, pid);
  if (!state || state->name != "ended") return;
  fail("the event loop of " + daemon_text(pid) + " has ended with the quit event: restart the daemon");
}

std::string installed_daemon_folder() {
  const auto installed = std::filesystem::path(exe_dir() + "/../libexec/zelvind").lexically_normal();
  return access((installed / kProgram).c_str(), X_OK) == 0 ? installed.string() : exe_dir();
}
