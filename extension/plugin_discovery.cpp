#include "extension/plugin_discovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include "device/log.h"

namespace {

using Names = std::vector<std::string>;

constexpr size_t kNameMax = 62;

bool is_plugin_name(const std::string& name, const std::string& start) {
  return name.size() >= start.size() + 3 && name.compare(0, start.size(), start) == 0 &&
         name.compare(name.size() - 3, 3, ".so") == 0;
}

// True for a text that the shell takes literally.
bool is_plain(const std::string& text) {
  return text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-+.,/") ==
         std::string::npos;
}

// What the shell's commands below would list, at a hundredth of their time. Nothing where they could differ: for a
// folder or a name that the shell does not take literally, a matching directory, and two files that were changed at the
// same time, whose order depends on the locale.
std::optional<Names> list_here(const std::string& dir, const std::string& start) {
  if (dir[0] != '/' || dir.find("..") != std::string::npos || !is_plain(dir)) return {};
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(dir.c_str()), closedir);
  if (folder == nullptr) return Names{};
  std::vector<std::pair<timespec, std::string>> files;
  while (const dirent* entry = readdir(folder.get())) {
    std::string name = entry->d_name;
    if (!is_plugin_name(name, start)) continue;
    struct stat status {};  // of a link itself, as for ls, unless it leads to a directory
    if (!is_plain(name) || fstatat(dirfd(folder.get()), name.c_str(), &status, 0) != 0 || S_ISDIR(status.st_mode) ||
        fstatat(dirfd(folder.get()), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      return {};
    }
    files.emplace_back(status.st_mtim, std::move(name));
  }
  const auto moment = [](const auto& file) { return std::make_pair(file.first.tv_sec, file.first.tv_nsec); };
  const auto is_newer = [&](const auto& a, const auto& b) { return moment(a) > moment(b); };
  const auto is_as_old = [&](const auto& a, const auto& b) { return moment(a) == moment(b); };
  std::sort(files.begin(), files.end(), is_newer);
  if (std::adjacent_find(files.begin(), files.end(), is_as_old) != files.end()) return {};
  Names names;
  for (auto& file : files) names.push_back(std::move(file.second));
  return names;
}

// Concatenated, not formatted into a buffer: a truncated command would be another command.
std::string count_command(const std::string& dir, const char* tag) {
  return "cd " + dir + " && echo lib" + tag + "*.so | wc -w | sed 's/[^0-9]//g'";
}

std::string list_command(const std::string& dir, const char* tag) {
  return "cd " + dir + " && ls -t lib" + tag + "*.so";
}

// What the command writes to its standard output; nothing when it cannot be started. A missing file or folder is not an
// error, so standard error is discarded; the two variables would change the output of the commands.
std::string output_of(const std::string& command) {
  FILE* const pipe = popen(("exec 2>/dev/null; unset CDPATH QUOTING_STYLE; " + command).c_str(), "re");
  if (pipe == nullptr) return "";
  std::string output;
  char piece[4096];
  for (;;) {
    const ssize_t size = read(fileno(pipe), piece, sizeof(piece));
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) break;
    output.append(piece, static_cast<size_t>(size));
  }
  pclose(pipe);
  return output;
}

// For a matching directory the listing also has its name with a ":", its contents and empty lines.
Names plugin_names(const std::string& listing, const std::string& start) {
  Names names;
  size_t begin = 0;
  for (size_t end = 0; (end = listing.find('\n', begin)) != std::string::npos; begin = end + 1) {
    std::string name = listing.substr(begin, end - begin);
    if (is_plugin_name(name, start)) names.push_back(std::move(name));
  }
  return names;
}

Names list_by_shell(const std::string& dir, const char* tag) {
  const long count = strtol(output_of(count_command(dir, tag)).c_str(), nullptr, 10);
  Names names = plugin_names(output_of(list_command(dir, tag)), std::string("lib") + tag);
  names.resize(std::min(names.size(), static_cast<size_t>(std::max(count, 0L))));
  return names;
}

bool is_too_long(const std::string& name) {
  if (name.size() <= kNameMax) return false;
  elog(1, "mextension: file name longer than %zu characters, not loaded[%s]", kNameMax, name.c_str());
  return true;
}

}  // namespace

std::vector<std::string> list_plugins(const std::string& dir, const char* tag) {
  if (dir.empty()) return {};  // the shell would look into the home directory
  std::optional<Names> listed = list_here(dir, std::string("lib") + tag);
  Names names = listed ? std::move(*listed) : list_by_shell(dir, tag);
  names.erase(std::remove_if(names.begin(), names.end(), is_too_long), names.end());
  return names;
}
