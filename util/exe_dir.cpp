#include "util/exe_dir.h"

#include <unistd.h>

std::string exe_dir_of(std::string path) {
  if (path.size() <= 3) return path;
  if (path.back() == '/') path.pop_back();
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return path;
  return path.substr(0, slash == 2 ? 3 : slash);
}

std::string exe_dir() {
  char target[1024];
  const ssize_t length = readlink("/proc/self/exe", target, sizeof(target));
  return length < 0 ? std::string() : exe_dir_of(std::string(target, static_cast<size_t>(length)));
}
