// The daemon at rest: how soon it is there (start) and gone, how often it wakes (idle), what it holds (memory).

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include "bench/benchmarks.h"
#include "bench/clients.h"
#include "bench/daemon_process.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "bench/peer_process.h"
#include "bench/posters.h"

namespace {

constexpr useconds_t kSettleUs = 100000;
constexpr useconds_t kIdleUs = 5000000;
constexpr int kManyClients = 1000;
constexpr int kBurstClients = 100;
constexpr int kBurst = 51200;  // whole batches
constexpr int kBatch = 64;

double seconds_of_true() {
  const Stopwatch watch;
  char program[] = "/bin/true";
  char* arguments[] = {program, nullptr};
  char* environment[] = {nullptr};
  pid_t pid = 0;
  posix_spawn(&pid, program, nullptr, nullptr, arguments, environment);
  waitpid(pid, nullptr, 0);
  return watch.seconds();
}

// From exec to the first connection, and until the first client has its first event.
void start(const std::string& program, Figures& figures) {
  DaemonProcess daemon({program, true, handler_of(kEventName, "")});
  const Stopwatch watch;
  figures["first_connection_ms"] = daemon.start() * 1000;
  const Descriptor poster = daemon.connect_poster();
  Clients client(daemon.port(), 1);
  client.subscribe(kEventName);
  do {
    post_lines(poster.get(), 1, 1);
  } while (!client.try_read_something(1));
  figures["first_event_ms"] = watch.seconds() * 1000;
  usleep(kSettleUs);
  figures["rss_kib"] = daemon.memory_kib();
  figures["rss_anon_kib"] = daemon.own_memory_kib();
}

double wakeups_per_s(const DaemonProcess& daemon) {
  usleep(kSettleUs * 10);
  const double before = daemon.wakeups();
  const Stopwatch watch;
  usleep(kIdleUs);
  return (daemon.wakeups() - before) / watch.seconds();
}

void idle(const std::string& program, Figures& figures) {
  DaemonProcess daemon({program, true, handler_of(kEventName, "")});
  daemon.start();
  figures["wakeups_per_s"] = wakeups_per_s(daemon);
  {
    Clients clients(daemon.port(), 10);
    clients.subscribe_now(kEventName, kEventName, daemon.connect_poster().get());
    figures["wakeups_10_clients_per_s"] = wakeups_per_s(daemon);
  }
  figures["stop_ms"] = daemon.stop() * 1000;
}

void memory_after_burst(const std::string& program, Figures& figures) {
  DaemonProcess daemon({program, true, handler_of(kEventName, "")});
  daemon.start();
  {
    Clients clients(daemon.port(), kBurstClients);
    clients.subscribe_now(kEventName, kEventName, daemon.connect_poster().get());
    PeerProcess posting([&daemon](Channel&) { post_lines(daemon.connect_poster().get(), kBurst, kBatch); });
    clients.read_bytes(event_packet().size() * kBurst);
    figures["rss_in_burst_kib"] = daemon.memory_kib();
  }
  usleep(kSettleUs * 20);
  figures["rss_after_burst_kib"] = daemon.memory_kib();
}

void memory(const std::string& program, Figures& figures) {
  memory_after_burst(program, figures);
  DaemonProcess daemon({program, true, handler_of(kEventName, "")});
  daemon.start();
  Clients clients(daemon.port(), kManyClients);
  clients.subscribe_now(kEventName, kEventName, daemon.connect_poster().get());
  usleep(kSettleUs * 10);
  figures["rss_1000_clients_kib"] = daemon.memory_kib();
}

}  // namespace

void add_rest_benchmarks() {
  add_benchmark("start", 9, [](Figures& figures) {
    figures["floor_ms"] = seconds_of_true() * 1000;
    measure_daemons(figures, start);
  });
  add_benchmark("idle", 3, [](Figures& figures) { measure_daemons(figures, idle); });
  add_benchmark("memory", 3, [](Figures& figures) { measure_daemons(figures, memory); });
}
