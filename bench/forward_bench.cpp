// Forwarding to network clients: how soon a single event is with all of them, and how many pass in a burst.

#include <sys/socket.h>

#include <algorithm>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <utility>

#include "bench/benchmarks.h"
#include "bench/clients.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "bench/peer_process.h"
#include "bench/posters.h"
#include "device/event_queue.h"
#include "listener/client_protocol.h"
#include "listener/manager_listener.h"
#include "util/text.h"

namespace {

constexpr int kSamples = 500;
constexpr long kPauseNs = 2000000;
constexpr int kBurst = 200000;
constexpr int kSendFloorDeliveries = 400000;
constexpr int kBatch = 64;

constexpr char kSync[] = "sync";

std::string event_packet() {
  event_item event{1, {0, 0}, "", kEventInfo};
  copy_text(event.type_name, sizeof(event.type_name), kEventName);
  const EventPacket packet(event);
  return std::string(packet.data(), packet.size());
}

// The daemon's loop and listener, in this process; the event has an empty handler.
class ForwardingDaemon {
 public:
  ForwardingDaemon() : port(free_port()), loop(handler_of(kEventName, "")) {
    write_settings(bench_root(), "listener_port = " + std::to_string(port) + "\n");
    listener.emplace();
  }
  ~ForwardingDaemon() {
    if (is_running) loop.stop();
  }

  // Once the other processes have been started.
  void start() {
    if (listener->start() < 0) throw std::runtime_error("the listener has no port");
    loop.start();
    is_running = true;
  }

  // Returns when all clients of the other process have their subscriptions and nothing is under way to them any more.
  void await_subscriptions(Channel& clients) {
    clients.signal();
    do {
      post(1, kEventName, "probe");
    } while (!clients.wait_for(20));
    post(1, kEventName, kSync);
    clients.wait();
  }

  const int port;

 private:
  LoopHere loop;
  std::optional<ManagerListener> listener;
  bool is_running = false;
};

// The other side of await_subscriptions.
Clients subscribed_clients(int port, int count, Channel& daemon) {
  daemon.wait();
  Clients clients(port, count);
  clients.subscribe(kEventName);
  clients.read_something();
  daemon.signal();
  clients.read_to(std::string(kSync, sizeof(kSync)));
  daemon.signal();
  return clients;
}

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

std::vector<double> daemon_times(int count) {
  ForwardingDaemon daemon;
  PeerProcess peer([&](Channel& parent) {
    Clients clients = subscribed_clients(daemon.port, count, parent);
    parent.give(relay_times(connect_poster(), clients));
  });
  daemon.start();
  daemon.await_subscriptions(peer.channel());
  return peer.channel().receive();
}

std::vector<double> bare_times(int count) {
  const BareSocket socket;
  BareServer server;
  PeerProcess peer([&](Channel& parent) {
    Clients clients(server.port(), count);
    const std::vector<double> times = relay_times(connect_poster(socket.path), clients);
    parent.give(times);
  });
  const std::vector<Descriptor> connections = server.accept_clients(count);
  const Descriptor poster = socket.accept_poster();
  const std::string packet = event_packet();
  char line[4096];
  while (recv(poster.get(), line, sizeof(line), 0) > 0) {
    for (const Descriptor& connection : connections) send_whole(connection.get(), packet.data(), packet.size());
  }
  return peer.channel().receive();
}

void forward_single(Figures& figures, int count) {
  std::vector<double> floor = bare_times(count);
  std::vector<double> times = daemon_times(count);
  for (const auto& [name, share] : {std::pair("p50", 0.5), std::pair("p99", 0.99)}) {
    const std::string figure = name;
    const double time = percentile(times, share);
    const double floor_time = percentile(floor, share);
    figures[figure + "_us"] = time;
    figures["floor_" + figure + "_us"] = floor_time;
    figures[figure + "_ratio"] = time / floor_time;
  }
}

// Deliveries per second.
double daemon_rate(int count) {
  ForwardingDaemon daemon;
  PeerProcess reader([&](Channel& parent) {
    Clients clients = subscribed_clients(daemon.port, count, parent);
    clients.read_bytes(event_packet().size() * kBurst);
    parent.signal();
  });
  PeerProcess poster([](Channel& parent) {
    const Descriptor connection = connect_poster();
    parent.wait();
    post_lines(connection.get(), kBurst, kBatch);
  });
  daemon.start();
  daemon.await_subscriptions(reader.channel());
  const Stopwatch watch;
  poster.channel().signal();
  reader.channel().wait();
  return double{kBurst} * count / watch.seconds();
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

void forward_burst(Figures& figures, int count) {
  const double send_floor = bare_rate(count, std::min(kBurst, kSendFloorDeliveries / count), 1);
  const double batch_floor = bare_rate(count, kBurst, kBatch);
  const double rate = daemon_rate(count);
  figures["deliveries_per_s"] = rate;
  figures["send_floor_per_s"] = send_floor;
  figures["batch_floor_per_s"] = batch_floor;
  figures["to_send_floor"] = rate / send_floor;
  figures["to_batch_floor"] = rate / batch_floor;
  figures["to_dispatch"] = rate / dispatch_rate();
}

}  // namespace

void add_forward_benchmarks() {
  for (const int count : {1, 10, 100}) {
    const std::string suffix = "/" + std::to_string(count);
    add_benchmark("forward_single" + suffix, 7, [count](Figures& figures) { forward_single(figures, count); });
    add_benchmark("forward_burst" + suffix, 5, [count](Figures& figures) { forward_burst(figures, count); });
  }
}
