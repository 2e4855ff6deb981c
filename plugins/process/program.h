// One program that a script asked for: its process group, what it writes, and its time.
//
// Belongs to one thread at a time: the one that asks for it makes it, the runner's thread works with it, and its result
// is read when that thread has handed it over. A small thread of its own waits for the end of the process, which works
// on every kernel (process descriptors need Linux 5.3). That thread does not reap: the runner's thread does, later.
// Until then no other process or group can have the same number, so killing by number is safe.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr size_t kOutputMax = 4096;    // bytes kept of what a program writes; the rest is read and dropped
constexpr int kGraceMs = 1000;         // from SIGTERM to SIGKILL when a program's time is over
constexpr int kStatusNotStarted = -1;  // also when other code in the daemon has taken the status
constexpr int kStatusTimedOut = -2;
constexpr int kStatusSignal = 256;  // plus the number of the signal; a smaller status is the program's exit status

// Milliseconds of the monotonic clock. Any thread.
int64_t steady_ms();

// Starts a thread with all signals blocked: the daemon's signals belong to its main thread. The caller joins *thread.
// Returns 0, or an error number.
int start_thread(pthread_t* thread, void* (*body)(void*), void* argument);

// Moves a descriptor off the numbers of the standard streams, so that what scripts print does not go into it. Returns
// its number, or -1 with errno set; `fd` is closed then. The daemon and the uevent plug-in repeat these few lines: a
// plug-in uses nothing of the daemon but its header.
int above_standard_streams(int fd);

class Program {
 public:
  // argv ends with a null pointer and is copied. When the program has ended, a 1 is added to the eventfd `wake_fd`.
  Program(int id, const char* const* argv, int timeout_ms, int wake_fd);
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  // A program that has been started must have been reaped.
  ~Program();

  // Returns false when it cannot be started: then the status is kStatusNotStarted and the output says why.
  bool start();
  // True when the program has ended and reap will not wait.
  bool has_ended() const { return ended; }
  // Reads a piece of what has been written, without waiting.
  void read_output();
  // Sends SIGTERM to the whole process group when its time is over at `now` (steady_ms), and SIGKILL kGraceMs later.
  void enforce_time(int64_t now);
  // Kills the whole process group.
  void kill_group() const;
  // Waits for the end, kills what the program has left in its process group, and sets the status.
  void reap();

  int output_fd() const { return output_end; }    // -1 when there is nothing to wait for
  int64_t next_look() const { return deadline; }  // steady_ms: when enforce_time has something to do

  const int id;
  int status = kStatusNotStarted;
  std::string output;

 private:
  static void* wait_for_end(void* instance);
  int spawn(int output_for_program);
  bool fail(int error);

  std::vector<std::string> arguments;
  const int timeout;
  const int wake;
  int output_end = -1;
  int64_t deadline = INT64_MAX;
  bool timed_out = false;
  pid_t pid = 0;
  pthread_t waiter{};
  bool status_lost = false;  // set by the waiter, read after the join
  std::atomic<bool> ended{false};
};
