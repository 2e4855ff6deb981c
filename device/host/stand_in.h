// A thread that reads from posters while the event loop does not: during a long handler, a load, a reload, a sleep. So
// events are stamped when they come, and posters need not wait.
//
// The loop reads for itself whenever it looks for events: a thread in between would double the time that a single event
// takes. So this thread checks every kTickMs whether the loop has looked since the last check. If it has not, this
// thread reads one piece after another until the loop looks again: an event is read at most twice kTickMs late. The
// checks go on while events come. After kSilenceMs without one the thread sleeps in poll(2) on the posters' epoll set,
// where the kernel wakes it with the first event after the silence, whatever the loop does at that moment: the loop
// needs no system call for it.
#pragma once

#include <pthread.h>
#include <atomic>
#include <condition_variable>
#include <cstdint>

#include "device/host/event_inbox.h"
#include "device/host/event_posters.h"
#include "util/mutex.h"

constexpr int kTickMs = 4;
constexpr int kSilenceMs = 100;

// Tells whether the loop looks for events right now, and how often it has.
class LoopLooks {
 public:
  // Lives while the loop looks. Script thread.
  class Look {
   public:
    explicit Look(LoopLooks& the_looks) : looks(the_looks) { looks.step(); }
    Look(const Look&) = delete;
    Look& operator=(const Look&) = delete;
    ~Look() { looks.step(); }

   private:
    LoopLooks& looks;
  };

  // Changes when a look begins and when it ends. Any thread, as is_looking().
  uint32_t count() const { return steps.load(std::memory_order_relaxed); }
  static bool is_looking(uint32_t count) { return count % 2 != 0; }

 private:
  void step() { steps.store(count() + 1, std::memory_order_relaxed); }  // one writer: no atomic addition
  std::atomic<uint32_t> steps{0};
};

class StandIn {
 public:
  StandIn(const LoopLooks& the_looks, EventPosters& the_posters, EventInbox& the_inbox)
      : looks(the_looks), posters(the_posters), inbox(the_inbox) {}

  // Starts the thread, after everything has been opened. When that fails, logs it, and the loop reads alone. Main
  // thread.
  void start();

  // Ends and joins it. Main thread, before anything is closed.
  void stop();

 private:
  using Work = EventPosters::Work;

  static void* main(void* instance);
  void run();
  void sleep();
  void pause(int milliseconds);
  Work read_while_away(uint32_t since);

  const LoopLooks& looks;
  EventPosters& posters;
  EventInbox& inbox;
  pthread_t thread{};
  bool has_thread = false;  // main thread

  Mutex mutex;
  std::condition_variable_any stop_asked;
  std::atomic<bool> is_stopping{false};  // set under mutex
};
