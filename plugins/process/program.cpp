#include "program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

int64_t steady_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

int start_thread(pthread_t* thread, void* (*body)(void*), void* argument) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const int error = pthread_create(thread, nullptr, body, argument);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return error;
}

int above_standard_streams(int fd) {
  if (fd < 0 || fd > 2) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  close(fd);
  return moved;
}

Program::Program(int program_id, const char* const* argv, int timeout_ms, int wake_fd)
    : id(program_id), timeout(timeout_ms), wake(wake_fd) {
  for (; *argv != nullptr; ++argv) arguments.emplace_back(*argv);
  output.reserve(kOutputMax);
}

Program::~Program() {
  if (output_end >= 0) close(output_end);
}

bool Program::fail(int error) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the texts of known error numbers are constants
  output = arguments[0] + ": " + strerror(error);
  return false;
}

// Standard input is /dev/null, both outputs are the pipe, nothing else is open; the process has a group of its own,
// with no signal blocked or ignored. Returns an error number.
int Program::spawn(int output_for_program) {
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t files;
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_init(&files);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&files, output_for_program, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&files, output_for_program, STDERR_FILENO);
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 34)
  // All descriptors of the daemon are close-on-exec, but those of a foreign library may not be.
  posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
#endif
  const int error = posix_spawnp(&pid, argv[0], &files, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  posix_spawnattr_destroy(&attributes);
  return error;
}

bool Program::start() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return fail(errno);
  output_end = above_standard_streams(ends[0]);
  const int program_end = above_standard_streams(ends[1]);
  int error = output_end < 0 || program_end < 0 ? EMFILE : spawn(program_end);
  if (program_end >= 0) close(program_end);
  if (error != 0) return fail(error);
  fcntl(output_end, F_SETFL, O_NONBLOCK);
  error = start_thread(&waiter, wait_for_end, this);
  if (error != 0) {
    kill_group();
    waitpid(pid, nullptr, 0);
    return fail(error);
  }
  deadline = steady_ms() + timeout;
  return true;
}

// On the waiter's thread.
void* Program::wait_for_end(void* instance) {
  Program& program = *static_cast<Program*>(instance);
  siginfo_t info{};
  int result = 0;
  do {
    result = waitid(P_PID, static_cast<id_t>(program.pid), &info, WEXITED | WNOWAIT);
  } while (result < 0 && errno == EINTR);
  program.status_lost = result < 0;
  program.ended = true;
  eventfd_write(program.wake, 1);
  return nullptr;
}

void Program::read_output() {
  char piece[65536];
  const ssize_t size = read(output_end, piece, sizeof(piece));
  if (size > 0) {
    output.append(piece, std::min(static_cast<size_t>(size), kOutputMax - output.size()));
  } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
    close(output_end);
    output_end = -1;
  }
}

void Program::kill_group() const {
  kill(-pid, SIGKILL);
}

void Program::enforce_time(int64_t now) {
  if (now < deadline) return;
  if (timed_out) {
    kill_group();
    deadline = INT64_MAX;
  } else {
    kill(-pid, SIGTERM);
    timed_out = true;
    deadline = now + kGraceMs;
  }
}

void Program::reap() {
  pthread_join(waiter, nullptr);
  int result = 0;
  if (!status_lost) {
    kill_group();
    status_lost = waitpid(pid, &result, 0) != pid;
  }
  // Read one more piece, not to the pipe's end: a process that has left the group may hold the pipe open and go on
  // writing.
  if (output_end >= 0) read_output();
  if (output_end >= 0) close(output_end);
  output_end = -1;
  if (timed_out) {
    status = kStatusTimedOut;
  } else if (!status_lost) {
    status = WIFSIGNALED(result) ? kStatusSignal + WTERMSIG(result) : WEXITSTATUS(result);
  }
}
