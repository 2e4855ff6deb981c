// match: what an event costs that none of a thousand connected clients has subscribed to.

#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "bench/benchmarks.h"
#include "bench/clients.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "bench/peer_process.h"
#include "device/event_queue.h"
#include "listener/manager_listener.h"
#include "util/text.h"

namespace {

constexpr int kClients = 1000;
constexpr int kEvents = 1000;
constexpr char kTypes[] = "door_state,email_received,alarm_raised";

event_item event_of(const char* type_name) {
  event_item event{1, {0, 0}, "", ""};
  copy_text(event.type_name, sizeof(event.type_name), type_name);
  return event;
}

template <typename Walk>
double ns_per_client(Walk&& walk) {
  const Stopwatch watch;
  for (int i = 0; i < kEvents; ++i) walk();
  return watch.seconds() * 1e9 / kEvents / kClients;
}

double floor_ns(const char* type_name) {
  std::vector<std::unique_ptr<char[]>> strings;
  for (int i = 0; i < kClients; ++i) {
    strings.emplace_back(new char[sizeof(kTypes)]);
    memcpy(strings.back().get(), kTypes, sizeof(kTypes));
  }
  return ns_per_client([&] {
    for (const auto& string : strings) benchmark::DoNotOptimize(strstr(string.get(), type_name));
  });
}

void match(Figures& figures) {
  const int port = free_port();
  write_settings(bench_root(), "listener_port = " + std::to_string(port) + "\n");
  PeerProcess peer([port](Channel& parent) {
    parent.wait();
    Clients clients(port, kClients);
    clients.subscribe(kTypes);
    clients.read_something();
    parent.signal();
    parent.wait();
  });
  ManagerListener listener;
  if (listener.start() < 0) throw std::runtime_error("the listener has no port");
  peer.channel().signal();
  const event_item probe = event_of("door_state");
  do {
    listener.forward_event(&probe);
  } while (!peer.channel().wait_for(20));

  const event_item event = event_of("heartbeat");
  const double ns = ns_per_client([&] { listener.forward_event(&event); });
  const double floor = floor_ns(event.type_name);
  figures["ns_per_client"] = ns;
  figures["floor_ns"] = floor;
  figures["ratio"] = ns / floor;
  peer.channel().signal();
}

}  // namespace

void add_match_benchmark() {
  add_benchmark("match", 5, match);
}
