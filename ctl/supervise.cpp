#include "ctl/supervise.h"

#include <dirent.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "ctl/failure.h"
#include "ctl/process.h"
#include "util/clock.h"
#include "util/quiet_write.h"
#include "util/text.h"

namespace {

sigset_t set_of(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : signals) sigaddset(&set, number);
  return set;
}

// Starts a program with the signal mask and the dispositions that we were started with, except for SIGPIPE and SIGCHLD.
pid_t spawn(const std::string& program, std::vector<std::string> arguments, const sigset_t& mask) {
  arguments.insert(arguments.begin(), program);
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  const sigset_t defaults = set_of({SIGPIPE, SIGCHLD});
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setsigmask(&attributes, &mask);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  pid_t pid = 0;
  const int error = posix_spawn(&pid, program.c_str(), nullptr, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) fail("failed to start " + program + ": " + error_text(error));
  return pid;
}

// Our child that runs the program; 0 when there is none.
pid_t find_child(const std::string& program) {
  const std::unique_ptr<DIR, int (*)(DIR*)> processes(opendir("/proc"), closedir);
  if (processes == nullptr) fail("failed to read /proc: " + error_text(errno));
  while (const dirent* entry = readdir(processes.get())) {
    const auto pid = static_cast<pid_t>(strtol(entry->d_name, nullptr, 10));
    const auto process = pid > 0 ? process_entry(pid) : std::nullopt;
    if (process && process->parent == getpid() && process->name == process_name(program)) return pid;
  }
  return 0;
}

// Starts the daemon and returns its process id. It becomes our child when the process that forked it has ended.
pid_t start(const std::string& program, const std::vector<std::string>& arguments, const sigset_t& mask) {
  const pid_t parent = spawn(program, arguments, mask);
  int status = 0;
  while (waitpid(parent, &status, 0) < 0 && errno == EINTR) {
  }
  const pid_t daemon = find_child(program);
  if (daemon == 0) fail(program + " ended without starting a daemon");
  return daemon;
}

class Supervisor {
 public:
  Supervisor(pid_t daemon_process, const sigset_t& waited, int limit_ms)
      : daemon(daemon_process), signals(waited), stop_limit_ms(limit_ms) {}

  // Stays until the daemon has ended. Returns its wait status.
  int stay() {
    int status = 0;
    while (!collect(status)) {
      const int number = next_signal();
      if (number > 0 && number != SIGCHLD) pass_on(number);
      if (asked && steady_ms() >= deadline) {
        const std::string name = daemon_text(daemon);
        kill(daemon, SIGKILL);
        deadline = INT64_MAX;
        write_quietly(STDERR_FILENO, sstr("zelvctl: %s has not ended within %g s and is killed\n", name.c_str(),
                                          stop_limit_ms / 1000.0));
      }
    }
    return status;
  }

  bool was_asked() const { return asked; }

 private:
  // Collects all children that have ended. Returns true when the daemon is among them.
  bool collect(int& daemon_status) const {
    bool ended = false;
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
      if (pid != daemon) continue;
      daemon_status = status;
      ended = true;
    }
    return ended;
  }

  // The next signal, or -1 when the time to wait is up.
  int next_signal() const {
    if (!asked || deadline == INT64_MAX) return sigwaitinfo(&signals, nullptr);
    const int64_t left = std::max<int64_t>(deadline - steady_ms(), 0);
    const timespec limit{left / 1000, left % 1000 * 1000000};
    return sigtimedwait(&signals, nullptr, &limit);
  }

  void pass_on(int number) {
    kill(daemon, number == SIGQUIT ? SIGTERM : number);
    if (number == SIGHUP || asked) return;
    asked = true;
    deadline = steady_ms() + stop_limit_ms;
  }

  const pid_t daemon;
  const sigset_t signals;
  const int stop_limit_ms;
  bool asked = false;
  int64_t deadline = INT64_MAX;  // steady_ms
};

}  // namespace

void supervise(const std::string& program, const std::vector<std::string>& arguments, int stop_limit_ms) {
  const sigset_t waited = set_of({SIGHUP, SIGINT, SIGTERM, SIGQUIT, SIGCHLD});
  sigset_t mask;
  signal(SIGCHLD, SIG_DFL);  // while it is ignored, no child can be waited for
  pthread_sigmask(SIG_BLOCK, &waited, &mask);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t daemon = start(program, arguments, mask);
  Supervisor supervisor(daemon, waited, stop_limit_ms);
  const int status = supervisor.stay();
  const std::string name = daemon_text(daemon);
  if (WIFSIGNALED(status)) fail(name + " was ended by signal " + std::to_string(WTERMSIG(status)));
  if (!supervisor.was_asked()) fail(name + " has ended by itself; its log says why");
  if (WEXITSTATUS(status) != 0) fail(name + " has ended with status " + std::to_string(WEXITSTATUS(status)));
}
