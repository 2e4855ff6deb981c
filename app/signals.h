// The four signals that the daemon handles: SIGHUP reloads, SIGINT and SIGTERM stop, SIGPIPE is only reported.
//
// The handler may run on any thread and interrupt anything, the log included. It sets flags and queues the signal; the
// run loop writes the lines. g_running and g_reload alone cannot tell a stop that comes with a reload from a reload,
// which sets g_running again: so g_stop remembers a stop for good.
#pragma once

#include <atomic>

extern std::atomic<int> g_running;  // 0 asks the run loop to leave, when g_stop is set as well
extern std::atomic<int> g_reload;   // 1 asks the run loop for a reload
extern std::atomic<int> g_stop;     // 1 once SIGINT or SIGTERM came; never cleared

// Blocks the four signals in the calling thread. Called before the fork: a signal that comes before the handler is
// installed stays pending instead of ending the daemon.
void block_signals();

// Installs the handler and unblocks the four signals. Returns 0. Main thread.
int install_signals();

// The handler itself.
void signal_handler(int signal_number);

// Writes two lines for each signal that came since the last call, in order of arrival: one on standard error, one in
// the log. When more than 256 signals wait, the latest get no lines. Main thread.
void write_signal_lines();

// Sleeps until the handler has run or wake_run_loop() was called, on any thread, since the last return of this
// function, or until timeout_ms are over (-1: no matter how long); may return early. Main thread, after
// install_signals.
void wait_for_signal(int timeout_ms = -1);

// Ends the sleep of wait_for_signal. Any thread, after install_signals.
void wake_run_loop();

// True once SIGINT or SIGTERM has come, even while the signals are blocked. Any thread.
bool stop_asked();

// Sets g_running, or clears it when a stop has been asked for. Main thread.
void resume_running();
