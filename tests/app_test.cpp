#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <thread>
#include <vector>

#include "app/except.h"
#include "app/exe_dir.h"
#include "app/signals.h"
#include "tests/standin_device.h"

namespace {

TEST(ExeDir, Rule) {
  const std::vector<std::pair<const char*, const char*>> rows = {
      {"/usr/bin/zelvind", "/usr/bin"},
      {"/a/zelvind", "/a/"},
      {"/zelvind", ""},
      {"/usr/bin/", "/usr"},
      {"/a/", "/a/"},
      {"zelvind", "zelvind"},
      {"/ab/zelvind", "/ab"},
      {"/ab/", ""},
  };
  for (const auto& [path, wanted] : rows) EXPECT_EQ(exe_dir_of(path), wanted) << path;
}

TEST(Except, FormatsAndCuts) {
  EXPECT_STREQ(except_conf("a %d", 5).what(), "a 5");
  EXPECT_EQ(std::string(except_base("%s", std::string(20000, 'x').c_str()).what()).size(), 10239u);
}

TEST(Signals, LinesComeInOrderAndAStopIsRememberedForGood) {
  standin::reset();
  install_signals();
  for (const int number : {SIGHUP, SIGPIPE, SIGHUP}) raise(number);
  write_signal_lines();
  EXPECT_EQ(standin::log_lines(), (std::vector<std::string>{"<1> signal_handler: SIGHUP", "<1> signal_handler: SIGPIPE",
                                                            "<1> signal_handler: SIGHUP"}));

  // More than the ring holds, from several threads while the lines are written: none is written twice, none blocks.
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([] {
      for (int k = 0; k < 2000; ++k) raise(SIGPIPE);
    });
  }
  for (int i = 0; i < 100; ++i) write_signal_lines();
  for (std::thread& thread : threads) thread.join();
  write_signal_lines();
  EXPECT_LE(standin::log_lines_with("SIGPIPE").size(), 6001u);
  EXPECT_GE(standin::log_lines_with("SIGPIPE").size(), 257u);

  raise(SIGTERM);
  resume_running();
  EXPECT_EQ(g_running, 0);
}

}  // namespace
