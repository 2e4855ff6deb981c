#include "ctl/check.h"

#include <lua.hpp>
#include <memory>
#include <optional>
#include <set>

#include "app/conf_file.h"
#include "app/except.h"
#include "ctl/daemon_rights.h"
#include "ctl/failure.h"
#include "ctl/luacheck.h"
#include "ctl/running_daemon.h"
#include "device/log.h"
#include "script/script_list.h"

namespace {

// The daemon's working directory is "/".
std::string from_root(const std::string& path) {
  return path.empty() || path.front() == '/' ? path : "/" + path;
}

// Lua shortens a long file name in front of its messages to "..." and the name's end. The whole one is wanted.
std::string with_whole_name(const std::string& path, const std::string& text) {
  if (text.compare(0, path.size(), path) == 0 || text.compare(0, 3, "...") != 0) return text;
  for (size_t colon = text.find(':'); colon != std::string::npos; colon = text.find(':', colon + 1)) {
    const size_t length = colon - 3;
    if (length > path.size()) break;
    if (path.compare(path.size() - length, length, text, 3, length) == 0) return path + text.substr(colon);
  }
  return path + ": " + text;
}

class Compiler {
 public:
  explicit Compiler(Findings& results) : findings(results), state(luaL_newstate(), lua_close) {
    if (state == nullptr) throw Failure(Exit::unreachable, "no memory for Lua");
  }

  void compile(const std::string& path) {
    if (!seen.insert(path).second) return;  // init_base.lua, when the daemon's folder is the script folder too
    lua_State* const L = state.get();
    if (luaL_loadfile(L, path.c_str()) == 0) {
      good.push_back(path);
    } else {
      const char* const text = lua_tostring(L, -1);
      findings.fault(with_whole_name(path, text == nullptr ? "unknown error" : text));
    }
    lua_settop(L, 0);
  }

  std::vector<std::string> good;

 private:
  Findings& findings;
  std::set<std::string> seen;
  const std::unique_ptr<lua_State, void (*)(lua_State*)> state;
};

std::vector<std::string> compile_dirs(const std::vector<std::string>& dirs, Findings& findings) {
  Compiler compiler(findings);
  for (const std::string& dir : dirs) {
    try {
      for (const std::string& name : list_script_files(dir)) compiler.compile(script_in(dir, name));
    } catch (const except_base& error) {
      findings.fault(error.what());
    }
  }
  return compiler.good;
}

// A plug-in that adds globals may bring a file that declares them for tools, beside itself and named alike.
std::vector<std::string> declarations_in(const std::string& plugins) {
  std::vector<std::string> files;
  try {
    for (const std::string& name : list_script_files(plugins)) {
      if (name.compare(0, 6, "libea_") == 0) files.push_back(script_in(plugins, name));
    }
  } catch (const except_base&) {  // no folder, no plug-ins
  }
  return files;
}

std::vector<std::string> compile_configured(const ScriptFolders& folders, Findings& findings) {
  Compiler compiler(findings);
  compiler.compile(script_in(folders.daemon, "init_base.lua"));
  compiler.compile(base_script("config.lua", folders.script, folders.external));
  compiler.compile(base_script("server_event.lua", folders.script, folders.external));
  try {
    const DirectoryScripts found = directory_scripts(folders.script, folders.external);
    if (!found.ignored.empty()) findings.warn(folders.external, found.ignored);
    for (const std::string& path : found.paths) compiler.compile(path);
  } catch (const except_base& error) {
    findings.fault(error.what());
  }
  return compiler.good;
}

}  // namespace

ScriptFolders configured_folders(const std::string& daemon) {
  elog_set_level("zelvctl", 0);  // complaints about the file are the daemon's to make
  ConfFile conf;
  return {daemon, from_root(conf.get_str("script_path", daemon)), from_root(conf.get_str("external_path", "")),
          from_root(conf.get_str("dll_path", "/usr/lib"))};
}

int check_scripts(const ScriptFolders& folders, Findings& findings) {
  const std::vector<std::string> good = compile_configured(folders, findings);
  if (!findings.has_faults()) warn_of_unknown_globals(good, declarations_in(folders.plugins), findings);
  return static_cast<int>(good.size());
}

void check(const std::string& root, const std::vector<std::string>& dirs, bool strict, FILE* out) {
  const auto running = RunningDaemon::find(root);
  const std::string daemon = running ? running->folder() : installed_daemon_folder();
  std::optional<DaemonRights> rights;
  if (running && dirs.empty()) rights.emplace(running->process());
  Findings findings(out, strict);
  int scripts = 0;
  if (dirs.empty()) {
    scripts = check_scripts(configured_folders(daemon), findings);
  } else {
    const std::vector<std::string> good = compile_dirs(dirs, findings);
    if (!findings.has_faults()) warn_of_unknown_globals(good, {script_in(daemon, "init_base.lua")}, findings);
    scripts = static_cast<int>(good.size());
  }
  if (!findings.passed()) throw Failure(Exit::unreachable, findings.text());
  const std::string warnings = findings.text();
  fprintf(out, "%s, no fault%s\n", counted(scripts, "script").c_str(),
          warnings.empty() ? "" : (", " + warnings).c_str());
  if (findings.unlooked.empty()) return;
  fprintf(out, "%s: globals that nothing defines were not looked for\n", findings.unlooked.c_str());
}
