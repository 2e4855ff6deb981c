// A thread that reads from posters while the event loop does not: during a long handler, a load, a reload, a sleep. So
// events have the time stamps of their coming, and who posts them is not kept waiting.
//
// The loop reads for itself whenever it looks for events: a thread in between would double the time that a single event
// takes. So this thread asks every kTickMs whether the loop has looked since it asked before, and only reads when it
// has not, one piece at a time until the loop looks again: an event is read at most twice kTickMs late. It ticks while
// events come. When none has come for kSilenceMs it sleeps, in poll(2) on the set of the posters, until the kernel
// finds something to be read there, whoever should have read it: an event that ends a silence wakes it, no other does,
// and neither that nor anything else costs the loop a system call.
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
constexpr int kLongestPauseMs = 500;  // between looks whether a full inbox has room again, when nobody takes from it

// Whether the loop looks for events, and how often it has.
class LoopLooks {
 public:
  // The loop looks as long as this lives. Script thread.
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

  // Starts the thread, with everything open; without it, the log says so and the loop reads alone. Main thread.
  void start();

  // Ends and joins it. Main thread, before anything is closed.
  void stop();

 private:
  static void* main(void* instance);
  void run();
  void sleep();
  void pause(int milliseconds);
  EventPosters::Work read_while_away(uint32_t since);

  const LoopLooks& looks;
  EventPosters& posters;
  EventInbox& inbox;
  pthread_t thread{};
  bool has_thread = false;  // main thread

  Mutex mutex;
  std::condition_variable_any stop_asked;
  std::atomic<bool> is_stopping{false};  // set under mutex
};
