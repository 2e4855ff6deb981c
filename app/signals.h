// The four signals that mean something to the daemon: SIGHUP reloads, SIGINT and SIGTERM stop, SIGPIPE is only
// reported.
//
// The handler may run on any thread and in the middle of anything, the log included. It sets flags and remembers the
// signal; the run loop writes the lines. Two flags cannot tell a stop with a reload from a reload alone, since both
// clear g_running and a reload sets it again: so a third word remembers a stop for good.
#pragma once

#include <atomic>

extern std::atomic<int> g_running;  // 0 asks the run loop to leave, when g_stop is set as well
extern std::atomic<int> g_reload;   // 1 asks the run loop for a reload
extern std::atomic<int> g_stop;     // 1 once SIGINT or SIGTERM came; never cleared

// Blocks the four signals in the calling thread. Called before the fork: a signal that comes before the handler is
// installed waits for it instead of ending the daemon.
void block_signals();

// Installs the handler and lets the four signals in. Always 0. Main thread.
int install_signals();

// The handler itself.
void signal_handler(int signal_number);

// Writes the lines of the signals that came since the last call, in their order: one on standard error and one in the
// log each. Of more than 256 waiting ones the latest have no lines. Main thread.
void write_signal_lines();

// Sleeps until the handler has run, on any thread, since this returned last; may return early. Main thread, after
// install_signals.
void wait_for_signal();

// True once SIGINT or SIGTERM came, even while the signals are blocked. Any thread.
bool stop_asked();

// Sets g_running, unless a stop has been asked for. Main thread.
void resume_running();
