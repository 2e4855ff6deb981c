// Those who do no harm beside the attackers: a poster, a network client that reads everything, newcomers, and Lua.
//
// The poster sends numbered lines at a steady pace, the script reports each when it handles it and every tick of a
// timer, the client notes what it gets and how late its stamp is, and a newcomer connects four times a second and
// waits for its first event. Each of them is a thread; all times are of one clock in this process.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "bench/daemon_process.h"

// What they saw in one phase. Times in ms; an empty list where nothing came.
struct Seen {
  std::vector<double> client;    // from the planned time of a line to its packet
  std::vector<double> handled;   // from the planned time of a line to its handler
  std::vector<double> stamp;     // from the sending of a line to the stamp that it got
  std::vector<double> tick;      // how much later than a second after the one before a tick came
  std::vector<double> newcomer;  // from connect to the first event
  int newcomers_failed = 0;      // that were turned away, or had nothing after 5 s
  int lost = 0;                  // lines that were handled, and that the client did not get
  int unhandled = 0;             // lines that could not be sent, or were not handled for long after the attack
  double held_ms = 0;            // sum of the pauses of more than 100 ms between two handled lines
};

struct WitnessPlan {
  int pad = 0;                 // bytes added to every line, for attacks that live by the amount of data
  bool fresh_posters = false;  // every line comes over a connection of its own
};

// The handlers that the witnesses need.
extern const char kWitnessScript[];

class Witnesses {
 public:
  // Connects the client and waits until it is subscribed. The threads start here; fork before.
  Witnesses(DaemonProcess& watched, const WitnessPlan& plan, double longest_s);
  ~Witnesses();
  Witnesses(const Witnesses&) = delete;
  Witnesses& operator=(const Witnesses&) = delete;

  // Ends the phase that has been running, the peaceful one first. Returns at once.
  void next_phase();

  // Ends the last phase: no more lines are sent; waits until those that were sent are handled, for `patience_s` at
  // most, and until the client has them. Afterwards `seen` is there.
  void finish(double patience_s);

  // Of phase `wanted`; 0 is the first.
  Seen seen(int wanted) const;

 private:
  struct Line {
    int phase = -1;
    int64_t planned_ns = 0;
    int64_t sent_us = 0;  // wall clock; 0 while it could not be sent
    std::atomic<int64_t> handled_ns{0};
    std::atomic<int64_t> received_ns{0};
    int64_t stamp_us = 0;
  };
  struct Sample {
    int phase;
    double ms;
  };

  void post_lines();
  bool send_line(Line& line, size_t number);
  void read_reports();
  void take_report(const std::string& report);
  void read_events();
  void take_events(std::string& bytes);
  void send_newcomers();
  bool all_done() const;

  DaemonProcess& daemon;
  const WitnessPlan plan;
  Descriptor client;
  Descriptor poster;        // poster thread
  std::vector<Line> lines;  // each field by one thread, read by others once that has ended
  std::atomic<size_t> sent{0};
  std::atomic<int> phase{0};
  std::atomic<bool> is_posting{true};
  std::atomic<bool> is_reading{true};
  int64_t last_tick_ns = 0;       // report thread
  std::vector<Sample> ticks;      // report thread
  std::vector<Sample> newcomers;  // newcomer thread; -1 ms for one that failed
  std::vector<std::thread> posting_threads;
  std::vector<std::thread> reading_threads;
};
