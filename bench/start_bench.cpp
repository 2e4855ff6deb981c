// start: the real daemon with the default scripts, from exec to "complete to start program", and its memory then.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "bench/benchmarks.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "util/descriptor.h"

namespace {

constexpr int kStartMs = 10000;

// Runs `program` to its end; the daemon's first process ends when it has detached.
void run_program(const std::string& program, const std::vector<std::string>& settings) {
  char* arguments[] = {const_cast<char*>(program.c_str()), nullptr};
  std::vector<char*> environment;
  for (const std::string& setting : settings) environment.push_back(const_cast<char*>(setting.c_str()));
  environment.push_back(nullptr);
  posix_spawn_file_actions_t streams;
  posix_spawn_file_actions_init(&streams);
  posix_spawn_file_actions_addopen(&streams, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int result = posix_spawn(&pid, program.c_str(), &streams, nullptr, arguments, environment.data());
  posix_spawn_file_actions_destroy(&streams);
  if (result != 0) throw std::runtime_error("cannot run " + program);
  waitpid(pid, nullptr, 0);
}

// The daemon's log, a pipe, so that its lines are seen when they are written.
class LogPipe {
 public:
  explicit LogPipe(const std::string& path) {
    unlink(path.c_str());
    if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("cannot make the log pipe");
    fd.reset(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  }

  // Reads on until `text` is there.
  void read_to(const std::string& text) {
    while (said.find(text) == std::string::npos) {
      if (!read_more()) throw std::runtime_error("the daemon has not said '" + text + "'");
    }
  }
  // Reads until the daemon has ended.
  void read_to_end() {
    while (read_more()) {
    }
  }
  // The process id in its first line: "... zelvind[PID] ...".
  pid_t process() const { return atoi(said.c_str() + said.find('[') + 1); }

 private:
  bool read_more() {
    pollfd waiting{fd.get(), POLLIN, 0};
    if (poll(&waiting, 1, kStartMs) <= 0) return false;
    char buffer[4096];
    const ssize_t got = read(fd.get(), buffer, sizeof(buffer));
    if (got > 0) said.append(buffer, static_cast<size_t>(got));
    return got > 0;
  }

  Descriptor fd;
  std::string said;
};

// KiB of an entry in /proc/PID/status.
double status_kib(pid_t pid, const std::string& key) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, key.size() + 1, key + ":") == 0) return atof(line.c_str() + key.size() + 1);
  }
  throw std::runtime_error("no " + key + " of the daemon");
}

void start(Figures& figures) {
  const std::string root = bench_root() + "/daemon";
  write_settings(root, "log_level = 2\nlistener_port = 0\n");
  const Stopwatch floor_watch;
  run_program("/bin/true", {});
  const double floor_s = floor_watch.seconds();
  LogPipe log(root + "/log");
  const Stopwatch watch;
  run_program(ZELVIND, {"DEVICE_ROOT=" + root, "ELOG_TARGET=file:" + root + "/log"});
  log.read_to("zelvind: complete to start program");
  const double start_s = watch.seconds();
  poll(nullptr, 0, 100);  // until its threads have settled
  figures["start_ms"] = start_s * 1000;
  figures["floor_ms"] = floor_s * 1000;
  figures["ratio"] = start_s / floor_s;
  figures["rss_kib"] = status_kib(log.process(), "VmRSS");
  figures["rss_anon_kib"] = status_kib(log.process(), "RssAnon");
  kill(log.process(), SIGTERM);
  log.read_to_end();
}

}  // namespace

void add_start_benchmark() {
  add_benchmark("start", 9, start);
}
