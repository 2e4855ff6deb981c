// Waits for changes of script files.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "util/descriptor.h"

class ScriptWatch {
 public:
  // Watches the files in `folders` whose names end in ".lua"; empty names are left out. Throws
  // Failure(Exit::unreachable) when nothing can be watched.
  explicit ScriptWatch(const std::vector<std::string>& folders);

  // Waits until such a file has been written, renamed or removed since the last call, and nothing has happened for a
  // moment: an editor, or a copy of many files, makes several changes. Returns false when `limit_ms` have
  // passed without. A folder that was not there is looked for then, and is a change when it has come. Throws
  // Failure(Exit::unreachable) when a folder itself has gone.
  bool wait_for_change(int limit_ms);

  // "FOLDER, FOLDER (not there yet)".
  std::string text() const;

 private:
  bool add_missing();
  bool read_changes();

  Descriptor notices;
  std::map<int, std::string> watched;  // by inotify's number
  std::vector<std::string> missing;
};
