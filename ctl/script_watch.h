// Waits for changes of script files.
#pragma once

#include <string>
#include <vector>

#include "util/descriptor.h"

class ScriptWatch {
 public:
  // Watches the files in `folders` whose names end in ".lua"; empty names and folders that do not exist are left out.
  // Throws Failure(Exit::unreachable) when nothing can be watched.
  explicit ScriptWatch(const std::vector<std::string>& folders);

  // Waits until such a file has been written, renamed or removed since the last call, and nothing has happened for a
  // moment: an editor, or a copy of many files, makes several changes. Throws Failure(Exit::unreachable) when a folder
  // itself has gone.
  void wait_for_change();

 private:
  bool read_changes();

  Descriptor notices;
};
