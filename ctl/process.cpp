#include "ctl/process.h"

#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <sstream>

std::optional<ProcessEntry> process_entry(pid_t pid) {
  std::ostringstream text;
  text << std::ifstream(proc_path(pid, "stat")).rdbuf();
  const std::string line = text.str();  // PID (NAME) STATE PARENT and more numbers; a name may hold anything
  const size_t begin = line.find('(') + 1;
  const size_t end = line.rfind(')');
  if (begin == 0 || end == std::string::npos) return std::nullopt;
  ProcessEntry entry{line.substr(begin, end - begin), 0, 0, 0};
  const char* const format = ") %c %d %*d %*d %*d %*d %*d %*d %*d %*d %*d %*d %*d %*d %*d %*d %*d %*d %*d %lld";
  if (sscanf(line.c_str() + end, format, &entry.state, &entry.parent, &entry.start_ticks) != 3) return std::nullopt;
  return entry;
}

std::string process_name(const std::string& path) {
  return path.substr(path.rfind('/') + 1, 15);
}

std::string daemon_text(pid_t pid) {
  return "the daemon (process " + std::to_string(pid) + ")";
}

std::string proc_path(pid_t pid, const char* entry) {
  return "/proc/" + std::to_string(pid) + "/" + entry;
}

std::string exe_of(pid_t pid) {
  char target[4096];
  const ssize_t length = readlink(proc_path(pid, "exe").c_str(), target, sizeof(target));
  return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

std::optional<std::string> environment_of(pid_t pid, const std::string& name) {
  std::ifstream environment(proc_path(pid, "environ"));
  if (environment.peek() == EOF) return std::nullopt;
  const std::string start = name + "=";
  for (std::string item; std::getline(environment, item, '\0');) {
    if (item.compare(0, start.size(), start) == 0) return item.substr(start.size());
  }
  return "";
}

double start_of(pid_t pid) {
  const auto entry = process_entry(pid);
  if (!entry) return 0;
  timespec today{};
  timespec since_boot{};
  clock_gettime(CLOCK_REALTIME, &today);
  clock_gettime(CLOCK_BOOTTIME, &since_boot);
  return seconds_of(today) - seconds_of(since_boot) +
         static_cast<double>(entry->start_ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}
