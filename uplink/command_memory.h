// The ids of the last commands and the answers to them, in a file that outlives the program and a power cut.
// docs/uplink.md describes the file for users:
//
//   zelvind-uplink commands 1
//   q1 {"id":"q1","status":"ok"}
//   q2
//
// The oldest command stands first; one without an answer has none behind its id. It is text, so that the order of bytes
// does not matter and a person can read it, and it is replaced as a whole: a command is rare, and a synced write of a
// few bytes costs the flash as much as one of some KiB.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

constexpr size_t kCommandsRemembered = 256;
constexpr size_t kAnswerRemembered = 1024;  // bytes, the longest answer that is kept whole

// One thread only. Nothing throws.
class CommandMemory {
 public:
  // The file lies in `folder`, which need not exist yet.
  explicit CommandMemory(const std::string& folder) : path(folder + "/commands") {}

  // Reads the file, once that has succeeded never again. Returns an empty text, or why it cannot be read: what came
  // before is unknown then, and no command may be taken. A file that is not there is an empty one; lines that are
  // damaged are said in the log.
  std::string read();

  // The answer given to `id`, which may be empty; null: the id is not known. Valid until the next call.
  const std::string* find(std::string_view id);

  // Remembers a new id, and forgets the oldest beyond 256. Returns an empty text once the file is synced, or why it is
  // not: then the id is not known.
  std::string add(const std::string& id);

  // Remembers the answer to a known id; of an unknown one nothing. Returns as add(); the answer is known in any case,
  // though perhaps not to the next run.
  std::string set_answer(std::string_view id, const std::string& answer);

 private:
  struct Entry {
    std::string id, answer;
  };

  Entry* entry_of(std::string_view id);
  bool take_line(std::string_view line);
  std::string write() const;

  const std::string path;
  bool is_read = false;
  std::deque<Entry> entries;  // the oldest first
};
