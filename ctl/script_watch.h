// Waits for changes of script files.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "util/descriptor.h"

struct inotify_event;

class ScriptWatch {
 public:
  // Watches the files whose names end in ".lua" in `script_folders`, of which empty names are ignored, and everywhere
  // below their lib/. Throws Failure(Exit::unreachable) when none of the folders is there.
  explicit ScriptWatch(std::vector<std::string> script_folders);

  // Waits until such a file is written, renamed or removed, or was since the last call, and then until nothing more
  // changes for a moment: an editor, or a copy of many files, makes several changes. Returns false when nothing has
  // changed for `limit_ms`; it then looks for new folders, and returns true when there is one. Throws
  // Failure(Exit::unreachable) when one of the script folders is removed or renamed.
  bool wait_for_change(int limit_ms);

  // "FOLDER, FOLDER (missing so far)".
  std::string text() const;

 private:
  bool watch(const std::string& folder);
  bool watch_new_folders();
  bool read_changes();
  void lose(const inotify_event& notice);

  std::vector<std::string> folders;
  const Descriptor notices;
  std::map<int, std::string> watched;  // folders by inotify's number
};
