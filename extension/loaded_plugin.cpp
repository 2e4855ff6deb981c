#include "extension/loaded_plugin.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>

#include <exception>

#include "device/log.h"
#include "util/except.h"
#include "util/lua_binding.h"

const PluginKind kEventSource = {
    "es",
    "eSource",
    "esource_init",
    "esource_prepare_cleanup",
    "esource_cleanup",
    "Failed to load so eSource file[%s]",
    false,
};

const PluginKind kEventAction = {
    "ea", "eAction", "eaction_init", "eaction_prepare_cleanup", "eaction_cleanup", "failed to load so eAction file",
    true,
};

namespace {

using EntryPoint = LoadedPlugin::EntryPoint;

EntryPoint find_entry(const LoadedPlugin& plugin, const char* symbol) {
  return reinterpret_cast<EntryPoint>(dlsym(plugin.handle, symbol));
}

EntryPoint find_required(const LoadedPlugin& plugin, const char* symbol) {
  const EntryPoint found = find_entry(plugin, symbol);
  if (found == nullptr) throw except_base("Could not find '%s'", symbol);
  return found;
}

// Returns false, with the text in `error`, when `work` has thrown; the exception object is gone by then.
template <typename Work>
bool run_guarded(std::string& error, Work&& work) {
  try {
    work();
    return true;
  } catch (const std::exception& raised) {
    error = raised.what();
  } catch (...) {
    error = "unknown error";
  }
  return false;
}

// For entry points that may use Lua when their kind has it: a Lua error counts as an exception.
template <typename Work>
bool run_with_lua(const LoadedPlugin& plugin, lua_State* L, std::string& error, Work&& work) {
  if (!plugin.kind->has_lua) return run_guarded(error, work);
  return protect(L, error, [&](lua_State*) { work(); });
}

int call_init(const LoadedPlugin& plugin, lua_State* L) {
  if (plugin.kind->has_lua) return reinterpret_cast<int (*)(lua_State*)>(plugin.init)(L);
  return reinterpret_cast<int (*)()>(plugin.init)();
}

// A failed init may have left functions and finalizers in the Lua state, which lives on: the code stays mapped when the
// library is closed.
void keep_mapped(const LoadedPlugin& plugin) {
  if (plugin.kind->has_lua) dlopen(plugin.path.c_str(), RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

void note_file(LoadedPlugin& plugin) {
  link_map* library = nullptr;
  struct stat status {};
  if (dlinfo(plugin.handle, RTLD_DI_LINKMAP, &library) != 0 || stat(library->l_name, &status) != 0) return;
  plugin.device = status.st_dev;
  plugin.inode = status.st_ino;
}

void log_failure(const LoadedPlugin& plugin, const std::string& error) {
  elog(1, "mextension: %s[%s]: %s", plugin.kind->name, plugin.path.c_str(), error.c_str());
}

}  // namespace

void open_plugin(LoadedPlugin& plugin) {
  plugin.handle = dlopen(plugin.path.c_str(), RTLD_LAZY);
  if (plugin.handle != nullptr) return note_file(plugin);
  const char* const reason = dlerror();
  elog(1, "mextension: %s", reason == nullptr ? "no reason given" : reason);
  throw except_base(plugin.kind->open_error, plugin.path.c_str());
}

void init_plugin(LoadedPlugin& plugin, lua_State* L) {
  const PluginKind& kind = *plugin.kind;
  dlerror();
  plugin.init = find_required(plugin, kind.init);
  plugin.prepare_cleanup = find_entry(plugin, kind.prepare_cleanup);
  plugin.cleanup = find_required(plugin, kind.cleanup);
  int result = 0;
  std::string error;
  const bool done = run_with_lua(plugin, L, error, [&] { result = call_init(plugin, L); });
  if (done && result >= 0) return;
  keep_mapped(plugin);
  if (!done) throw except_base("%s", error.c_str());
  throw except_base("Failed to execute init function with error[%d]", result);
}

void prepare_plugin(LoadedPlugin& plugin, lua_State* L) {
  if (plugin.handle == nullptr || plugin.prepare_cleanup == nullptr) return;
  std::string error;
  if (!run_with_lua(plugin, L, error, [&] { plugin.prepare_cleanup(); })) log_failure(plugin, error);
}

void unload_plugin(LoadedPlugin& plugin) {
  if (plugin.handle == nullptr) return;
  std::string error;
  if (plugin.cleanup != nullptr && !run_guarded(error, plugin.cleanup)) log_failure(plugin, error);
  const int result = dlclose(plugin.handle);
  if (result != 0) elog(1, "mextension: failed to call dlclose with error[%d]", result);
  plugin.handle = nullptr;
  plugin.init = plugin.prepare_cleanup = plugin.cleanup = nullptr;
}
