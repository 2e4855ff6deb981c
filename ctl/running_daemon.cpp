#include "ctl/running_daemon.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>

#include "util/exe_dir.h"
#include "ctl/failure.h"
#include "ctl/process_entry.h"
#include "device/event_source.h"
#include "device/service.h"
#include "util/text.h"

namespace {

constexpr char kProgram[] = "zelvind";

// The process id at the beginning of a file; 0 when there is none.
pid_t read_pid(const std::string& path) {
  std::ifstream file(path);
  pid_t pid = 0;
  return file >> pid && pid > 0 ? pid : 0;
}

std::string proc_path(pid_t pid, const char* entry) {
  return "/proc/" + std::to_string(pid) + "/" + entry;
}

// After the system has not let us look at a process whose id is in `path`: fails if it may be the daemon.
void fail_if_hidden(pid_t pid, const std::string& path) {
  const auto entry = process_entry(pid);
  if (!entry || entry->has_ended() || entry->name != kProgram) return;
  fail(sstr("cannot look at process %d, whose id is in %s: %s; this needs its user, or root with CAP_SYS_PTRACE", pid,
            path.c_str(), error_text(EACCES).c_str()));
}

// Fails when the system does not let us look.
bool has_open(pid_t pid, const std::string& path) {
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
  if (is_hidden) fail_if_hidden(pid, path);
  return false;
}

std::string exe_of(pid_t pid) {
  char target[4096];
  const ssize_t length = readlink(proc_path(pid, "exe").c_str(), target, sizeof(target));
  return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

// Also when its file has been replaced meanwhile: then the system says "zelvind (deleted)".
bool is_daemon(const std::string& exe) {
  return exe.compare(exe.rfind('/') + 1, sizeof(kProgram) - 1, kProgram) == 0;
}

// DEVICE_ROOT of a process, empty when it has none; nothing when the system does not tell.
std::optional<std::string> root_of(pid_t pid) {
  std::ifstream environment(proc_path(pid, "environ"));
  if (environment.peek() == EOF) return std::nullopt;
  const std::string key = "DEVICE_ROOT=";
  for (std::string item; std::getline(environment, item, '\0');) {
    if (item.compare(0, key.size(), key) == 0) return item.substr(key.size());
  }
  return "";
}

double seconds_of(const timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// When a process began, by today's clock, which may have been set since; 0 when the system does not tell.
double start_of(pid_t pid) {
  const auto entry = process_entry(pid);
  if (!entry) return 0;
  timespec today{};
  timespec since_boot{};
  clock_gettime(CLOCK_REALTIME, &today);
  clock_gettime(CLOCK_BOOTTIME, &since_boot);
  return seconds_of(today) - seconds_of(since_boot) +
         static_cast<double>(entry->start_ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace

std::optional<RunningDaemon> RunningDaemon::find(const std::string& root) {
  const std::string lock = root + kEventLockPath;
  const pid_t pid = read_pid(lock);
  if (pid == 0 || !has_open(pid, lock)) return std::nullopt;
  return RunningDaemon(pid, root);
}

RunningDaemon RunningDaemon::from_pid_file(const std::string& pid_file, const std::string& root) {
  const pid_t pid = read_pid(pid_file);
  if (pid == 0) fail("no process id in " + pid_file);
  if (const std::string exe = exe_of(pid); !is_daemon(exe)) {
    if (exe.empty()) fail_if_hidden(pid, pid_file);
    fail("process " + std::to_string(pid) + " of " + pid_file + " is no running " + kProgram);
  }
  const auto theirs = root_of(pid);
  std::error_code ignored;
  if (theirs && *theirs != root && !std::filesystem::equivalent(*theirs + "/", root + "/", ignored)) {
    fail("the daemon (process " + std::to_string(pid) + ") of " + pid_file + " runs with DEVICE_ROOT '" + *theirs +
         "', and this is for '" + root + "'; see --root");
  }
  return RunningDaemon(pid, root);
}

std::string RunningDaemon::folder() const {
  const std::string exe = exe_of(pid);
  return exe.empty() ? installed_daemon_folder() : exe_dir_of(exe);
}

std::optional<DaemonState> RunningDaemon::state() const {
  std::ifstream file(root + kServiceStatePath);
  pid_t owner = 0;
  DaemonState state;
  if (file >> owner >> state.name >> state.reloads && owner == pid && is_alive()) return state;
  return std::nullopt;
}

bool RunningDaemon::is_older_than(const std::string& file) const {
  constexpr double kTick = 0.02;  // s; what is written just before the start must not pass for newer
  struct stat status {};
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const double start = start_of(pid);
  if (start == 0 || stat(file.c_str(), &status) != 0) return false;
  const double changed = seconds_of(status.st_ctim);
  return changed > start + kTick && changed <= seconds_of(now);
}

bool RunningDaemon::is_alive() const {
  return has_open(pid, root + kEventLockPath) || is_daemon(exe_of(pid));
}

void RunningDaemon::send_signal(int number) const {
  if (kill(pid, number) != 0) fail("cannot signal process " + std::to_string(pid) + ": " + error_text(errno));
}

std::string installed_daemon_folder() {
  const std::string installed = exe_dir() + "/../libexec/zelvind";
  return access((installed + "/" + kProgram).c_str(), X_OK) == 0 ? installed : exe_dir();
}
