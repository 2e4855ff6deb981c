#include "util/service_thread.h"

RunSignalsBlocked::RunSignalsBlocked() {
  sigset_t run_signals;
  sigemptyset(&run_signals);
  sigaddset(&run_signals, SIGHUP);
  sigaddset(&run_signals, SIGINT);
  sigaddset(&run_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &run_signals, &before);
}

RunSignalsBlocked::~RunSignalsBlocked() {
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

int start_service_thread(pthread_t* thread, void* (*body)(void*), void* argument, size_t stack_size) {
  const RunSignalsBlocked blocked;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stack_size);
  const int error = pthread_create(thread, &attributes, body, argument);
  pthread_attr_destroy(&attributes);
  if (error != 0) *thread = 0;
  return error;
}
