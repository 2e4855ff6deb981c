#include "extension/manager_extension.h"

#include <exception>

#include "device/log.h"
#include "extension/plugin_discovery.h"
#include "script/manager_script.h"
#include "util/except.h"
#include "util/service_thread.h"

namespace {

using Plugins = ManagerExtension::Plugins;

// A second link to a file, as for a version number, is the same library: its init must not run twice, not even after it
// has failed.
void refuse_second_name(const LoadedPlugin& plugin, const Plugins& others, const char* what) {
  for (const auto& other : others) {
    const bool is_same = plugin.inode != 0 && other->inode == plugin.inode && other->device == plugin.device;
    if (is_same) throw except_base("already %s as [%s]", what, other->path.c_str());
  }
}

// Returns false, with the text in `error`, when a step has failed; the library may be open then.
bool load_plugin(LoadedPlugin& plugin, const Plugins& loaded, const Plugins& failed, std::string& error) {
  try {
    open_plugin(plugin);
    refuse_second_name(plugin, loaded, "loaded");
    refuse_second_name(plugin, failed, "refused");
    const LuaTurn turn(g_mscript->gate);
    init_plugin(plugin, g_mscript->lua_state);
    return true;
  } catch (const std::exception& failure) {
    error = failure.what();
    return false;
  }
}

void load_kind(const PluginKind& kind, Plugins& plugins, const char* dir) {
  Plugins failed;
  for (const std::string& name : list_plugins(dir, kind.tag)) {
    elog(2, "mextension: load %s file[%s]...", kind.tag, name.c_str());
    auto plugin = std::make_unique<LoadedPlugin>();
    plugin->kind = &kind;
    plugin->path = name;
    std::string error;
    if (load_plugin(*plugin, plugins, failed, error)) {
      plugins.push_back(std::move(plugin));
      continue;
    }
    unload_plugin(*plugin);
    elog(1, "mextension: %s[%s]: %s", kind.name, name.c_str(), error.c_str());
    failed.push_back(std::move(plugin));
  }
}

}  // namespace

void ManagerExtension::load(const char* dir) {
  elog(2, "mextension: load extension files...");
  const RunSignalsBlocked blocked;  // for the shell that lists the files, and for the threads that plug-ins start
  load_kind(kEventSource, sources, dir);
  load_kind(kEventAction, actions, dir);
}

void ManagerExtension::prepare_cleanup() {
  elog(2, "mextension: prepare_cleanup");
  const LuaTurn turn(g_mscript->gate);
  for (const auto& plugin : sources) prepare_plugin(*plugin, g_mscript->lua_state);
  for (const auto& plugin : actions) prepare_plugin(*plugin, g_mscript->lua_state);
}

void ManagerExtension::cleanup() {
  elog(2, "mextension: cleanup");
  for (Plugins* plugins : {&sources, &actions}) {
    for (const auto& plugin : *plugins) unload_plugin(*plugin);
    plugins->clear();
  }
}
