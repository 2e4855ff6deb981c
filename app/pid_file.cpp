#include "app/pid_file.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "util/clock.h"
#include "util/descriptor.h"
#include "util/quiet_write.h"
#include "util/text.h"

namespace {

constexpr int64_t kPatienceMs = 10000;
constexpr int64_t kPatienceWhenStoppedMs = 1000;

// SIGCHLD is pending from when a child ends until next() returns it.
class SignalsOfTheWait {
 public:
  SignalsOfTheWait() {
    struct sigaction usual {};
    usual.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &usual, &action_before);  // while it is ignored, no child can be waited for
    sigemptyset(&awaited);
    for (const int number : {SIGCHLD, SIGINT, SIGTERM}) sigaddset(&awaited, number);
    pthread_sigmask(SIG_BLOCK, &awaited, &mask_before);
  }
  SignalsOfTheWait(const SignalsOfTheWait&) = delete;
  SignalsOfTheWait& operator=(const SignalsOfTheWait&) = delete;
  ~SignalsOfTheWait() {
    if (stop > 0) kill(getpid(), stop);
    pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
    sigaction(SIGCHLD, &action_before, nullptr);
  }

  // Waits for the next one, at most `limit_ms`. Returns false when none came.
  bool next(int64_t limit_ms) {
    const timespec limit{limit_ms / 1000, limit_ms % 1000 * 1000000};
    const int number = sigtimedwait(&awaited, nullptr, &limit);
    if (number == SIGINT || number == SIGTERM) stop = number;
    return number > 0 || errno == EINTR;
  }

  bool stop_came() const { return stop > 0; }
  const sigset_t& mask() const { return mask_before; }

 private:
  struct sigaction action_before {};
  sigset_t awaited{};
  sigset_t mask_before{};
  int stop = 0;  // SIGINT or SIGTERM, which stays pending
};

// Starts the shell in a process group of its own. Returns an error number, or 0.
int start_shell(pid_t& shell, std::string command, const sigset_t& mask) {
  char name[] = "sh";
  char option[] = "-c";
  char* const arguments[] = {name, option, command.data(), nullptr};
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setsigmask(&attributes, &mask);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
  const int error = posix_spawn(&shell, "/bin/sh", nullptr, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  return error;
}

// As system(3), but returns what went wrong, or an empty text.
std::string run_in_shell(const std::string& command) {
  SignalsOfTheWait signals;
  int64_t end_ms = steady_ms() + kPatienceMs;
  pid_t shell = 0;
  if (const int error = start_shell(shell, command, signals.mask()))
    return sstr("failed to start: %s", strerrordesc_np(error));
  while (waitpid(shell, nullptr, WNOHANG) == 0) {
    const int64_t left = end_ms - steady_ms();
    if (left > 0 && signals.next(left)) {
      if (signals.stop_came()) end_ms = std::min(end_ms, steady_ms() + kPatienceWhenStoppedMs);
      continue;
    }
    kill(-shell, SIGKILL);
    waitpid(shell, nullptr, 0);
    return "does not end, and is killed";
  }
  return "";
}

// A shell that writes into a FIFO waits until somebody reads.
bool nobody_reads(const std::string& path, Descriptor& writer) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) return false;
  writer.reset(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  return writer.get() < 0;
}

}  // namespace

void write_pid_file(pid_t number, const std::string& path) {
  if (path.empty()) return;
  Descriptor writer;  // while it is open, the shell need not wait for a reader
  if (nobody_reads(path, writer)) {
    write_quietly(STDERR_FILENO, "zelvind: " + path + " is a FIFO that nobody reads: no pid file is written\n");
    return;
  }
  const mode_t mask = umask(022);  // whoever can write to the file aims the signals of those who read it
  const std::string trouble = run_in_shell(sstr("echo %d > %s", number, path.c_str()));
  umask(mask);
  if (!trouble.empty()) write_quietly(STDERR_FILENO, "zelvind: the shell for the pid file " + trouble + "\n");
}
