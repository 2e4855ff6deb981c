#include "util/service_thread.h"

#include <csignal>

int start_service_thread(pthread_t* thread, void* (*body)(void*), void* argument) {
  sigset_t run_signals;
  sigset_t before;
  sigemptyset(&run_signals);
  sigaddset(&run_signals, SIGHUP);
  sigaddset(&run_signals, SIGINT);
  sigaddset(&run_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &run_signals, &before);
  const int error = pthread_create(thread, nullptr, body, argument);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error != 0) *thread = 0;
  return error;
}
