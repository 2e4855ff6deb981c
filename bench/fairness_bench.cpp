// fairness/N: how soon the line of a poster is handled that sends one now and then, beside N that flood.

#include <cstring>
#include <memory>

#include "bench/benchmarks.h"
#include "bench/daemon_process.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "bench/peer_process.h"
#include "bench/posters.h"

namespace {

constexpr int kPoliteLines = 20;
constexpr double kTimeS = 20;
constexpr char kPoliteLine[] = "1 polite\n";
constexpr char kSlowHandler[] = "local till = os.clock() + 0.0002 repeat until os.clock() >= till";
constexpr char kShortLine[] = "1 bench\n";
constexpr int kFloodBatch = 64;

void flood(const DaemonProcess& daemon, int flooders, Channel& parent) {
  std::vector<std::unique_ptr<PeerProcess>> processes;
  for (int i = 0; i < flooders; ++i) {
    processes.push_back(std::make_unique<PeerProcess>([&](Channel&) {
      const Descriptor poster = daemon.connect_poster();
      std::string lines;
      for (int line = 0; line < kFloodBatch; ++line) lines += kShortLine;
      for (;;) send_whole(poster.get(), lines.data(), lines.size());
    }));
  }
  parent.wait();
  for (const auto& process : processes) process->end();
}

void wait_between_floods(const std::string& program, Figures& figures, int flooders, const char* handler) {
  DaemonProcess daemon({program, true, handler_of(kEventName, handler) + handler_of("polite", "report('handled')")});
  daemon.start();
  const Descriptor polite = daemon.connect_poster();
  PeerProcess flooding([&](Channel& parent) { flood(daemon, flooders, parent); });
  usleep(500000);  // until what can wait in front of the loop waits there
  std::vector<double> times;
  const Stopwatch all;
  while (static_cast<int>(times.size()) < kPoliteLines && all.seconds() < kTimeS) {
    const Stopwatch watch;
    send_whole(polite.get(), kPoliteLine, strlen(kPoliteLine));
    daemon.next_report();
    times.push_back(watch.seconds() * 1000);
  }
  flooding.channel().signal();
  figures["p50_ms"] = percentile(times, 0.5);
  figures["max_ms"] = percentile(times, 1);
}

void fairness(Figures& figures, int flooders, const char* handler) {
  measure_daemons(figures, [=](const std::string& program, Figures& measured) {
    wait_between_floods(program, measured, flooders, handler);
  });
}

}  // namespace

void add_fairness_benchmarks() {
  add_benchmark("fairness/8", 3, [](Figures& figures) { fairness(figures, 8, kSlowHandler); });
  add_benchmark("fairness/255", 3, [](Figures& figures) { fairness(figures, 255, ""); });
}
