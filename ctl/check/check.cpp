#include "ctl/check/check.h"

#include <pwd.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>

#include "ctl/check/compile.h"
#include "ctl/check/luacheck.h"
#include "ctl/daemon_rights.h"
#include "ctl/failure.h"
#include "ctl/human_text.h"
#include "ctl/running_daemon.h"
#include "device/settings.h"
#include "device/store_text.h"
#include "uplink/uplink_settings.h"
#include "util/safe_text.h"
#include "util/script_files.h"
#include "util/text.h"

namespace {

constexpr char kUplinkUser[] = "zelvind-uplink";  // of the package

// Warns of what the daemon ignores in its settings file `path`, where the embedded store keeps it.
void check_settings(const ScriptFolders& folders, Findings& findings) {
  const std::string& path = folders.settings;
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  const StoreText store = parse_store(text.str());
  for (const StoreComplaint& complaint : store.complaints) {
    findings.warn(complaint.line == 0 ? path : path + ":" + std::to_string(complaint.line), complaint.text);
  }
  if (store.more_complaints > 0) findings.warn(path, sstr("%d more bad lines", store.more_complaints));
  std::vector<std::string> known;
  for (const Setting* setting : settings::kAll) known.emplace_back(setting->key);
  for (const auto& [key, value] : store.values) {
    const Setting* const setting = settings::find(key);
    if (setting == nullptr) {
      findings.warn(path, "the daemon has no setting '" + key + "'" + suggestion_for(key, known));
    } else if (const std::string problem = settings::problem(*setting, value); !problem.empty()) {
      findings.warn(path, problem);
    }
  }
  const bool has_scripts = why_unreadable_file(script_in(folders.daemon, "config.lua")).empty();
  if (!has_scripts && store.values.find("script_path") == store.values.end()) {
    findings.warn(path, "script_path is not set: scripts are looked for beside the daemon, in " + folders.daemon);
  }
  const std::string reason = why_unreadable_folder(folders.plugins);
  if (!reason.empty()) findings.warn(folders.plugins, "dll_path: " + reason);
}

// What defines globals for scripts that are not the configured ones: init_base.lua, and plug-ins if there are settings.
std::vector<std::string> installed_declarations(const std::string& root) {
  std::string daemon = installed_daemon_folder();
  std::vector<std::string> files;
  try {
    if (const auto running = RunningDaemon::find(root)) daemon = running->folder();
    files = plugin_declarations(configured_folders(root, daemon).plugins);
  } catch (const Failure&) {
  }
  files.push_back(script_in(daemon, "init_base.lua"));
  return files;
}

// "2 scripts in PLACE, PLACE"; each place once.
std::string scripts_in(size_t scripts, const std::vector<std::string>& places) {
  std::string text = number_of(scripts, "script");
  std::set<std::string> named;
  for (const std::string& place : places) {
    if (named.insert(place).second) text += (named.size() == 1 ? " in " : ", ") + place;
  }
  return text;
}

// Whether the package's user of the uplink is there and we can take its rights: root can read all files, and it cannot.
bool has_uplink_user(const std::string& root) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs
  return root.empty() && geteuid() == 0 && getpwnam(kUplinkUser) != nullptr;
}

// Reports what is wrong with the settings of the uplink. Returns false where there are none. Without the daemon's
// rights: the file is not for the daemon.
bool check_uplink(const std::string& root, Findings& findings) {
  const std::string path = root + kUplinkSettingsPath;
  if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) return false;
  if (access(path.c_str(), R_OK) != 0 && errno == EACCES) {
    findings.warn(path, "was not checked: " + why_unreadable_file(path));
    return false;
  }
  std::optional<DaemonRights> rights;
  if (has_uplink_user(root)) rights.emplace(kUplinkUser);
  const auto told = [&](const std::string& text) {
    const std::string denied = strerrordesc_np(EACCES);
    const bool is_denied = text.size() >= denied.size() && text.rfind(denied) == text.size() - denied.size();
    return rights && is_denied ? text + " for the user " + kUplinkUser : text;
  };
  const UplinkSettingsResult result = read_uplink_settings(root);
  for (const std::string& problem : result.problems) findings.fault(path + ": " + told(problem));
  for (const std::string& warning : result.warnings) findings.warn(path, told(warning));
  return true;
}

std::string check_daemon(const CheckRequest& request, Findings& findings) {
  const bool has_uplink = check_uplink(request.root, findings);
  const auto running = RunningDaemon::find(request.root);
  const std::string daemon = running ? running->folder() : installed_daemon_folder();
  std::optional<DaemonRights> rights;
  if (!request.user.empty()) {
    rights.emplace(request.user);
  } else if (running) {
    rights.emplace(running->process());
  }
  return check_configured(configured_folders(request.root, daemon), findings) +
         (has_uplink ? " and the settings of the uplink" : "");
}

std::string check_places(const CheckRequest& request, Findings& findings) {
  std::optional<DaemonRights> rights;
  if (!request.user.empty()) rights.emplace(request.user);
  const std::vector<std::string> good = compile_places(request.places, findings);
  check_globals(good, installed_declarations(request.root), findings);
  return scripts_in(good.size(), request.places);
}

}  // namespace

std::string check_configured(const ScriptFolders& folders, Findings& findings) {
  check_settings(folders, findings);
  const std::vector<std::string> good = compile_configured(folders, findings);
  check_globals(good, plugin_declarations(folders.plugins), findings);
  std::vector<std::string> places = {folders.daemon, folders.script};
  std::error_code ignored;
  if (std::filesystem::is_directory(folders.external, ignored)) places.push_back(folders.external);
  return scripts_in(good.size(), places);
}

void check_scripts(const CheckRequest& request, FILE* out) {
  Findings findings(out, request.strict);
  const std::string checked =
      request.places.empty() ? check_daemon(request, findings) : check_places(request, findings);
  const std::string unchecked = findings.globals_text();
  if (!findings.passed()) fail(findings.counts() + (findings.has_faults() ? "; " + unchecked : ""));
  const std::string warnings = findings.counts().empty() ? "" : ", " + findings.counts();
  fprintf(out, "%s, no faults%s\n", escaped(checked).c_str(), warnings.c_str());
  if (!unchecked.empty()) fprintf(out, "%s\n", unchecked.c_str());
}
