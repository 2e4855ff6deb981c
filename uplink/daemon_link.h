// The way from the daemon: follows its events over the control socket, from a known one on, and connects again whenever
// the daemon goes or comes. What it could not see is told as a gap.
#pragma once

#include <poll.h>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ctl/control_client.h"

// The id of an event, "RUN-SEQUENCE".
struct EventId {
  std::string run;
  uint64_t sequence = 0;

  std::string text() const { return run + "-" + std::to_string(sequence); }
};

// Returns false, and leaves `id`, when `text` is not an id.
bool parse_event_id(const std::string& text, EventId& id);

// One thread only. Nothing throws.
class DaemonLink {
 public:
  struct Events {
    // A line `event` of docs/control.md.
    std::function<void(const AnswerLine& event)> on_event;
    // The events from `first` to `last` may be missing; `count` of them are, 0: nobody knows. They are ids of two runs
    // when the daemon was started anew.
    std::function<void(const std::string& first, const std::string& last, uint64_t count)> on_gap;
    // There is nothing to take over up to this id.
    std::function<void(const std::string& id)> on_passed;
  };

  struct State {
    bool following = false;
    int64_t since_ms = 0;    // steady_ms() of the last change
    std::string run;         // of the daemon that is or was followed
    std::string last_error;  // why it is not followed; safe for a terminal
    uint64_t connects = 0;
  };

  // Follows the daemon below `the_root` behind `last_known`, the id of an event; empty: from the next event on. `names`
  // are patterns, at most 32.
  DaemonLink(std::string the_root, const std::vector<std::string>& names, const std::string& last_known,
             Events all_events);

  // For the poll loop: what to wait for, how long at most (ms, -1: for as long as it takes), and what then is to be
  // done: at most 256 lines at a time.
  void add_descriptors(std::vector<pollfd>& out) const;
  int wait_ms() const;
  void run();

  const State& state() const { return current; }

 private:
  void connect();
  bool take_line();
  void take(const AnswerLine& line);
  void begin(const AnswerLine& line);
  void lose(const AnswerLine& line);
  void move_to(const std::string& id);
  void go_away(const std::string& reason);

  const std::string root;
  const std::string request_names;  // " names=...", or empty
  const Events events;
  State current;
  EventId position;                  // of the last event that was seen; no run: none yet
  bool is_position_unknown = false;  // to the daemon, which then takes it for one of another run
  std::unique_ptr<ControlClient> client;
  bool may_have_more = false;  // lines that were received and not taken yet
  int64_t next_try = 0;        // steady_ms(), while there is no client
  int retry_ms = 0;
  int64_t following_since = 0;
};
