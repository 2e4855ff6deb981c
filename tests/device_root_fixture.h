// The real device layer under a DEVICE_ROOT of its own, with its log in a file there.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "device/log.h"

class DeviceRoot : public testing::Test {
 protected:
  DeviceRoot() {
    char folder[] = "/tmp/zelvind-test-XXXXXX";
    root = mkdtemp(folder);
    setenv("DEVICE_ROOT", root.c_str(), 1);
    log_to("file:" + root + "/log");
  }
  ~DeviceRoot() override { std::filesystem::remove_all(root); }

  void log_to(const std::string& target) {
    setenv("ELOG_TARGET", target.c_str(), 1);
    errlog_init(3, "zelvind");
    elog_set_level("zelvind", 1);
  }

  static std::string read_file(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  // The log so far, without what stands in front of each line; a frame that is not as promised stays.
  std::string logged() const {
    static const std::regex frame("(^|\n)\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} zelvind\\[" +
                                  std::to_string(getpid()) + "\\] ");
    return std::regex_replace(read_file(root + "/log"), frame, "$1");
  }

  // Runs work() in a child process and returns its wait status.
  template <typename Work>
  static int in_child(Work&& work) {
    const pid_t child = fork();
    if (child == 0) {
      work();
      _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
  }

  std::string root;
};
