#include "ctl/process_entry.h"

#include <cstdio>
#include <fstream>
#include <sstream>

std::optional<ProcessEntry> process_entry(pid_t pid) {
  std::ostringstream text;
  text << std::ifstream("/proc/" + std::to_string(pid) + "/stat").rdbuf();
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
