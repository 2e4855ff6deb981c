// The entry of the process: options, detaching, pid file, signals; everything else is run().

#include <fcntl.h>
#include <getopt.h>
#include <malloc.h>
#include <sys/auxv.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "app/pid_file.h"
#include "app/run.h"
#include "app/signals.h"
#include "device/log.h"
#include "util/quiet_write.h"
#include "util/text.h"

namespace {

constexpr size_t kPidFileMax = 1023;
constexpr int kReaderPatienceMs = 1000;

// A script's file must not get the number of a standard stream that the caller has closed, or it would receive what
// print and other programs write. 0 is left to run().
void fill_closed_outputs() {
  for (const int output : {STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(output, F_GETFD) >= 0) continue;
    const int fd = open("/dev/null", O_WRONLY | O_NOCTTY);  // not close-on-exec: programs need theirs, too
    if (fd < 0 || fd == output) continue;
    dup2(fd, output);
    close(fd);
  }
}

// The environment of a set-uid program is its caller's, and decides which programs and Lua files are found: none of it
// may reach the daemon, or what scripts start.
void forget_callers_environment() {
  if (getauxval(AT_SECURE) == 0) return;
  clearenv();                                          // NOLINT(concurrency-mt-unsafe): no other thread runs
  setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);  // NOLINT(concurrency-mt-unsafe): no other thread runs
}

// A umask that takes the owner's own rights away would keep the next daemon from its files.
void keep_owners_rights() {
  const mode_t mask = umask(077);
  umask(mask & 077);
}

// Returns the path of the pid file, or an empty text. No option keeps the daemon from starting, known, ignored or
// unknown: it runs where nobody reads a usage text.
std::string parse_options(int argc, char** argv) {
  static const option kOptions[] = {
      {"version", no_argument, nullptr, 'v'},
      {"pidfile", required_argument, nullptr, 'p'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  std::string pid_file;
  for (int letter = 0; letter != -1;) {
    letter = getopt_long(argc, argv, "vp:h", kOptions, nullptr);  // NOLINT(concurrency-mt-unsafe): no other thread runs
    if (letter != 'p') continue;
    pid_file = optarg;
    write_quietly(STDOUT_FILENO, "pid file indicated : " + pid_file + "\n", kReaderPatienceMs);
  }
  if (pid_file.size() <= kPidFileMax) return pid_file;
  write_quietly(STDERR_FILENO, sstr("%s: the path of the pid file is longer than %zu characters, none is written\n",
                                    argv[0], kPidFileMax));
  return "";
}

void detach() {
  const pid_t child = fork();
  if (child < 0) write_quietly(STDERR_FILENO, "Failed to fork current process\n");
  if (child != 0) exit(0);  // NOLINT(concurrency-mt-unsafe): no other thread runs
}

// The listener's clients and the posters need a descriptor each. Where the limit cannot be raised, there are fewer.
void raise_descriptor_limit() {
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return;
  descriptors.rlim_cur = descriptors.rlim_max;
  setrlimit(RLIMIT_NOFILE, &descriptors);
}

int run_to_end() {
  try {
    run();
    write_signal_lines();
  } catch (const std::exception& error) {
    write_signal_lines();
    elog(1, "zelvind: %s", error.what());
    return 1;
  } catch (...) {
    write_signal_lines();
    elog(1, "zelvind: unknown error");
    return 1;
  }
  elog(1, "zelvind: zelvind end");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // By default every thread gets a heap of its own: what one thread has freed neither serves the others nor goes back
  // to the system. Our threads rarely allocate at the same time, so one heap serves all of them.
  mallopt(M_ARENA_MAX, 1);  // NOLINT(concurrency-mt-unsafe): no other thread runs
  fill_closed_outputs();
  forget_callers_environment();
  keep_owners_rights();
  const std::string pid_file = parse_options(argc, argv);
  block_signals();
  detach();
  if (chdir("/") != 0) write_quietly(STDERR_FILENO, sstr("zelvind: failed to enter /: %s\n", strerrordesc_np(errno)));
  raise_descriptor_limit();
  write_pid_file(setsid(), pid_file);
  install_signals();
  return run_to_end();
}
