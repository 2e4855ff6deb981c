// One program that a script asked for: its process group, what it writes, and its time.
//
// Belongs to one thread at a time: whoever asks for it makes it, the runner's thread works with it, and its result is
// read when that thread has given it away. The end of the process is waited for by a small thread of its own. That
// works on every kernel (descriptors of processes need Linux 5.3), and it only looks: the process is reaped later, by
// the runner's thread. Until then the numbers of the process and of its group cannot be given to another one, and
// killing them is safe.
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
constexpr int kStatusNotStarted = -1;  // also when somebody else in the process took the status
constexpr int kStatusTimedOut = -2;
constexpr int kStatusSignal = 256;  // and the signal's number added; below it, the program's exit status

// Milliseconds of a clock that nobody sets.
int64_t steady_ms();

// Starts a thread with all signals blocked: the daemon's signals belong to its main thread. Returns an error number.
int start_thread(pthread_t* thread, void* (*body)(void*), void* argument);

// Moves a descriptor to a number above 2, where scripts print to nothing of ours. Returns it, or -1 with errno set.
// The daemon and the uevent plug-in have the same few lines: a plug-in builds alone.
int above_standard_streams(int fd);

class Program {
 public:
  // argv ends with a null pointer and is copied. When the program has ended, a 1 is added to the eventfd `wake_fd`.
  Program(int id, const char* const* argv, int timeout_ms, int wake_fd);
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  // A program that was started must have been reaped.
  ~Program();

  // Returns false when it could not be started: then the status is kStatusNotStarted and the output says why.
  bool start();
  // True when the program has ended and reap will not wait.
  bool has_ended() const { return ended; }
  // Reads a piece of what has been written, without waiting.
  void read_output();
  // Asks the whole process group to end when its time is over, and kills it when it does not.
  void enforce_time(int64_t now);
  void kill_group();
  // Waits for the end, kills what the program left behind in its process group, and sets the status.
  void reap();

  int output_fd() const { return output_end; }  // -1 when there is nothing to wait for
  int64_t next_look() const { return deadline; }

  const int id;
  int status = kStatusNotStarted;
  std::string output;

 private:
  static void* wait_for_end(void* program);
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
  bool status_lost = false;  // set by the waiter, read after it was joined
  std::atomic<bool> ended{false};
};
