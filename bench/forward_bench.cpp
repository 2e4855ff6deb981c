// Forwarding to network clients: how soon a single event is with all of them, and how many pass in a burst.

#include <sys/socket.h>

#include <algorithm>
#include <ctime>

#include "bench/benchmarks.h"
#include "bench/clients.h"
#include "bench/daemon_process.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "bench/peer_process.h"
#include "bench/posters.h"

namespace {

constexpr int kSamples = 500;
constexpr long kPauseNs = 2000000;
constexpr int kBurst = 200000;
constexpr int kSendFloorDeliveries = 400000;
constexpr int kBatch = 64;

// Posts events and has all clients receive them, one after the other. Returns the times from send to the last receipt,
// in us.
std::vector<double> relay_times(const Descriptor& poster, Clients& clients) {
  const std::string packet = event_packet();
  std::vector<double> times;
  for (int i = 0; i < kSamples; ++i) {
    const timespec pause{0, kPauseNs};
    nanosleep(&pause, nullptr);
    const Stopwatch watch;
    post_lines(poster.get(), 1, 1);
    clients.read_bytes(packet.size());
    times.push_back(watch.seconds() * 1e6);
  }
  return times;
}

void daemon_times(const std::string& program, Figures& figures, int count) {
  DaemonProcess daemon({program, true, handler_of(kEventName, "")});
  daemon.start();
  const Descriptor poster = daemon.connect_poster();
  Clients clients(daemon.port(), count);
  clients.subscribe_now(kEventName, kEventName, poster.get());
  std::vector<double> times = relay_times(poster, clients);
  figures["p50_us"] = percentile(times, 0.5);
  figures["p99_us"] = percentile(times, 0.99);
}

// The relay is another process, as the daemon is.
void bare_times(Figures& figures, int count) {
  const BareSocket socket;
  BareServer server;
  PeerProcess relay([&](Channel&) {
    const std::vector<Descriptor> connections = server.accept_clients(count);
    const Descriptor poster = socket.accept_poster();
    const std::string packet = event_packet();
    char line[4096];
    while (recv(poster.get(), line, sizeof(line), 0) > 0) {
      for (const Descriptor& connection : connections) send_whole(connection.get(), packet.data(), packet.size());
    }
  });
  Clients clients(server.port(), count);
  std::vector<double> times = relay_times(connect_poster(socket.path), clients);
  figures["floor_p50_us"] = percentile(times, 0.5);
  figures["floor_p99_us"] = percentile(times, 0.99);
}

void forward_single(Figures& figures, int count) {
  bare_times(figures, count);
  measure_daemons(figures,
                  [count](const std::string& program, Figures& measured) { daemon_times(program, measured, count); });
  figures["p50_ratio"] = figures["p50_us"] / figures["floor_p50_us"];
  figures["p99_ratio"] = figures["p99_us"] / figures["floor_p99_us"];
}

void daemon_rate(const std::string& program, Figures& figures, int count, bool packaged) {
  DaemonProcess daemon({program, packaged, handler_of(kEventName, "")});
  daemon.start();
  PeerProcess poster([&daemon](Channel& parent) {
    const Descriptor connection = daemon.connect_poster();
    parent.wait();
    post_lines(connection.get(), kBurst, kBatch);
  });
  Clients clients(daemon.port(), count);
  clients.subscribe_now(kEventName, kEventName, daemon.connect_poster().get());
  const double cpu_before = daemon.cpu_ns();
  const Stopwatch watch;
  poster.channel().signal();
  clients.read_bytes(event_packet().size() * kBurst);
  const double deliveries = double{kBurst} * count;
  figures["deliveries_per_s"] = deliveries / watch.seconds();
  figures["cpu_ns_per_event"] = (daemon.cpu_ns() - cpu_before) / kBurst;
}

// Deliveries per second of bare sends, `batch` packets in each.
double bare_rate(int count, int events, int batch) {
  BareServer server;
  const std::string packet = event_packet();
  PeerProcess reader([&](Channel& parent) {
    Clients clients(server.port(), count);
    clients.read_bytes(packet.size() * static_cast<size_t>(events));
    parent.signal();
  });
  const std::vector<Descriptor> connections = server.accept_clients(count);
  std::string packets;
  for (int i = 0; i < batch; ++i) packets += packet;
  const Stopwatch watch;
  for (int i = 0; i < events; i += batch) {
    for (const Descriptor& connection : connections) send_whole(connection.get(), packets.data(), packets.size());
  }
  reader.channel().wait();
  return static_cast<double>(events) * count / watch.seconds();
}

void forward_burst(Figures& figures, int count, bool packaged) {
  figures["send_floor_per_s"] = bare_rate(count, std::min(kBurst, kSendFloorDeliveries / count), 1);
  figures["batch_floor_per_s"] = bare_rate(count, kBurst, kBatch);
  measure_daemons(
      figures, [=](const std::string& program, Figures& measured) { daemon_rate(program, measured, count, packaged); });
  const double rate = figures["deliveries_per_s"];
  figures["to_send_floor"] = rate / figures["send_floor_per_s"];
  figures["to_batch_floor"] = rate / figures["batch_floor_per_s"];
  figures["to_dispatch"] = rate / dispatch_rate();
}

}  // namespace

void add_forward_benchmarks() {
  for (const int count : {1, 10, 100}) {
    const std::string suffix = "/" + std::to_string(count);
    add_benchmark("forward_single" + suffix, 7, [count](Figures& figures) { forward_single(figures, count); });
    add_benchmark("forward_burst" + suffix, 5, [count](Figures& figures) { forward_burst(figures, count, true); });
  }
  add_benchmark("forward_burst/1/absent", 5, [](Figures& figures) { forward_burst(figures, 1, false); });
}
