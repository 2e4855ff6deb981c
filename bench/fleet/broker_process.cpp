#include "bench/fleet/broker_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "bench/clients.h"
#include "bench/measure.h"

namespace {

constexpr double kStartLimitS = 20;

// The number behind `key` in a file of /proc.
double number_in(const std::string& path, const std::string& key) {
  std::ifstream file(path);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const size_t at = text.find(key);
  if (at == std::string::npos) throw std::runtime_error("no " + key + " in " + path);
  return atof(text.c_str() + at + key.size());
}

}  // namespace

Process::Process(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                 const std::string& log)
    : pid(fork()) {
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) dup2(output, stream);
  for (const std::string& entry : environment) putenv(const_cast<char*>(entry.c_str()));  // until the exec
  std::vector<char*> words;
  for (const std::string& word : arguments) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  execvp(words[0], words.data());
  _exit(127);
}

Process::~Process() {
  if (pid > 0) end(SIGKILL);
}

void Process::end(int signal_number) {
  kill(pid, signal_number);
  waitpid(pid, nullptr, 0);
  pid = 0;
}

double Process::cpu_s() const {
  clockid_t clock = 0;
  timespec used{};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0) {
    throw std::runtime_error("a process has ended");
  }
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

double Process::memory_kib() const {
  return number_in("/proc/" + std::to_string(pid) + "/status", "\nVmRSS:");
}

std::string settings_of(const std::string& program, int port, const std::string& folder) {
  if (program == "nats-server") {
    return "server_name: bench\nlisten: 127.0.0.1:-1\njetstream { store_dir: '" + folder +
           "' }\nmqtt { listen: '127.0.0.1:" + std::to_string(port) + "' }\n";
  }
  return "listener " + std::to_string(port) + " 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\n" +
         (geteuid() == 0 ? "user root\n" : "");
}

std::unique_ptr<Process> start_broker(const std::string& program, int port, const std::string& folder,
                                      const std::string& settings) {
  std::ofstream(folder + "/broker.conf") << settings;
  auto broker =
      std::make_unique<Process>(std::vector<std::string>{program, "-c", folder + "/broker.conf"},
                                std::vector<std::string>{"PATH=/usr/sbin:/usr/bin:/bin"}, folder + "/broker.log");
  const Stopwatch watch;
  while (try_connect(port).get() < 0) {
    if (watch.seconds() > kStartLimitS || waitpid(broker->id(), nullptr, WNOHANG) != 0) {
      throw std::runtime_error(program + " does not start: see dev/bootstrap fleet, extra");
    }
    usleep(1000);
  }
  return broker;
}
