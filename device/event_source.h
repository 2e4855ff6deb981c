// What the embedded event queue offers beyond device/event_queue.h. All of it is declared weak: with a device's own
// queue library the addresses may be null, and the daemon runs without it.
#pragma once

// Where the embedded queue takes events from other processes, below DEVICE_ROOT: a Unix stream socket, one event a
// line (device/event_line.h).
constexpr char kEventSocketPath[] = "/run/zelvind/events.sock";

// The lock file beside it. The socket's owner writes its process id into it, and keeps it open and locked while it
// runs.
constexpr char kEventLockPath[] = "/run/zelvind/events.lock";

extern "C" {

// Queues one event. `type` is its code; `type_name` 1 to 127 bytes without blanks and control characters; `info`
// "name=value" items joined by "&" (null counts as empty); all are copied. Any thread, until the process ends. Returns
// 1 queued, -1 bad argument or queue closed (before helper_init, after helper_cleanup), -2 queue full (65,536 events,
// or 64 MiB) or no memory.
__attribute__((weak)) int event_post(int type, const char* type_name, const char* info);

// Ends the wait of the event_dequeue in progress, or else of the next one that would wait: it returns at once, without
// an event. Any thread, also when the queue is closed.
__attribute__((weak)) void event_wake();

// Returns 0 when this process does not own the event socket, else a number that changes with each socket that it makes.
// Any thread.
__attribute__((weak)) int event_socket_owned();

// Returns the number of events that event_dequeue is certain to return without waiting. Script thread only.
__attribute__((weak)) int event_pending();
}
