#include "ctl/check.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <fstream>
#include <lua.hpp>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

#include "device/settings.h"
#include "util/except.h"
#include "ctl/daemon_rights.h"
#include "ctl/failure.h"
#include "ctl/luacheck.h"
#include "ctl/running_daemon.h"
#include "device/log.h"
#include "util/script_files.h"
#include "util/safe_text.h"
#include "device/store_text.h"
#include "util/text.h"

namespace {

// The daemon's working directory is "/".
std::string from_root(const std::string& path) {
  return path.empty() || path.front() == '/' ? path : "/" + path;
}

// "FILE:LINE: MESSAGE" of a message of Lua's, which may lack the file, and shortens a long name to "..." and its end.
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

std::string reason_of(int error) {
  return error == EACCES ? sstr("%s for user %u", error_text(error).c_str(), geteuid()) : error_text(error);
}

// Why a file cannot be read; empty when it can. Nothing but a regular file is opened: a FIFO would wait for its writer.
std::string why_no_file(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return reason_of(errno);
  if (!S_ISREG(status.st_mode)) return "is no regular file";
  return access(path.c_str(), R_OK) == 0 ? "" : reason_of(errno);
}

std::string why_no_folder(const std::string& path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), closedir);
  return folder == nullptr ? reason_of(errno) : "";
}

bool is_folder(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

class Compiler {
 public:
  explicit Compiler(Findings& results) : findings(results), state(luaL_newstate(), lua_close) {
    if (state == nullptr) fail("no memory for Lua");
  }

  void compile(const std::string& path) {
    if (!seen.insert(path).second) return;  // init_base.lua, when the daemon's folder is the script folder too
    if (const std::string reason = why_no_file(path); !reason.empty()) return findings.fault(path + ": " + reason);
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

// `dirs` may be files too.
std::vector<std::string> compile_dirs(const std::vector<std::string>& dirs, Findings& findings) {
  Compiler compiler(findings);
  for (const std::string& dir : dirs) {
    if (!is_folder(dir)) {
      compiler.compile(dir);
    } else if (const std::string reason = why_no_folder(dir); !reason.empty()) {
      findings.fault(dir + ": " + reason);
    } else {
      const std::vector<std::string> names = list_script_files(dir);
      if (names.empty()) findings.fault(dir + ": no script is there");
      for (const std::string& name : names) compiler.compile(script_in(dir, name));
    }
  }
  return compiler.good;
}

std::vector<std::string> compile_configured(const ScriptFolders& folders, Findings& findings) {
  Compiler compiler(findings);
  compiler.compile(script_in(folders.daemon, "init_base.lua"));
  compiler.compile(base_script("config.lua", folders.script, folders.external));
  compiler.compile(base_script("server_event.lua", folders.script, folders.external));
  if (!folders.external.empty()) {
    const std::string reason = why_no_folder(folders.external);
    if (!reason.empty()) findings.warn(folders.external, "external_path: " + reason);
  }
  if (const std::string reason = why_no_folder(folders.script); !reason.empty()) {
    findings.fault(folders.script + ": " + reason);
  } else {
    for (const std::string& path : directory_scripts(folders.script, folders.external).paths) compiler.compile(path);
  }
  return compiler.good;
}

// Warns of what the daemon passes over in its settings, where the embedded store has them.
void check_settings(const std::string& path, Findings& findings) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  const StoreText store = parse_store(text.str());
  for (const StoreComplaint& complaint : store.complaints) {
    findings.warn(complaint.line == 0 ? path : path + ":" + std::to_string(complaint.line), complaint.text);
  }
  if (store.more_complaints > 0) findings.warn(path, sstr("%d more bad lines", store.more_complaints));
  for (const auto& [key, value] : store.values) {
    const Setting* const setting = settings::find(key);
    if (setting == nullptr) {
      findings.warn(path, "the daemon knows no key '" + key + "'");
    } else if (const std::string problem = settings::problem(*setting, value); !problem.empty()) {
      findings.warn(path, problem + "; it is not used");
    }
  }
}

// A plug-in that adds globals may bring a file that declares them for tools, beside itself and named alike.
std::vector<std::string> declarations_in(const std::string& plugins) {
  std::vector<std::string> files;
  if (!why_no_folder(plugins).empty()) return files;  // no folder, no plug-ins
  for (const std::string& name : list_script_files(plugins)) {
    const std::string path = script_in(plugins, name);
    if (name.compare(0, 6, "libea_") == 0 && why_no_file(path).empty()) files.push_back(path);
  }
  return files;
}

// Those that count for scripts that are not the configured ones; of the plug-ins only when there are settings.
std::vector<std::string> declarations_for_dirs(const std::string& root) {
  std::string daemon = installed_daemon_folder();
  std::vector<std::string> files;
  try {
    if (const auto running = RunningDaemon::find(root)) daemon = running->folder();
    files = declarations_in(configured_folders(root, daemon).plugins);
  } catch (const Failure&) {
  }
  files.push_back(script_in(daemon, "init_base.lua"));
  return files;
}

// "2 scripts in PLACE, PLACE"; each place once.
std::string scripts_in(size_t scripts, const std::vector<std::string>& places) {
  std::string text = counted(static_cast<int>(scripts), "script");
  std::set<std::string> told;
  for (const std::string& place : places) {
    if (told.insert(place).second) text += (told.size() == 1 ? " in " : ", ") + place;
  }
  return text;
}

}  // namespace

ScriptFolders configured_folders(const std::string& root, const std::string& daemon) {
  elog_set_level("zelvctl", 0);  // complaints about the file are the daemon's to make
  const std::string path = root + kSettingsPath;
  try {
    SettingsFile file;
    return {path, daemon, from_root(file.text(settings::script_path, daemon)),
            from_root(file.text(settings::external_path)), from_root(file.text(settings::dll_path))};
  } catch (const except_conf&) {
    const std::string reason = why_no_file(path);
    fail(path + ": " + (reason.empty() ? "cannot be read as settings" : reason));
  }
}

std::string check_scripts(const ScriptFolders& folders, Findings& findings) {
  check_settings(folders.settings, findings);
  const std::vector<std::string> good = compile_configured(folders, findings);
  if (!findings.has_faults()) warn_of_unknown_globals(good, declarations_in(folders.plugins), findings);
  std::vector<std::string> places = {folders.daemon, folders.script};
  if (is_folder(folders.external)) places.push_back(folders.external);
  return scripts_in(good.size(), places);
}

void check(const std::string& root, const std::vector<std::string>& dirs, bool strict, FILE* out) {
  Findings findings(out, strict);
  std::string checked;
  if (dirs.empty()) {
    const auto running = RunningDaemon::find(root);
    const std::string daemon = running ? running->folder() : installed_daemon_folder();
    std::optional<DaemonRights> rights;
    if (running) rights.emplace(running->process());
    checked = check_scripts(configured_folders(root, daemon), findings);
  } else {
    const std::vector<std::string> good = compile_dirs(dirs, findings);
    if (!findings.has_faults()) warn_of_unknown_globals(good, declarations_for_dirs(root), findings);
    checked = scripts_in(good.size(), dirs);
  }
  const std::string unlooked = findings.has_faults() ? "; globals that nothing defines were not looked for" : "";
  if (!findings.passed()) fail(findings.text() + unlooked);
  const std::string warnings = findings.text().empty() ? "" : ", " + findings.text();
  fprintf(out, "%s, no fault%s\n", escaped(checked).c_str(), warnings.c_str());
  findings.tell_unlooked();
}
