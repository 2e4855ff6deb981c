// The real device layer under a DEVICE_ROOT of its own, with its log in a file there.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

  // The log so far, without what stands in front of each line; a frame that is not as promised stays.
  std::string logged() const {
    const std::string program = " zelvind[" + std::to_string(getpid()) + "] ";
    const int date_size = 23;  // "2026-11-22 19:26:33.123"
    std::string text;
    std::ifstream file(root + "/log");
    for (std::string line; std::getline(file, line); text += line + "\n") {
      int date_end = 0;
      sscanf(line.c_str(), "%*d-%*2d-%*2d %*2d:%*2d:%*2d.%*3d%n", &date_end);
      const bool framed = date_end == date_size && line.compare(date_size, program.size(), program) == 0;
      if (framed) line.erase(0, date_size + program.size());
    }
    return text;
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
