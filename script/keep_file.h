// The files of what scripts keep: $DEVICE_ROOT/var/lib/zelvind/keep/NAME.keep, each replaced as a whole.
//
// A device may lose its power at any time, so a new text is written beside the old one, synced, and renamed over it. A
// sync takes from a fraction of a millisecond to seconds, by the disk and by what else is written to it. So a thread
// does this while the event loop goes on; it lives for one round of writing.
//
// Other users may be able to write to the folder: a link is never followed, a FIFO never opened for its bytes, another
// owner's file not read. Nothing here knows Lua.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

constexpr char kKeepFolder[] = "/var/lib/zelvind/keep/";  // below DEVICE_ROOT
constexpr size_t kKeepNameMax = 64;                       // bytes

// Returns what is wrong with a name for something kept, or null. Any thread.
const char* check_keep_name(std::string_view name);

// The file of `name`, for lines of the log; empty when there is no DEVICE_ROOT to use. Any thread.
std::string keep_path(const std::string& name);

enum class KeptFile {
  missing,
  whole,       // read
  foreign,     // something that the daemon has not written
  unreadable,  // the system refuses: what is there may be good
};

// Reads the file of `name` into text[max] and sets *size; waits for nothing. When the result is `foreign` or
// `unreadable`, `reason` says why. Any thread.
KeptFile read_kept(const std::string& name, char* text, size_t max, size_t* size, std::string& reason);

// Renames what stands in the place of the file of `name` to NAME.bad, and logs that with `reason`. Returns false, and
// logs why, when that fails. Any thread.
bool put_aside(const std::string& name, const std::string& reason);

// Replaces files on a thread of its own. One thread at a time may call it.
class KeepWriter {
 public:
  struct Job {
    std::string name;
    std::string text;
    bool failed = false;
  };

  KeepWriter() = default;
  KeepWriter(const KeepWriter&) = delete;
  KeepWriter& operator=(const KeepWriter&) = delete;
  ~KeepWriter() { take_done(); }

  // True while the files of the last round are being written.
  bool is_busy() const { return thread != 0 && !ended; }

  // Begins a round; take_done() must have been called since the last one. Logs a failure, and the same one not again
  // until a round has succeeded.
  void start(std::vector<Job> round);

  // Waits for the end of the round and returns it; nothing when there is none.
  std::vector<Job> take_done();

 private:
  static void* write_round(void* instance);
  std::string write_files();

  pthread_t thread = 0;  // 0 when there is none
  std::atomic<bool> ended{false};
  // The thread's while there is one, else the caller's.
  std::vector<Job> jobs;
  std::string said;  // the last failure
};
