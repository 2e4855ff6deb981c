#include "ctl/check/compile.h"

#include <filesystem>
#include <lua.hpp>
#include <map>
#include <memory>
#include <set>

#include "ctl/failure.h"
#include "util/script_files.h"

namespace {

// A message of Lua's as "FILE:LINE: MESSAGE". Lua shortens a long name to "..." and its end, and may leave it out.
std::string with_whole_name(const std::string& path, const std::string& text) {
  if (text.compare(0, path.size(), path) == 0) return text;
  const bool is_short = text.compare(0, 3, "...") == 0;
  for (size_t colon = text.find(':'); is_short && colon != std::string::npos; colon = text.find(':', colon + 1)) {
    const size_t length = colon - 3;
    if (length > path.size()) break;
    if (path.compare(path.size() - length, length, text, 3, length) == 0) return path + text.substr(colon);
  }
  return path + ": " + text;
}

class Compiler {
 public:
  explicit Compiler(Findings& results) : findings(results), state(luaL_newstate(), lua_close) {
    if (state == nullptr) fail("not enough memory for Lua");
  }

  void compile(const std::string& path) {
    if (!seen.insert(path).second) return;  // init_base.lua, when the daemon's folder is the script folder too
    if (const std::string reason = why_unreadable_file(path); !reason.empty()) {
      return findings.fault(path + ": " + reason);
    }
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

// The libraries that scripts get with require: all below lib/ of the folders; of equal names the first one counts.
void compile_libraries(const std::vector<std::string>& folders, Compiler& compiler) {
  namespace fs = std::filesystem;
  std::map<std::string, std::string> libraries;  // paths by name
  for (const std::string& folder : folders) {
    if (folder.empty()) continue;  // no external_path
    const fs::path place = fs::path(folder) / "lib";
    std::error_code error;
    for (fs::recursive_directory_iterator entry(place, error), end; !error && entry != end; entry.increment(error)) {
      const std::string path = entry->path().string();
      if (is_script_name(path)) libraries.emplace(entry->path().lexically_relative(place).string(), path);
    }
  }
  for (const auto& [name, path] : libraries) compiler.compile(path);
}

void compile_place(const std::string& place, Compiler& compiler, Findings& findings) {
  std::error_code ignored;
  if (!std::filesystem::is_directory(place, ignored)) return compiler.compile(place);
  if (const std::string reason = why_unreadable_folder(place); !reason.empty()) {
    return findings.fault(place + ": " + reason);
  }
  const std::vector<std::string> names = list_script_files(place);
  if (names.empty()) findings.fault(place + ": there is no script in it");
  for (const std::string& name : names) compiler.compile(script_in(place, name));
  compile_libraries({place}, compiler);
}

}  // namespace

std::vector<std::string> compile_configured(const ScriptFolders& folders, Findings& findings) {
  Compiler compiler(findings);
  compiler.compile(script_in(folders.daemon, "init_base.lua"));
  if (const std::string reason = why_unreadable_folder(folders.script); !reason.empty()) {
    findings.fault(folders.script + ": script_path: " + reason);
    return compiler.good;
  }
  compiler.compile(base_script("config.lua", folders.script, folders.external));
  compiler.compile(base_script("server_event.lua", folders.script, folders.external));
  if (!folders.external.empty()) {
    const std::string reason = why_unreadable_folder(folders.external);
    if (!reason.empty()) findings.warn(folders.external, "external_path: " + reason);
  }
  for (const std::string& path : directory_scripts(folders.script, folders.external).paths) compiler.compile(path);
  compile_libraries({folders.external, folders.script}, compiler);
  return compiler.good;
}

std::vector<std::string> compile_places(const std::vector<std::string>& places, Findings& findings) {
  Compiler compiler(findings);
  for (const std::string& place : places) compile_place(place, compiler, findings);
  return compiler.good;
}
