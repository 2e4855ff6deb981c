// A temporary folder of empty files that are named like plug-ins. It is only looked at for names: the loader finds the
// plug-ins themselves through the run path of the test program.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

class PluginFolder {
 public:
  PluginFolder() {
    char name[] = "/tmp/zelvind-plugins-XXXXXX";
    path = mkdtemp(name);
  }
  PluginFolder(const PluginFolder&) = delete;
  PluginFolder& operator=(const PluginFolder&) = delete;
  ~PluginFolder() { std::filesystem::remove_all(path); }

  // A file that was changed `age` seconds ago.
  void put(const std::string& name, int age = 0) const {
    const std::ofstream file(path / name);
    std::filesystem::last_write_time(path / name, now - std::chrono::seconds(age));
  }

  std::filesystem::path path;

 private:
  const std::filesystem::file_time_type now = std::filesystem::file_time_type::clock::now();
};
