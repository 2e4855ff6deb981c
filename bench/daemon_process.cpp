#include "bench/daemon_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "bench/clients.h"
#include "bench/measure.h"
#include "device/event_source.h"
#include "util/unix_socket.h"

namespace fs = std::filesystem;

namespace {

constexpr double kStartLimitS = 30;
constexpr char kEndLine[] = "zelvind: zelvind end";
constexpr useconds_t kLookUs = 100;

constexpr char kReportScript[] = R"(
report_pipe = report_pipe or io.open(os.getenv("BENCH_REPORTS"), "a")
report_pipe:setvbuf("no")
function report(text) report_pipe:write(text .. "\n") end
script_define("bench", {})
)";

std::string text_of_file(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

void write_file(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream file(path);
  if (!(file << text << std::flush)) throw std::runtime_error("failed to write " + path);
}

// Checks `condition` until it holds. False when it does not within `limit_s`.
bool look_until(const std::function<bool()>& condition, double limit_s) {
  const Stopwatch watch;
  while (!condition()) {
    if (watch.seconds() > limit_s) return false;
    usleep(kLookUs);
  }
  return true;
}

double sum_over_threads(pid_t pid, const std::function<double(const std::string& folder)>& figure) {
  double sum = 0;
  for (const auto& thread : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    sum += figure(thread.path().string());
  }
  return sum;
}

double number_behind(const std::string& text, const std::string& key) {
  const size_t at = text.find(key);
  if (at == std::string::npos) throw std::runtime_error("no " + key + " of the daemon");
  return atof(text.c_str() + at + key.size());
}

}  // namespace

DaemonProcess::DaemonProcess(const DaemonPlan& plan)
    : program(plan.program), environment(plan.environment), listener_port(free_port()) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // the daemon detaches; its exit status still comes to us
  char name[] = "/tmp/zelvind_daemon.XXXXXX";
  if (mkdtemp(name) == nullptr) throw std::runtime_error("failed to make a temporary folder");
  root = name;
  const std::string packaged = plan.packaged ? text_of_file(ZELVIND_PACKAGED_SETTINGS) : "";
  write_file(path("opt/flash/mtd4-cfg/zelvind.info"),
             packaged + "\nlog_level = 1\nlistener_port = " + std::to_string(listener_port) + "\nscript_path = " +
                 path("scripts") + "\nexternal_path = " + path("none") + "\ndll_path = " + path("none") + "\n");
  fs::create_directories(path("none"));
  write_file(path("scripts/bench.lua"), kReportScript + plan.script + "\n");
  for (const char* script : {"config.lua", "server_event.lua"}) {
    fs::copy_file(fs::path(program).parent_path() / script, path("scripts/") + script);
  }
  if (mkfifo(path("reports").c_str(), 0600) != 0) throw std::runtime_error("failed to make the pipe for reports");
  report_pipe.reset(open(path("reports").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));  // it never ends
}

DaemonProcess::~DaemonProcess() {
  if (pid > 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  std::error_code ignored;
  fs::remove_all(root, ignored);
}

double DaemonProcess::start() {
  std::vector<std::string> settings = {"DEVICE_ROOT=" + root, "ELOG_TARGET=file:" + path("log"),
                                       "BENCH_REPORTS=" + path("reports"), "PATH=/usr/bin:/bin", environment};
  std::vector<char*> entries;
  for (std::string& setting : settings) entries.push_back(setting.data());
  entries.push_back(nullptr);
  std::string argument = program;
  char* arguments[] = {argument.data(), nullptr};
  posix_spawn_file_actions_t streams;
  posix_spawn_file_actions_init(&streams);
  posix_spawn_file_actions_addopen(&streams, STDERR_FILENO, path("stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0600);
  const Stopwatch watch;
  pid_t launcher = 0;
  const int result = posix_spawn(&launcher, program.c_str(), &streams, nullptr, arguments, entries.data());
  posix_spawn_file_actions_destroy(&streams);
  if (result != 0) throw std::runtime_error("failed to run " + program);
  waitpid(launcher, nullptr, 0);  // ends when the daemon has detached
  bool ended = false;
  const auto has_come = [&] {
    ended = text_of("log").find(kEndLine) != std::string::npos;
    return ended || try_connect(listener_port).get() >= 0;
  };
  if (!look_until(has_come, kStartLimitS) || ended) {
    throw std::runtime_error(program + " does not start: " + text_of("stderr") + text_of("log"));
  }
  const double seconds = watch.seconds();
  pid = static_cast<pid_t>(atoi(text_of("run/zelvind/events.lock").c_str()));
  if (pid <= 0) throw std::runtime_error("the daemon has no event socket: " + text_of("log"));
  return seconds;
}

double DaemonProcess::stop(double limit_s) {
  const Stopwatch watch;
  kill(pid, SIGTERM);
  int status = 0;
  if (!look_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit_s)) {
    throw std::runtime_error("the daemon does not stop");
  }
  pid = 0;
  if (status != 0) throw std::runtime_error("the daemon ended with status " + std::to_string(status));
  return watch.seconds();
}

std::string DaemonProcess::next_report(double limit_s) {
  const Stopwatch watch;
  size_t end = 0;
  while ((end = reported.find('\n')) == std::string::npos) {
    pollfd waiting{report_pipe.get(), POLLIN, 0};
    const int left_ms = static_cast<int>((limit_s - watch.seconds()) * 1000);
    if (left_ms <= 0 || poll(&waiting, 1, left_ms) == 0) throw std::runtime_error("the script reports nothing");
    char piece[4096];
    const ssize_t got = read(report_pipe.get(), piece, sizeof(piece));
    if (got > 0) reported.append(piece, static_cast<size_t>(got));
  }
  std::string line = reported.substr(0, end);
  reported.erase(0, end + 1);
  return line;
}

std::string DaemonProcess::event_socket() const {
  return root + kEventSocketPath;
}

Descriptor DaemonProcess::connect_poster() const {
  Descriptor fd(unix_stream_socket());
  if (unix_connect(fd.get(), event_socket()) != 0) throw std::runtime_error("failed to connect to " + event_socket());
  return fd;
}

std::string DaemonProcess::text_of(const std::string& file) const {
  return text_of_file(path(file));
}

double DaemonProcess::cpu_ns() const {
  return sum_over_threads(
      pid, [](const std::string& folder) { return number_behind(text_of_file(folder + "/schedstat"), ""); });
}

double DaemonProcess::wakeups() const {
  return sum_over_threads(pid, [](const std::string& folder) {
    return number_behind(text_of_file(folder + "/status"), "\nvoluntary_ctxt_switches:");
  });
}

double DaemonProcess::memory_kib() const {
  return status_kib("\nVmRSS:");
}

double DaemonProcess::own_memory_kib() const {
  return status_kib("\nRssAnon:");
}

double DaemonProcess::status_kib(const std::string& key) const {
  return number_behind(text_of_file("/proc/" + std::to_string(pid) + "/status"), key);
}

std::string daemon_program() {
  const char* const named = getenv("ZELVIND_BENCH_DAEMON");
  return named == nullptr ? ZELVIND : named;
}

std::string other_daemon_program() {
  const char* const named = getenv("ZELVIND_BENCH_AGAINST");
  return named == nullptr ? "" : named;
}
