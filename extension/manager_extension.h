// The owner of the daemon's native plug-ins: finds them at start-up, initialises them, announces the end to them and
// unloads them. extension/plugin.h says what a plug-in is and may do.
//
// A bad plug-in is logged and unloaded; the others and the daemon go on without it.
#pragma once

#include <memory>
#include <vector>

#include "extension/loaded_plugin.h"

class ManagerExtension {
 public:
  using Plugins = std::vector<std::unique_ptr<LoadedPlugin>>;

  ManagerExtension() = default;
  // Unloads nothing: after a failed start, plug-ins may be at work until the process ends.
  ~ManagerExtension() = default;
  ManagerExtension(const ManagerExtension&) = delete;
  ManagerExtension& operator=(const ManagerExtension&) = delete;

  // What run control calls, on the main thread, in this order.

  // Loads the eSource plug-ins of directory `dir`, then its eAction plug-ins. The script manager must have its Lua
  // state with the script API; the scripts have not been loaded and no other thread of the daemon runs.
  void load(const char* dir);
  // Calls every prepare_cleanup. The script thread has been joined, the Lua state still exists.
  void prepare_cleanup();
  // Calls every cleanup and unloads. The Lua state has been closed.
  void cleanup();

 private:
  // In load order, and only those that were initialised without error.
  Plugins sources;
  Plugins actions;
};
