#include "ctl/configuration.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <memory>

#include "ctl/failure.h"
#include "device/log.h"
#include "device/settings.h"
#include "util/except.h"
#include "util/text.h"

namespace {

// The daemon complains about its settings in its log; here its complaints would only get in the way.
void silence_settings() {
  elog_set_level("zelvctl", 0);
}

// The daemon's working directory is "/".
std::string from_root(const std::string& path) {
  return path.empty() || path.front() == '/' ? path : "/" + path;
}

std::string reason_of(int error) {
  return error == EACCES ? sstr("%s for user %u", error_text(error).c_str(), geteuid()) : error_text(error);
}

}  // namespace

ScriptFolders configured_folders(const std::string& root, const std::string& daemon) {
  silence_settings();
  const std::string path = root + kSettingsPath;
  try {
    SettingsFile file;
    return {path, daemon, from_root(file.text(settings::script_path, daemon)),
            from_root(file.text(settings::external_path)), from_root(file.text(settings::dll_path))};
  } catch (const except_conf&) {
    const std::string reason = why_unreadable_file(path);
    fail(path + ": " + (reason.empty() ? "cannot be read as settings" : reason));
  }
}

int configured_port() {
  silence_settings();
  int port = settings::listener_port.absent;
  try {
    port = SettingsFile().number(settings::listener_port);
  } catch (const except_conf&) {  // without a file the default counts
  }
  return port;
}

std::string configured_address() {
  silence_settings();
  try {
    return SettingsFile().written(settings::listener_address).value_or(ListenEndpoint().text());
  } catch (const except_conf&) {
    return ListenEndpoint().text();
  }
}

std::string why_unreadable_file(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return reason_of(errno);
  if (!S_ISREG(status.st_mode)) return "is not a regular file";
  return access(path.c_str(), R_OK) == 0 ? "" : reason_of(errno);
}

std::string why_unreadable_folder(const std::string& path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), closedir);
  return folder == nullptr ? reason_of(errno) : "";
}
