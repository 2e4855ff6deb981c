// What the control socket answers: the counts of all rooms as lines of text (docs/control.md).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "control/control_server.h"
#include "util/rate_limit.h"

class EventRing;
class ManagerListener;
class ManagerScript;

// What the daemon does from now on: `state` is a literal, one of those in docs/control.md. Main thread.
void enter_state(const char* state);

class ControlRequests {
 public:
  // The managers and the ring must live until the server that has the commands is stopped.
  ControlRequests(ManagerScript& the_script, ManagerListener& the_listener, EventRing& the_ring);

  // The requests, for a server. They use this object.
  std::vector<ControlCommand> commands();

  // Main thread, before the server starts: of the settings file, and the server for its own counts.
  void set_log_level(int level);
  void set_script_memory(int kib) { script_memory_kib = kib; }
  void set_server(const ControlServer& the_server) { server = &the_server; }

 private:
  void add_stats(Answer& answer, const std::string& where) const;
  void add_daemon(Answer& answer) const;
  void add_listener(Answer& answer) const;
  void add_control(Answer& answer) const;
  void add_clients(Answer& answer) const;
  void say_log_level(const ControlRequest& request, int level);
  void change_log_level(const ControlRequest& request, Answer& answer);

  ManagerScript& script;
  ManagerListener& listener;
  EventRing& ring;
  const ControlServer* server = nullptr;
  const std::string program;
  const int64_t started_s;   // since 1970
  const int64_t started_ns;  // steady_ns
  int script_memory_kib = 0;
  std::atomic<int> log_level{1};
  RateLimit level_lines;  // the control thread's
};
