// Runs programs for the scripts: one thread starts them, collects what they write, ends them when their time is over,
// and posts the event "proc_done" for each.
//
// Nothing here uses Lua, and nothing throws: the functions are called from frames that a Lua error can cross, and all
// objects with destructors stay on this side.
#pragma once

#include <cstddef>

namespace program_runner {

constexpr int kEventType = 7002;  // of "proc_done"
constexpr int kProgramsMax = 64;  // running, or ended with a result that has not been dropped
constexpr int kTimeoutMaxS = 86400;

// Starts the thread. Main thread. Returns false, with errno set, when resources are short.
bool start() noexcept;

// Kills what still runs, ends the threads and forgets all results. Does nothing when nothing was started. Main thread,
// while no other thread calls these functions.
void stop() noexcept;

// The rest is called by one thread at a time, the one that has the Lua state.

// A new number above 0, different from those of all programs whose results have not been dropped.
int next_id() noexcept;

// Asks for program argv[0] (a path, or a name to look up in PATH) to be started with the arguments argv, which end with
// a null pointer and are copied, and to be ended after timeout_ms. Returns null, or the reason why it is refused, a
// literal. When there are too many programs, the events of all finished ones are posted again, so that their places
// come back even if the first events were missed.
const char* run(int id, const char* const* argv, int timeout_ms) noexcept;

struct Result {
  int status;          // the program's exit status, or one of the others in program.h
  const char* output;  // the first bytes of its output, or why it was not started; valid until the result is dropped
  size_t output_size;
};

// Stores the result of a program that has ended in *result. Returns false when no such program has that number.
bool find_result(int id, Result* result) noexcept;

// Posts the events of all results once more, at most once a second: for those whose event was missed.
void post_again() noexcept;

// Forgets a result; its place is then free for another program. A program that has not ended yet is killed, with its
// whole group, and its event is not posted.
void drop(int id) noexcept;

}  // namespace program_runner
