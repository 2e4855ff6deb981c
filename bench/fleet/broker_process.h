// A broker, and an uplink, as other processes in a temporary folder. Everything throws on failure.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

// A program that is killed with its owner.
class Process {
 public:
  // `arguments` with the program first, looked for in PATH; `environment`: more entries NAME=VALUE. Its output goes to
  // the file `log`.
  Process(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
          const std::string& log);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void end(int signal_number);  // and waits for it
  pid_t id() const { return pid; }
  double cpu_s() const;       // of all its threads
  double memory_kib() const;  // resident

 private:
  pid_t pid;
};

// The settings of a broker on `port` of 127.0.0.1; what it keeps is in `folder`.
std::string settings_of(const std::string& program, int port, const std::string& folder);

// Writes `settings`, starts mosquitto or nats-server with them, and returns when the port accepts.
std::unique_ptr<Process> start_broker(const std::string& program, int port, const std::string& folder,
                                      const std::string& settings);
