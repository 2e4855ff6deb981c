// A real broker, mosquitto unless a test says otherwise, on a port of loopback, and certificates for it.
#pragma once

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "tests/cut_proxy.h"
#include "util/clock.h"

inline bool have_program(const std::string& name) {
  return system(("PATH=$PATH:/usr/sbin:/sbin; command -v " + name + " >/dev/null").c_str()) == 0;
}

// A temporary folder, removed with its content.
struct TemporaryFolder {
  TemporaryFolder() {
    char name[] = "/tmp/zelvind-broker-XXXXXX";
    path = mkdtemp(name);
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  std::string file(const std::string& name) const { return path + "/" + name; }
  std::string path;
};

// An authority (NAME.crt, NAME.key in `folder`) and what it signs. False: openssl has failed.
inline bool make_authority(const TemporaryFolder& folder, const std::string& name) {
  return system(("cd " + folder.path + " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes" +
                 " -keyout " + name + ".key -out " + name + ".crt -subj /CN=" + name + " -days 2 2>openssl.log")
                    .c_str()) == 0;
}
// `alternative`, e.g. "DNS:localhost", is the name that counts; -1 days: it has expired.
inline bool make_certificate(const TemporaryFolder& folder, const std::string& authority, const std::string& name,
                             const std::string& alternative, int days = 2) {
  std::ofstream(folder.file("names")) << "subjectAltName=" << alternative << "\n";
  return system(("cd " + folder.path + " && openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes" +
                 " -keyout " + name + ".key -out request -subj /CN=" + name + " 2>openssl.log &&" +
                 " openssl x509 -req -in request -CA " + authority + ".crt -CAkey " + authority + ".key" +
                 " -CAcreateserial -out " + name + ".crt -extfile names -days " + std::to_string(days) +
                 " 2>>openssl.log")
                    .c_str()) == 0;
}

class MqttBroker {
 public:
  // `lines`: of its configuration, beside the listener.
  explicit MqttBroker(std::string lines = "allow_anonymous true\n") : configuration(std::move(lines)) {}
  virtual ~MqttBroker() {
    end(SIGKILL);
    std::ifstream log(folder.file("log"));
    if (testing::Test::HasFailure() && log) std::cerr << "--- the broker's log\n" << log.rdbuf();
  }
  MqttBroker(const MqttBroker&) = delete;
  MqttBroker& operator=(const MqttBroker&) = delete;

  static bool is_installed() { return have_program("mosquitto"); }

  // Starts it on the port of before, or on one from the kernel, and waits until it accepts. False: it does not run.
  bool start() {
    if (used_port == 0) used_port = port_of(loopback_socket());
    const std::string line = "PATH=$PATH:/usr/sbin; " + command() + " >>'" + folder.file("log") + "' 2>&1";
    pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is killed leaves no broker behind
      execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
      _exit(127);
    }
    const int64_t until = steady_ms() + 60000;
    while (loopback_connection(used_port).get() < 0) {
      if (waitpid(pid, nullptr, WNOHANG) == pid) pid = 0;
      if (pid == 0 || steady_ms() > until) return false;
      usleep(2000);
    }
    return true;
  }
  // Ends it, if it runs, and waits for that. One that has just begun may forget a signal, so it gets several.
  void end(int signal_number = SIGTERM) {
    const int64_t patience = steady_ms() + 10000;
    while (pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0) {
      kill(pid, steady_ms() < patience ? signal_number : SIGKILL);
      usleep(2000);
    }
    pid = 0;
  }

  void send_signal(int number) const { kill(pid, number); }

  int port() const { return used_port; }

  TemporaryFolder folder;
  std::string configuration;

 protected:
  // Writes what the broker reads at its start, and returns the shell's command to start it.
  virtual std::string command() {
    std::ofstream(folder.file("conf")) << "listener " << used_port << " 127.0.0.1\n"
                                       << (geteuid() == 0 ? "user root\n" : "") << configuration;
    return "exec mosquitto -c '" + folder.file("conf") + "'";
  }

 private:
  int used_port = 0;
  pid_t pid = 0;
};
