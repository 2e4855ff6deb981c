#include "ctl/check.h"

#include <lua.hpp>
#include <memory>
#include <set>

#include "app/conf_file.h"
#include "app/except.h"
#include "ctl/failure.h"
#include "ctl/luacheck.h"
#include "device/log.h"
#include "script/script_list.h"
#include "util/text.h"

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
  explicit Compiler(FILE* output) : out(output), state(luaL_newstate(), lua_close) {
    if (state == nullptr) throw Failure(Exit::unreachable, "no memory for Lua");
  }

  void compile(const std::string& path) {
    if (!seen.insert(path).second) return;  // init_base.lua, when the daemon's folder is the script folder too
    lua_State* const L = state.get();
    if (luaL_loadfile(L, path.c_str()) == 0) {
      good.push_back(path);
    } else {
      const char* const text = lua_tostring(L, -1);
      fault(with_whole_name(path, text == nullptr ? "unknown error" : text));
    }
    lua_settop(L, 0);
  }

  void fault(const std::string& text) {
    fprintf(out, "%s\n", text.c_str());
    ++faults;
  }

  std::vector<std::string> good;
  int faults = 0;

 private:
  FILE* const out;
  std::set<std::string> seen;
  const std::unique_ptr<lua_State, void (*)(lua_State*)> state;
};

int compile_dirs(const std::vector<std::string>& dirs, std::vector<std::string>& good, FILE* out) {
  Compiler compiler(out);
  for (const std::string& dir : dirs) {
    try {
      for (const std::string& name : list_script_files(dir)) compiler.compile(script_in(dir, name));
    } catch (const except_base& error) {
      compiler.fault(error.what());
    }
  }
  good = std::move(compiler.good);
  return compiler.faults;
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

std::string counted(int number, const char* thing) {
  return sstr("%d %s%s", number, thing, number == 1 ? "" : "s");
}

}  // namespace

ScriptFolders configured_folders(const std::string& daemon) {
  elog_set_level("zelvctl", 0);  // complaints about the file are the daemon's to make
  ConfFile conf;
  return {daemon, from_root(conf.get_str("script_path", daemon)), from_root(conf.get_str("external_path", "")),
          from_root(conf.get_str("dll_path", "/usr/lib"))};
}

int compile_scripts(const ScriptFolders& folders, std::vector<std::string>& good, FILE* out) {
  Compiler compiler(out);
  compiler.compile(script_in(folders.daemon, "init_base.lua"));
  compiler.compile(base_script("config.lua", folders.script, folders.external));
  compiler.compile(base_script("server_event.lua", folders.script, folders.external));
  try {
    const DirectoryScripts found = directory_scripts(folders.script, folders.external);
    if (!found.ignored.empty()) fprintf(out, "warning: %s\n", found.ignored.c_str());
    for (const std::string& path : found.paths) compiler.compile(path);
  } catch (const except_base& error) {
    compiler.fault(error.what());
  }
  good = std::move(compiler.good);
  return compiler.faults;
}

void check(const std::string& daemon, const std::vector<std::string>& dirs, FILE* out) {
  std::vector<std::string> good;
  std::vector<std::string> declarations;
  int faults = 0;
  if (dirs.empty()) {
    const ScriptFolders folders = configured_folders(daemon);
    faults = compile_scripts(folders, good, out);
    declarations = declarations_in(folders.plugins);
  } else {
    faults = compile_dirs(dirs, good, out);
    declarations = {script_in(daemon, "init_base.lua")};
  }
  if (faults > 0) throw Failure(Exit::unreachable, counted(faults, "fault"));
  fprintf(out, "%s, no fault\n", counted(static_cast<int>(good.size()), "script").c_str());
  if (warn_of_unknown_globals(good, declarations, out)) return;
  fprintf(out, "luacheck is not at hand: globals that nothing defines were not looked for\n");
}
