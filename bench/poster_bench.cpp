// Events of another process: how many the loop takes, and how soon it handles a single one.

#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string_view>

#include "bench/benchmarks.h"
#include "bench/daemon_process.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "bench/peer_process.h"
#include "bench/posters.h"
#include "script/manager_script.h"

namespace {

constexpr char kTwoFields[] = "local door, count = evt_field_str('door'), evt_field_int('count')";
constexpr char kLastLine[] = "1 quit_bench\n";
constexpr int kLines = 128000;
constexpr int kSamples = 1000;
constexpr long kPauseNs = 1000000;

int64_t now_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

void post_many(Channel& parent, const Descriptor& poster, int batch) {
  parent.signal();
  parent.wait();
  post_lines(poster.get(), kLines, batch);
  send_whole(poster.get(), kQuitLine, strlen(kQuitLine));
}

// Sends one line about every millisecond, with the time of its sending.
void post_singles(Channel& parent, const Descriptor& poster) {
  parent.signal();
  parent.wait();
  for (int i = 0; i < kSamples; ++i) {
    const timespec pause{0, kPauseNs};
    nanosleep(&pause, nullptr);
    const std::string line = "1 bench " + std::to_string(now_ns()) + "\n";
    send_whole(poster.get(), line.data(), line.size());
  }
  send_whole(poster.get(), kQuitLine, strlen(kQuitLine));
}

// Receives and splits lines until the poster closes; returns their number.
int split_lines(int fd) {
  static char buffer[64 * 1024];
  int lines = 0;
  for (ssize_t got = 0; (got = recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
    const char* const end = buffer + got;
    for (const char* at = buffer; at < end; ++lines) {
      const void* const line_end = memchr(at, '\n', static_cast<size_t>(end - at));
      if (line_end == nullptr) break;
      at = static_cast<const char*>(line_end) + 1;
    }
  }
  return lines;
}

double bare_rate(int batch) {
  const BareSocket socket;
  PeerProcess poster([&](Channel& parent) { post_many(parent, connect_poster(socket.path), batch); });
  const Descriptor fd = socket.accept_poster();
  poster.channel().wait();
  const Stopwatch watch;
  poster.channel().signal();
  if (split_lines(fd.get()) != kLines + 1) throw std::runtime_error("lines got lost");
  return kLines / watch.seconds();
}

// From the first line to the end of the last one's handler.
void handle_many(const std::string& program, Figures& figures, int batch) {
  DaemonProcess daemon({program, true, handler_of("bench", kTwoFields) + handler_of("quit_bench", "report('done')")});
  daemon.start();
  const Descriptor poster = daemon.connect_poster();
  const double cpu_before = daemon.cpu_ns();
  const Stopwatch watch;
  post_lines(poster.get(), kLines, batch);
  send_whole(poster.get(), kLastLine, strlen(kLastLine));
  daemon.next_report();
  figures["events_per_s"] = kLines / watch.seconds();
  figures["cpu_ns"] = (daemon.cpu_ns() - cpu_before) / kLines;
}

void post(Figures& figures, int batch) {
  figures["floor_per_s"] = bare_rate(batch);
  measure_daemons(figures,
                  [batch](const std::string& program, Figures& measured) { handle_many(program, measured, batch); });
  figures["ratio"] = figures["events_per_s"] / figures["floor_per_s"];
  figures["to_dispatch"] = figures["events_per_s"] / dispatch_rate();
}

std::vector<double> g_latencies;  // us

void note_latency(const char* sent_ns) {
  g_latencies.push_back(static_cast<double>(now_ns() - strtoll(sent_ns, nullptr, 10)) / 1000);
}

int note_event(lua_State*) {
  note_latency(g_mscript->dispatch.current_event()->info);
  return 0;
}

void handle_singles() {
  LoopHere loop(handler_of("bench", "note_event()"));
  loop.add_function("note_event", note_event);
  PeerProcess poster([](Channel& parent) { post_singles(parent, connect_poster()); });
  poster.channel().wait();
  poster.channel().signal();
  loop.run_to_quit();
}

void receive_singles() {
  const BareSocket socket;
  PeerProcess poster([&](Channel& parent) { post_singles(parent, connect_poster(socket.path)); });
  const Descriptor fd = socket.accept_poster();
  poster.channel().wait();
  poster.channel().signal();
  constexpr std::string_view kHead = "1 bench ";
  for (;;) {
    pollfd waiting{fd.get(), POLLIN, 0};
    poll(&waiting, 1, -1);
    char line[128] = "";
    if (recv(fd.get(), line, sizeof(line) - 1, 0) <= 0) return;
    if (kHead.compare(0, kHead.size(), line, kHead.size()) == 0) note_latency(line + kHead.size());
  }
}

void idle_latency(Figures& figures) {
  g_latencies.clear();
  receive_singles();
  const double floor_p50 = percentile(g_latencies, 0.5);
  const double floor_p99 = percentile(g_latencies, 0.99);
  g_latencies.clear();
  handle_singles();
  figures["p50_us"] = percentile(g_latencies, 0.5);
  figures["p99_us"] = percentile(g_latencies, 0.99);
  figures["floor_p50_us"] = floor_p50;
  figures["floor_p99_us"] = floor_p99;
  figures["p50_ratio"] = figures["p50_us"] / floor_p50;
  figures["p99_ratio"] = figures["p99_us"] / floor_p99;
}

}  // namespace

void add_poster_benchmarks() {
  add_benchmark("post_single", 9, [](Figures& figures) { post(figures, 1); });
  add_benchmark("post_batch", 9, [](Figures& figures) { post(figures, 64); });
  add_benchmark("idle_latency", 5, idle_latency);
}
