#include "app/signals.h"

#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>

#include "app/signal_ring.h"
#include "device/log.h"
#include "util/quiet_write.h"

std::atomic<int> g_running{1};
std::atomic<int> g_reload{0};
std::atomic<int> g_stop{0};

static_assert(std::atomic<int>::is_always_lock_free, "the signal handler must not wait");

namespace {

SignalRing<> g_arrived;

// Counts the handler's calls. A semaphore: a handler may post it, and it needs no descriptor that could be missing.
sem_t g_calls;

constexpr int kSignals[] = {SIGHUP, SIGINT, SIGTERM, SIGPIPE};

sigset_t signal_set() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal_number : kSignals) sigaddset(&set, signal_number);
  return set;
}

const char* line_of(int signal_number) {
  switch (signal_number) {
    case SIGHUP:
      return "signal_handler: SIGHUP";
    case SIGINT:
      return "signal_handler: SIGINT";
    case SIGTERM:
      return "signal_handler: SIGTERM";
    default:
      return "signal_handler: SIGPIPE";
  }
}

}  // namespace

void signal_handler(int signal_number) {
  const int error = errno;
  if (signal_number == SIGHUP) {
    g_reload = 1;
    g_running = 0;
  } else if (signal_number == SIGINT || signal_number == SIGTERM) {
    g_stop = 1;
    g_running = 0;
  }
  g_arrived.add(signal_number);
  sem_post(&g_calls);  // last: the thread that wakes up finds all of the above
  errno = error;
}

void block_signals() {
  const sigset_t set = signal_set();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int install_signals() {
  sem_init(&g_calls, 0, 0);
  struct sigaction action {};
  action.sa_handler = signal_handler;
  action.sa_mask = signal_set();
  sigaddset(&action.sa_mask, SIGSEGV);
  for (const int signal_number : kSignals) sigaction(signal_number, &action, nullptr);
  const sigset_t set = signal_set();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  return 0;
}

void write_signal_lines() {
  while (const int signal_number = g_arrived.take()) {
    write_quietly(STDERR_FILENO, "signal_handle\n");
    elog(1, "%s", line_of(signal_number));
  }
}

void wake_run_loop() {
  sem_post(&g_calls);
}

void wait_for_signal(int timeout_ms) {
  if (timeout_ms < 0) {
    sem_wait(&g_calls);  // an interruption ends it too
  } else {
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const int64_t ns = int64_t{timeout_ms} * 1000000 + until.tv_nsec;
    until.tv_sec += ns / 1000000000;
    until.tv_nsec = ns % 1000000000;
    sem_clockwait(&g_calls, CLOCK_MONOTONIC, &until);
  }
  while (sem_trywait(&g_calls) == 0) {
  }
}

bool stop_asked() {
  if (g_stop != 0) return true;
  sigset_t waiting;
  sigpending(&waiting);
  return sigismember(&waiting, SIGINT) == 1 || sigismember(&waiting, SIGTERM) == 1;
}

void resume_running() {
  g_running = 1;
  if (g_stop != 0) g_running = 0;  // the handler sets g_stop first, so a stop that came in between is seen here
}
