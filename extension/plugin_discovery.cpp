#include "extension/plugin_discovery.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "device/log.h"

namespace {

using Names = std::vector<std::string>;

constexpr size_t kNameMax = 62;

// Joined and not formatted into a buffer: a command that is cut would be another command.
std::string count_command(const std::string& dir, const char* tag) {
  return "cd " + dir + " && echo lib" + tag + "*.so | wc -w | sed 's/[^0-9]//g'";
}

std::string list_command(const std::string& dir, const char* tag) {
  return "cd " + dir + " && ls -t lib" + tag + "*.so";
}

// What the command writes to its standard output; nothing when it cannot be started. That there is no such file or
// folder is no error here, so the shell keeps its complaints to itself.
std::string output_of(const std::string& command) {
  FILE* const pipe = popen(("exec 2>/dev/null; " + command).c_str(), "re");
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

// A matching directory brings its contents, its own name with a ":" behind and empty lines into the listing.
bool is_plugin_name(const std::string& name, const std::string& start) {
  return name.size() >= start.size() + 3 && name.compare(0, start.size(), start) == 0 &&
         name.compare(name.size() - 3, 3, ".so") == 0;
}

Names plugin_names(const std::string& listing, const std::string& start) {
  Names names;
  size_t begin = 0;
  for (size_t end = 0; (end = listing.find('\n', begin)) != std::string::npos; begin = end + 1) {
    std::string name = listing.substr(begin, end - begin);
    if (is_plugin_name(name, start)) names.push_back(std::move(name));
  }
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
  // These change what the commands write. Nobody else in the daemon needs them.
  unsetenv("CDPATH");
  unsetenv("QUOTING_STYLE");
  const long count = strtol(output_of(count_command(dir, tag)).c_str(), nullptr, 10);
  Names names = plugin_names(output_of(list_command(dir, tag)), std::string("lib") + tag);
  names.resize(std::min(names.size(), static_cast<size_t>(std::max(count, 0L))));
  names.erase(std::remove_if(names.begin(), names.end(), is_too_long), names.end());
  return names;
}
