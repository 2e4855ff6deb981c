// Where the daemon's executable lies: init_base.lua lies beside it, and it is the default script directory.
#pragma once

#include <unistd.h>

#include <string>

// The directory of `path` by the daemon's rule: a text of at most 3 characters is the result itself; one "/" at the end
// is dropped; then everything before the last "/" counts, except that a "/" at index 2 stays ("/a/zelvind" gives
// "/a/").
inline std::string exe_dir_of(std::string path) {
  if (path.size() <= 3) return path;
  if (path.back() == '/') path.pop_back();
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return path;
  return path.substr(0, slash == 2 ? 3 : slash);
}

// exe_dir_of the running executable, with symbolic links followed. Empty when the system does not tell. Any thread.
inline std::string exe_dir() {
  char target[1024];
  const ssize_t length = readlink("/proc/self/exe", target, sizeof(target));
  return length < 0 ? std::string() : exe_dir_of(std::string(target, static_cast<size_t>(length)));
}
