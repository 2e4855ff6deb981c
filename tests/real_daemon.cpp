#include "tests/real_daemon.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "util/descriptor.h"
#include "util/unix_socket.h"

namespace fs = std::filesystem;

bool wait_until(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::string read_file(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

RealDaemon::RealDaemon() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // the daemon detaches; its exit status still comes to us
  char name[] = "/tmp/zelvind-XXXXXX";
  root = mkdtemp(name);
  write("opt/flash/mtd4-cfg/zelvind.info", "log_level = 3\nlistener_port = 0\nscript_path = " + path("scripts") + "\n");
  fs::create_directories(path("scripts"));
  for (const char* script : {"config.lua", "server_event.lua"}) {
    fs::copy(std::string(ZELVIND_LUA_DIR) + "/" + script, path("scripts"));
  }
}

RealDaemon::~RealDaemon() {
  if (pid > 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  if (testing::Test::HasFailure()) std::cerr << "--- the daemon's log\n" << log() << read_file(path("stderr"));
  std::error_code ignored;  // a command in the background may still write
  fs::remove_all(root, ignored);
}

void RealDaemon::write(const std::string& file, const std::string& text) const {
  fs::create_directories(fs::path(path(file)).parent_path());
  std::ofstream(path(file)) << text;
}

std::string RealDaemon::text_of(const std::string& file) const {
  std::string text = read_file(path(file));
  for (size_t at = 0; (at = text.find(root)) != std::string::npos;) text.replace(at, root.size(), "ROOT");
  return text;
}

int RealDaemon::launch(const std::string& command) const {
  const std::string line = "export ROOT='" + root + "' DEVICE_ROOT='" + root + "' ELOG_TARGET='file:" + path("log") +
                           "' FAULT_ARMED='" + path("armed") +
                           "' ZELVIND='" ZELVIND "' FAULTY='" FAULTY_ZELVIND "'; PATH=${ZELVIND%/*}:$PATH; " + command;
  return WEXITSTATUS(system(line.c_str()));
}

bool RealDaemon::start(const std::string& command) {
  launch(command);
  return read_pid() && wait_for("zelvind: complete to start program");
}

bool RealDaemon::read_pid() {
  const auto complete = [&] { return read_file(path("pid")).find('\n') != std::string::npos; };
  if (wait_until(complete)) pid = static_cast<pid_t>(std::stol(read_file(path("pid"))));
  return pid > 0;
}

int RealDaemon::last_number_behind(const std::string& part) const {
  const std::string text = log();
  return atoi(text.c_str() + text.rfind(part) + part.size());
}

void RealDaemon::arm(bool on) const {
  if (on) write("armed", "");
  if (!on) fs::remove(path("armed"));
}

void RealDaemon::expect_zelvctl(const std::string& arguments, int status, const std::string& output,
                                const std::string& errors) const {
  SCOPED_TRACE(arguments.substr(0, 100));
  EXPECT_EQ(launch("exec >$ROOT/out 2>$ROOT/err; zelvctl " + arguments), status);
  EXPECT_EQ(text_of("out"), output);
  EXPECT_EQ(text_of("err"), errors);
}

bool RealDaemon::send_signal(int number) const {
  return kill(pid, number) == 0;
}

void RealDaemon::subscribe(EventClient& client, const std::string& names) {
  const std::string own = names + ",client" + std::to_string(++subscriptions);
  client.send_bytes(EventClient::subscription(own) + EventClient::subscription(own));
  EXPECT_TRUE(wait_for("set as [" + own + "]", 2));  // the first one holds when the second one is read
}

bool RealDaemon::post(const std::string& lines) const {
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

bool RealDaemon::wait_for(const std::string& part, size_t times) const {
  return wait_until([&] { return count(part) >= times; });
}

std::string RealDaemon::log() const {
  return read_file(path("log"));
}

size_t RealDaemon::count(const std::string& part) const {
  const std::string text = log();
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
  return found;
}

int RealDaemon::wait_for_end() {
  int status = 0;
  if (!wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; })) return -1;
  pid = 0;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int RealDaemon::stop() {
  send_signal(SIGTERM);
  return wait_for_end();
}
