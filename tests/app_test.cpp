#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app/signal_ring.h"
#include "app/signals.h"
#include "tests/standin_device.h"

namespace {

std::function<void()> g_after_load;  // called once, right after a counter of the ring was read

class WatchedCounter : public std::atomic<uint32_t> {
 public:
  using std::atomic<uint32_t>::atomic;
  uint32_t load() const {
    const uint32_t value = std::atomic<uint32_t>::load();
    if (g_after_load) std::exchange(g_after_load, nullptr)();
    return value;
  }
};

TEST(Signals, ARingWithRoomTakesWhatIsOvertaken) {
  SignalRing<WatchedCounter> ring;
  g_after_load = [&] {
    ring.add(SIGPIPE);
    EXPECT_EQ(ring.take(), SIGPIPE);
  };
  EXPECT_TRUE(ring.add(SIGHUP));
  EXPECT_EQ(ring.take(), SIGHUP);
}

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
