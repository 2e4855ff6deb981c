// What loads plug-ins in a test: the managers, and a temporary folder of empty files that are named like plug-ins. It
// is only looked at for names: the loader finds the plug-ins themselves through the run path of the test program.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "extension/manager_extension.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"
#include "util/lua_binding.h"

using Lines = std::vector<std::string>;

struct PluginFolder {
  PluginFolder() { std::filesystem::create_directory(path); }
  ~PluginFolder() { std::filesystem::remove_all(path); }

  // A file that was changed `age` seconds ago.
  void put(const std::string& name, int age = 0) const {
    std::ofstream(path / name).close();
    std::filesystem::last_write_time(path / name, now - std::chrono::seconds(age));
  }

  const std::filesystem::path path = "/tmp/zelvind-plugins-" + std::to_string(getpid());
  const std::filesystem::file_time_type now = std::filesystem::file_time_type::clock::now();
};

class PluginHost : public testing::Test {
 protected:
  PluginHost() {
    script.init();
    standin::reset();
  }
  void run_lua(const char* code) {
    ASSERT_EQ(clua_run_string(script.lua_state, code), 1) << clua_error_text(script.lua_state);
  }
  void end() {
    extension.prepare_cleanup();
    script.cleanup();
    extension.cleanup();
  }

  PluginFolder folder;
  ManagerScript script;
  ManagerExtension extension;
};
