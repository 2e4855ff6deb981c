// The daemon's own threads beside the main one.
#pragma once

#include <pthread.h>

#include <csignal>
#include <cstddef>
#include <initializer_list>

// Blocks SIGHUP, SIGINT and SIGTERM in the calling thread until destroyed; those that came meanwhile are delivered
// then. Threads started meanwhile inherit the mask for good.
class RunSignalsBlocked {
 public:
  RunSignalsBlocked() {
    sigset_t run_signals;
    sigemptyset(&run_signals);
    for (const int signal_number : {SIGHUP, SIGINT, SIGTERM}) sigaddset(&run_signals, signal_number);
    pthread_sigmask(SIG_BLOCK, &run_signals, &before);
  }
  RunSignalsBlocked(const RunSignalsBlocked&) = delete;
  RunSignalsBlocked& operator=(const RunSignalsBlocked&) = delete;
  ~RunSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

  // The mask without this block: for a wait that lets the signals through.
  const sigset_t& mask_before() const { return before; }

 private:
  sigset_t before{};
};

// Stack sizes in bytes, independent of the C library and of the shell's limits. Scripts recurse through C.
constexpr size_t kThreadStack = size_t{256} * 1024;
constexpr size_t kScriptThreadStack = size_t{4} * 1024 * 1024;

// Starts a thread that runs body(argument) with SIGHUP, SIGINT and SIGTERM blocked: they reach the main thread and
// never interrupt a script's sleep or a poll. SIGPIPE stays as it is. Stores the handle in *thread; the caller joins
// it. Returns 0, or an error number, as pthread_create does, with 0 in *thread. Any thread.
inline int start_service_thread(pthread_t* thread, void* (*body)(void*), void* argument,
                                size_t stack_size = kThreadStack) {
  const RunSignalsBlocked blocked;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stack_size);
  const int error = pthread_create(thread, &attributes, body, argument);
  pthread_attr_destroy(&attributes);
  if (error != 0) *thread = 0;
  return error;
}
