#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "app/signals.h"
#include "tests/standin_device.h"

namespace {

TEST(Signals, LinesComeInOrderAndAStopIsRememberedForGood) {
  standin::reset();
  install_signals();
  for (const int number : {SIGHUP, SIGPIPE, SIGHUP}) raise(number);
  write_signal_lines();
  const std::string line = "<1> signal_handler: SIG";
  EXPECT_EQ(standin::log_lines(), (std::vector<std::string>{line + "HUP", line + "PIPE", line + "HUP"}));

  // What came meanwhile, on whatever thread, ends the next wait.
  alarm(20);
  raise(SIGPIPE);
  wait_for_signal();
  std::thread([] { raise(SIGPIPE); }).detach();
  wait_for_signal();
  alarm(0);
  write_signal_lines();

  // Of more than the ring holds, the first ones have their lines.
  standin::reset();
  raise(SIGHUP);
  for (int i = 0; i < 300; ++i) raise(SIGPIPE);
  write_signal_lines();
  EXPECT_EQ(standin::log_lines().front(), line + "HUP");
  EXPECT_EQ(standin::log_lines().size(), 256u);

  // More, from several threads while the lines are written: none is written twice, none blocks.
  standin::reset();
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([] {
      for (int k = 0; k < 2000; ++k) raise(SIGPIPE);
    });
  }
  for (int i = 0; i < 100; ++i) write_signal_lines();
  for (std::thread& thread : threads) thread.join();
  write_signal_lines();
  EXPECT_LE(standin::log_lines_with("SIGPIPE").size(), 6000u);
  EXPECT_GE(standin::log_lines_with("SIGPIPE").size(), 256u);

  raise(SIGTERM);
  resume_running();
  EXPECT_EQ(g_running, 0);
}

}  // namespace
