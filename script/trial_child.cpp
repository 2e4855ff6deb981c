#include "script/trial_child.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <vector>

#include "device/log.h"
#include "script/manager_script.h"
#include "script/trial_guards.h"
#include "util/quiet_write.h"
#include "util/text.h"

namespace {

constexpr rlim_t kMoreMemoryMost = rlim_t{256} * 1024 * 1024;  // bytes that the scripts may add
constexpr int kRepeatUs = 100000;                              // between two interruptions of a late script's calls

int g_pipe = -1;
volatile sig_atomic_t g_has_place = 0;

void report_piece(TrialRecord::Kind kind, int level, const char* text, size_t size) {
  char bytes[kTrialRecordMost];
  const TrialRecord head{kind, level, static_cast<uint32_t>(size)};
  memcpy(bytes, &head, sizeof(head));
  memcpy(bytes + sizeof(head), text, size);
  write_fully(g_pipe, bytes, sizeof(head) + size);
}

void report(TrialRecord::Kind kind, const char* text, size_t size, int level = 0) {
  constexpr size_t kPiece = kTrialRecordMost - sizeof(TrialRecord);
  do {
    const size_t piece = std::min(size, kPiece);
    report_piece(kind, level, text, piece);
    text += piece;
    size -= piece;
  } while (size > 0);
}

void report_log(int level, const char* lines, size_t size) {
  report(TrialRecord::Kind::log, lines, size, level);
}

void report_place(const char* place) {
  g_has_place = 1;
  report(TrialRecord::Kind::place, place, strlen(place));
}

[[noreturn]] void end(TrialRecord::Kind verdict) {
  report(verdict, "", 0);
  _exit(verdict == TrialRecord::Kind::passed ? 0 : 1);
}

// In pieces: memory may be what has run out.
[[noreturn]] void end_failed(const char* fault) {
  report(TrialRecord::Kind::fault, fault, strlen(fault));
  const char* const traceback = trial_traceback();
  if (*traceback != '\0') report(TrialRecord::Kind::fault, "\n", 1);
  report(TrialRecord::Kind::fault, traceback, strlen(traceback));
  end(TrialRecord::Kind::failed);
}

[[noreturn]] void exit_called(lua_State*) {
  end_failed("a script calls os.exit, which ends the daemon");
}

// Registered last, so it precedes what this process has inherited.
void at_exit() {
  end_failed("a library calls exit, which ends the daemon");
}

// The time is over: interrupts what a script waits for in C, so that the hook gets its turn. Where it gets none, the
// file is all that is known.
void on_alarm(int) {
  const ScriptModule* const loading = g_mscript->scripts.current();
  if (g_has_place == 0 && loading != nullptr) report_place(loading->path.c_str());
}

void leave_the_daemon(pid_t daemon) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != daemon) _exit(1);  // it has ended before that call
  setpgid(0, 0);
  const rlimit no_core{0, 0};  // it would lie in the daemon's folder
  setrlimit(RLIMIT_CORE, &no_core);
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  for (const int number : {SIGHUP, SIGPIPE}) sigaction(number, &action, nullptr);
  action.sa_handler = SIG_DFL;
  for (const int number : {SIGINT, SIGTERM}) sigaction(number, &action, nullptr);
  action.sa_handler = on_alarm;  // without SA_RESTART
  sigaction(SIGALRM, &action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

std::vector<int> open_descriptors() {
  std::vector<int> found;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), closedir);
  while (const dirent* entry = folder == nullptr ? nullptr : readdir(folder.get())) {
    const int fd = entry->d_name[0] == '.' ? -1 : static_cast<int>(strtol(entry->d_name, nullptr, 10));
    if (fd >= 0 && fd != dirfd(folder.get()) && fd != g_pipe) found.push_back(fd);
  }
  return found;
}

// A regular file that is open for reading: opened once more at the same place, since the daemon and its copy move in a
// shared one together. -1 for anything else.
int opened_again(int fd) {
  struct stat status {};
  if ((fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return -1;
  const int again = open(sstr("/proc/self/fd/%d", fd).c_str(), O_RDONLY | O_CLOEXEC);
  if (again >= 0) lseek(again, lseek(fd, 0, SEEK_CUR), SEEK_SET);
  return again;
}

// Clients, posters, locks, logs, what scripts have open: nothing of it may be written, read or held open here. Their
// numbers stay in use, since the code that has them may still use them.
void let_go_of_descriptors() {
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  const std::vector<int> descriptors = open_descriptors();
  if (nothing < 0 || descriptors.empty()) end_failed("cannot open /dev/null and /proc/self/fd");
  for (const int fd : descriptors) {
    const int again = opened_again(fd);
    dup3(again >= 0 ? again : nothing, fd, fd > STDERR_FILENO ? O_CLOEXEC : 0);
    if (again >= 0) close(again);
  }
}

// The number that follows `label` in a file of /proc; 0 when there is none.
rlim_t number_in(const char* file, const char* label) {
  char text[1024] = "";
  const int fd = open(file, O_RDONLY | O_CLOEXEC);
  const ssize_t got = fd < 0 ? 0 : read(fd, text, sizeof(text) - 1);
  if (fd >= 0) close(fd);
  const char* const found = got > 0 ? strstr(text, label) : nullptr;
  return found == nullptr ? 0 : strtoull(found + strlen(label), nullptr, 10);
}

// A script that eats memory must not take it from the device: at most half of what is available, and where that
// misjudges the device, the system ends the copy before others.
void bound_memory() {
  const auto page = static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
  const rlim_t half = number_in("/proc/meminfo", "MemAvailable:") * 1024 / 2;
  const rlim_t more = half == 0 ? kMoreMemoryMost : std::min(half, kMoreMemoryMost);
  const rlim_t bound = number_in("/proc/self/statm", "") * page + more;
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  limit.rlim_cur = std::min(limit.rlim_cur, bound);
  setrlimit(RLIMIT_AS, &limit);
  const int fd = open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
  if (fd >= 0) write_fully(fd, "1000", 4);
  if (fd >= 0) close(fd);
}

void start_the_clock(ManagerScript& script, int limit_ms) {
  script.stop.begin_trial(limit_ms, report_place);
  const itimerval alarm{{0, kRepeatUs}, {limit_ms / 1000, suseconds_t{limit_ms % 1000} * 1000}};
  setitimer(ITIMER_REAL, &alarm, nullptr);
}

}  // namespace

void run_trial(ManagerScript& script, const Trial& trial) {
  g_pipe = trial.pipe;
  leave_the_daemon(trial.daemon);
  try {
    let_go_of_descriptors();
    bound_memory();
    atexit(at_exit);
    if (elog_divert != nullptr) elog_divert(report_log);
    begin_trial(exit_called);
    start_the_clock(script, trial.limit_ms);
    script.load_again(trial.script_path, trial.external_path);
  } catch (const std::exception& error) {
    end_failed(error.what());
  } catch (...) {
    end_failed("unknown error");
  }
  end(TrialRecord::Kind::passed);
}
