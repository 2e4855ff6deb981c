// How the daemon reports its state to its supervisor. Declared weak: with a device's own libraries the address may be
// null, and the daemon reports nothing.
//
// The embedded default (device/host/service.cpp) notifies a service manager that asks for it with NOTIFY_SOCKET and
// WATCHDOG_USEC, and keeps the state in a file for `zelvctl reload`; both are described in docs/operations.md.
#pragma once

// Beside the event socket, below DEVICE_ROOT: one line "PID STATE RELOADS", replaced as a whole at every change.
// STATE is starting, ready, reloading, ended or stopping; RELOADS counts the reloads that are done.
constexpr char kServiceStatePath[] = "/run/zelvind/state";

constexpr int SERVICE_ALIVE = 0;      // the event loop is about to take an event; the first time it becomes ready
constexpr int SERVICE_RELOADING = 1;  // a reload begins
constexpr int SERVICE_RELOADED = 2;   // a reload is done
constexpr int SERVICE_STOPPING = 3;   // the daemon ends: it was asked to, or a start or a reload has failed
constexpr int SERVICE_STARTING = 4;   // the event queue is open, scripts and plug-ins are about to be loaded
constexpr int SERVICE_ENDED = 5;  // the event loop has ended with the quit event, for good; a reload changes nothing
constexpr int SERVICE_RELOAD_FAILED = 6;  // a reload was tried and given up: the daemon goes on as before

extern "C" {

// Reads what a service manager asks for, and removes it from the environment: programs that scripts start must not
// speak for the daemon. The state file is kept only while this process owns the event socket: `owns_socket`, which is
// event_socket_owned or null (never), is called at each change and in each pass of the loop. Main thread, once, before
// other threads start.
__attribute__((weak)) void service_open(int (*owns_socket)());

// Reports one of the states above: SERVICE_ALIVE, cheap enough for every pass, and SERVICE_ENDED from the script
// thread; the others from the main thread. Never fails; what cannot be reported is logged once.
__attribute__((weak)) void service_state(int state);
}

// service_open, where there is one.
inline void open_service(int (*owns_socket)()) {
  if (service_open != nullptr) service_open(owns_socket);
}

// service_state, where there is one.
inline void tell_service(int state) {
  if (service_state != nullptr) service_state(state);
}
