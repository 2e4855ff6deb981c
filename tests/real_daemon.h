// The real daemon under a temporary DEVICE_ROOT, for tests that start it as its user would.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "tests/event_client.h"

// False when `condition` has not come true within 20 s.
bool wait_until(const std::function<bool()>& condition);

// The whole text of a file, empty when there is none.
std::string read_file(const std::string& path);

class RealDaemon {
 public:
  // Makes the root with a configuration (log level 3, a port from the kernel, scripts from ROOT/scripts) and the
  // default scripts. Nothing is started.
  RealDaemon();
  // Kills what still runs and removes the root; shows the log when the test has failed.
  ~RealDaemon();
  RealDaemon(const RealDaemon&) = delete;
  RealDaemon& operator=(const RealDaemon&) = delete;

  // Writes ROOT/`file`, making its folder.
  void write(const std::string& file, const std::string& text) const;
  std::string path(const std::string& file) const { return root + "/" + file; }
  // The text of ROOT/`file`, in which ROOT stands for the root.
  std::string text_of(const std::string& file) const;

  // Runs a command line through a shell, with DEVICE_ROOT and ELOG_TARGET (ROOT/log) set; $ROOT is the root, $ZELVIND
  // the daemon's program, $FAULTY the one of tests/faults.cpp, and zelvctl is found. Returns the shell's exit status
  // once the invoking process has ended.
  int launch(const std::string& command) const;
  // Starts it, waits for its process id in ROOT/pid and its last start line. False when they did not come.
  bool start(const std::string& command = "$ZELVIND -p $ROOT/pid >/dev/null 2>>$ROOT/stderr");
  // Waits for the process id in ROOT/pid.
  bool read_pid();
  // The number that follows `part` where it comes last in the log.
  int last_number_behind(const std::string& part) const;
  int port() const { return last_number_behind("listening on port "); }
  // Has the fault in $FAULT befall $FAULTY from now on, or no longer.
  void arm(bool on) const;

  // Runs zelvctl to its end; `output` and `errors` are texts as of text_of.
  void expect_zelvctl(const std::string& arguments, int status, const std::string& output,
                      const std::string& errors) const;

  bool send_signal(int number) const;
  // Subscribes `client` to `names`, comma-separated, and waits until the daemon heeds them.
  void subscribe(EventClient& client, const std::string& names);
  // Sends lines to the event socket and waits until the daemon has taken them in. False when it went away.
  bool post(const std::string& lines) const;

  // Waits until the log holds `part` `count` times; false after 20 s.
  bool wait_for(const std::string& part, size_t count = 1) const;
  std::string log() const;
  size_t count(const std::string& part) const;

  // Waits for the daemon's end, at most 20 s. Its exit status, -1 when it did not end, 128 + signal when it was killed.
  int wait_for_end();
  int stop();  // sends SIGTERM first
  pid_t process() const { return pid; }

 private:
  std::string root;
  pid_t pid = 0;
  int subscriptions = 0;
};
