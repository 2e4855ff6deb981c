// The real daemon under a temporary DEVICE_ROOT, for tests that start it as its user would.
#pragma once

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "tests/event_client.h"
#include "util/unix_socket.h"

// False when `condition` has not come true within 20 s.
template <typename Condition>
bool wait_until(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// The whole text of a file, empty when there is none.
inline std::string read_file(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

class RealDaemon {
 public:
  // Makes the root with a configuration (log level 3, a port from the kernel, scripts from ROOT/scripts) and the
  // default scripts. Nothing is started.
  RealDaemon() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // the daemon detaches; its exit status still comes to us
    char name[] = "/tmp/zelvind-XXXXXX";
    root = mkdtemp(name);
    write("opt/flash/mtd4-cfg/zelvind.info",
          "log_level = 3\nlistener_port = 0\nscript_path = " + path("scripts") + "\n");
    for (const std::string script : {"config.lua", "server_event.lua"}) {
      write("scripts/" + script, read_file(ZELVIND_LUA_DIR "/" + script));
    }
  }
  // Kills what still runs and removes the root; shows the log when the test has failed.
  ~RealDaemon() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    if (testing::Test::HasFailure()) std::cerr << "--- the daemon's log\n" << log() << read_file(path("stderr"));
    std::error_code ignored;  // a command in the background may still write
    std::filesystem::remove_all(root, ignored);
  }
  RealDaemon(const RealDaemon&) = delete;
  RealDaemon& operator=(const RealDaemon&) = delete;

  // Writes ROOT/`file`, making its folder.
  void write(const std::string& file, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(path(file)).parent_path());
    std::ofstream(path(file)) << text;
  }
  std::string path(const std::string& file) const { return root + "/" + file; }
  // The text of ROOT/`file`, in which ROOT stands for the root.
  std::string text_of(const std::string& file) const {
    std::string text = read_file(path(file));
    for (size_t at = 0; (at = text.find(root)) != std::string::npos;) text.replace(at, root.size(), "ROOT");
    return text;
  }

  // Runs a command line through a shell, with DEVICE_ROOT and ELOG_TARGET (ROOT/log) set; $ROOT is the root, $ZELVIND
  // the daemon's program, $FAULTY the one of tests/faults.cpp, and zelvctl is found. Returns the shell's exit status
  // once the invoking process has ended.
  int launch(const std::string& command) const {
    const std::string line = "export ROOT='" + root + "'; export DEVICE_ROOT=$ROOT ELOG_TARGET=file:$ROOT/log" +
                             " FAULT_ARMED=$ROOT/armed ZELVIND='" ZELVIND "' FAULTY='" FAULTY_ZELVIND "';" +
                             "PATH=${ZELVIND%/*}:$PATH; " + command;
    return WEXITSTATUS(system(line.c_str()));
  }
  // Starts it, waits for its process id in ROOT/pid and its last start line. False when they did not come.
  bool start(const std::string& command = "$ZELVIND -p $ROOT/pid >/dev/null 2>>$ROOT/stderr") {
    launch(command);
    return read_pid() && wait_for("zelvind: complete to start program");
  }
  // Waits for the process id in ROOT/`file`.
  bool read_pid(const std::string& file = "pid") {
    const auto complete = [&] { return read_file(path(file)).find('\n') != std::string::npos; };
    if (wait_until(complete)) pid = static_cast<pid_t>(std::stol(read_file(path(file))));
    return pid > 0;
  }
  // The number that follows `part` where it comes last in the log.
  int last_number_behind(const std::string& part) const {
    const std::string text = log();
    return atoi(text.c_str() + text.rfind(part) + part.size());
  }
  int port() const { return last_number_behind("listening on port "); }

  // Runs zelvctl to its end; `output` and `errors` are texts as of text_of.
  void expect_zelvctl(const std::string& arguments, int status, const std::string& output,
                      const std::string& errors) const {
    SCOPED_TRACE(arguments.substr(0, 100));
    EXPECT_EQ(launch("exec >$ROOT/out 2>$ROOT/err; zelvctl " + arguments), status);
    EXPECT_EQ(text_of("out"), output);
    EXPECT_EQ(text_of("err"), errors);
  }

  // Has the fault in $FAULT befall $FAULTY from now on, or no longer.
  void arm(bool on) const { on ? write("armed", "") : static_cast<void>(std::filesystem::remove(path("armed"))); }

  bool send_signal(int number) const { return kill(pid, number) == 0; }
  // Subscribes `client` to `names`, comma-separated, and waits until the daemon heeds them.
  void subscribe(EventClient& client, const std::string& names) {
    const std::string own = names + ",client" + std::to_string(++subscriptions);
    client.send_bytes(EventClient::subscription(own) + EventClient::subscription(own));
    EXPECT_TRUE(wait_for("set as [" + own + "]", 2));  // the first one holds when the second one is read
  }
  // Sends lines to the event socket and waits until the daemon has taken them in. False when it went away.
  bool post(const std::string& lines) const {
    const Descriptor socket(unix_stream_socket());
    if (unix_connect(socket.get(), path("run/zelvind/events.sock")) != 0) return false;
    for (size_t sent = 0; sent < lines.size();) {
      const ssize_t taken = send(socket.get(), lines.data() + sent, lines.size() - sent, MSG_NOSIGNAL);
      if (taken < 0) return false;
      sent += static_cast<size_t>(taken);
    }
    shutdown(socket.get(), SHUT_WR);
    char end = 0;
    return recv(socket.get(), &end, 1, 0) == 0;
  }

  std::string log() const { return read_file(path("log")); }
  // How often the log holds `part`.
  size_t count(const std::string& part) const {
    const std::string text = log();
    size_t found = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
    return found;
  }
  // Waits until the log holds `part` `times` times; false after 20 s.
  bool wait_for(const std::string& part, size_t times = 1) const {
    return wait_until([&] { return count(part) >= times; });
  }

  // Waits for the daemon's end, at most 20 s. Its exit status, -1 when it did not end, 128 + signal when it was killed.
  int wait_for_end() {
    int status = 0;
    if (!wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; })) return -1;
    pid = 0;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  int stop() {  // sends SIGTERM first
    send_signal(SIGTERM);
    return wait_for_end();
  }
  pid_t process() const { return pid; }

 private:
  std::string root;
  pid_t pid = 0;
  int subscriptions = 0;
};
