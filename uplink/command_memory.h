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

#include <sys/types.h>
#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

constexpr size_t kCommandsRemembered = 256;
constexpr size_t kAnswerRemembered = 1024;  // bytes, the longest answer that is kept whole

// One thread only. Nothing throws.
class CommandMemory {
 public:
  // The file lies in `the_folder`, which need not exist yet.
  explicit CommandMemory(std::string the_folder) : folder(std::move(the_folder)), path(folder + "/commands") {}

  // Reads the file, once that has succeeded only when another folder takes the place of the one before, e.g. a disk
  // that is mounted late: its ids are then known beside those of this run, and the file there gets them all. Returns an
  // empty text, or why it cannot be read: what came before is unknown then, and no command may be taken. A file that is
  // not there is an empty one; lines that are damaged are said in the log.
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

  using Place = std::pair<dev_t, ino_t>;  // of a folder; of none: zeros

  Entry* entry_of(std::string_view id);
  void take_text(std::string_view rest);
  void merge(const Entry& known);
  bool take_line(std::string_view line);
  std::string write() const;

  const std::string folder;
  const std::string path;
  bool is_read = false;
  Place read_from;
  std::deque<Entry> entries;  // the oldest first
};
