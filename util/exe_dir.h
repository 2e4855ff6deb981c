// The folder of the daemon's executable, which holds init_base.lua and is the default script directory.
#pragma once

#include <unistd.h>

#include <string>

// The folder of `path`, by the daemon's rule: everything before the last "/", after one trailing "/" has been dropped.
// A "/" at index 2 stays ("/a/zelvind" gives "/a/"). A path of at most 3 characters, or without a "/", is its own
// result.
inline std::string exe_dir_of(std::string path) {
  if (path.size() <= 3) return path;
  if (path.back() == '/') path.pop_back();
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return path;
  return path.substr(0, slash == 2 ? 3 : slash);
}

// exe_dir_of the running executable, with symbolic links followed. Empty when /proc cannot be read. Any thread.
inline std::string exe_dir() {
  char target[1024];
  const ssize_t length = readlink("/proc/self/exe", target, sizeof(target));
  return length < 0 ? std::string() : exe_dir_of(std::string(target, static_cast<size_t>(length)));
}
