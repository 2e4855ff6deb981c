// The entry of the process: options, detaching, pid file, signals; everything else is run().

#include <fcntl.h>
#include <getopt.h>
#include <malloc.h>
#include <sys/auxv.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "app/run.h"
#include "app/signals.h"
#include "device/log.h"
#include "util/descriptor.h"
#include "util/text.h"

namespace {

constexpr size_t kPidFileMax = 1023;

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

// The Lua files of whoever runs a set-uid program must not become the daemon's.
void forget_lua_paths() {
  if (getauxval(AT_SECURE) == 0) return;
  for (const char* const name : {"LUA_PATH", "LUA_CPATH"})
    unsetenv(name);  // NOLINT(concurrency-mt-unsafe): no other thread
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
    printf("pid file indicated : %s\n", optarg);
    pid_file = optarg;
  }
  if (pid_file.size() <= kPidFileMax) return pid_file;
  fprintf(stderr, "%s: the path of the pid file is longer than %zu characters, none is written\n", argv[0],
          kPidFileMax);
  return "";
}

void detach() {
  fflush(stdout);  // or both processes would write what is still buffered
  const pid_t child = fork();
  if (child < 0) fprintf(stderr, "Failed to fork current process\n");
  if (child != 0) exit(0);  // NOLINT(concurrency-mt-unsafe): no other thread runs
}

// A shell that writes into a FIFO waits until somebody reads, and while it waits no signal ends the daemon.
bool nobody_reads(const std::string& path, Descriptor& writer) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) return false;
  writer.reset(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  return writer.get() < 0;
}

// The session's id is the daemon's process id.
void write_pid_file(pid_t session, const std::string& path) {
  if (path.empty()) return;
  Descriptor writer;  // while it is open, the shell need not wait for a reader
  if (nobody_reads(path, writer)) {
    fprintf(stderr, "zelvind: %s is a FIFO that nobody reads: no pid file is written\n", path.c_str());
    return;
  }
  const mode_t mask = umask(022);  // whoever can write to the file aims the signals of those who read it
  const int ignored = system(sstr("echo %d > %s", session, path.c_str()).c_str());
  (void)ignored;  // the daemon runs without a pid file too, and the shell has said what is wrong
  umask(mask);
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
  forget_lua_paths();
  const std::string pid_file = parse_options(argc, argv);
  block_signals();
  detach();
  if (chdir("/") != 0) perror("zelvind: chdir");  // NOLINT(concurrency-mt-unsafe): no other thread runs
  raise_descriptor_limit();
  write_pid_file(setsid(), pid_file);
  install_signals();
  return run_to_end();
}
