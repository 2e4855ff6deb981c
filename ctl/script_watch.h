// Waits for changes of script files.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "util/descriptor.h"

class ScriptWatch {
 public:
  // Watches the files in `folders` whose names end in ".lua"; ignores empty folder names. Throws
  // Failure(Exit::unreachable) when there is nothing to watch.
  explicit ScriptWatch(const std::vector<std::string>& folders);

  // Waits until such a file is written, renamed or removed, or was since the last call, and then until nothing more
  // changes for a moment: an editor, or a copy of many files, makes several changes. Returns false when nothing has
  // changed for `limit_ms`; it then looks for folders that were missing, and returns true when there is one. Throws
  // Failure(Exit::unreachable) when a watched folder is removed or renamed.
  bool wait_for_change(int limit_ms);

  // "FOLDER, FOLDER (missing so far)".
  std::string text() const;

 private:
  bool add_missing();
  bool read_changes();

  Descriptor notices;
  std::map<int, std::string> watched;  // by inotify's number
  std::vector<std::string> missing;
};
