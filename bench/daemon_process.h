// The real daemon as another process, in a temporary folder of its own that is its DEVICE_ROOT.
//
// Its script may call report(TEXT), which writes one line into a pipe: so a caller knows at once what Lua has seen. The
// log is a file at level 1, so that a flood cannot block on it.
#pragma once

#include <sys/types.h>

#include <string>

#include "util/descriptor.h"

struct DaemonPlan {
  std::string program;           // the daemon's executable, with the default scripts beside it
  bool packaged = true;          // with the settings that the package ships, or with none
  std::string script;            // Lua that is loaded after server_event.lua
  std::string environment = {};  // one more entry NAME=VALUE
};

class DaemonProcess {
 public:
  // Makes the folder with settings and scripts. Starts nothing. Throws on failure, as everything here.
  explicit DaemonProcess(const DaemonPlan& plan);
  // Kills the daemon if it still runs, and removes the folder.
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // Starts it and waits until it accepts connections. Returns the seconds from its exec to the first connection.
  double start();

  // Sends SIGTERM and waits for the end, at most `limit_s`. Returns the seconds that it took; throws when it hangs or
  // ends with another status than 0.
  double stop(double limit_s = 20);

  // Waits for the next line that the script reports, at most `limit_s`; throws when none comes.
  std::string next_report(double limit_s = 100);
  // The reading end of the reports, for callers that read it themselves.
  int reports() const { return report_pipe.get(); }

  pid_t process() const { return pid; }
  int port() const { return listener_port; }
  std::string path(const std::string& file) const { return root + "/" + file; }
  std::string event_socket() const;
  Descriptor connect_poster() const;
  // What is in a file below the root; empty when there is none.
  std::string text_of(const std::string& file) const;

  double cpu_ns() const;          // that all its threads have used
  double wakeups() const;         // of all its threads, since they started
  double memory_kib() const;      // resident
  double own_memory_kib() const;  // resident and shared with nobody

 private:
  double status_kib(const std::string& key) const;

  const std::string program;
  const std::string environment;
  std::string root;
  int listener_port;
  Descriptor report_pipe;
  std::string reported;
  pid_t pid = 0;
};

// The daemon that is measured: the one named by ZELVIND_BENCH_DAEMON, or else the one of this build.
std::string daemon_program();

// Another build to compare with, named by ZELVIND_BENCH_AGAINST; empty when there is none.
std::string other_daemon_program();
