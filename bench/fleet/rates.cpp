// Events through daemon, uplink and mosquitto, beside what mosquitto's own programs and library do with as many
// messages.
#include <mosquitto.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <vector>

#include "bench/clients.h"
#include "bench/daemon_process.h"
#include "bench/fleet/broker_process.h"
#include "bench/fleet/fleet.h"
#include "bench/measure.h"
#include "bench/peer_process.h"

namespace {

constexpr int kInFlight = 20;  // what the uplink's is at most; the library's default too
constexpr double kLimitS = 120;
constexpr char kInfo[] = "state=open&by=somebody&where=the_house_at_the_end_of_the_road";
constexpr char kPayload[] =  // as long as the uplink's
    R"({"id":"1edc4fea-10000","t":1795478717.922881,"type":1,"name":"door","f":{"state":"open","by":"somebody",)"
    R"("where":"the_house_at_the_end_of_the_road"}})";

struct Freed {
  void operator()(mosquitto* client) const { mosquitto_destroy(client); }
};
using Client = std::unique_ptr<mosquitto, Freed>;

Client connected(int port, void* user) {
  Client client(mosquitto_new(nullptr, true, user));
  if (mosquitto_connect(client.get(), "127.0.0.1", port, 60) != MOSQ_ERR_SUCCESS) {
    throw std::runtime_error("failed to connect to mosquitto");
  }
  return client;
}

// Counts the events that the broker has got.
class Counter {
 public:
  explicit Counter(int port) : client(connected(port, this)) {
    mosquitto_message_callback_set(
        client.get(), [](mosquitto*, void* user, const mosquitto_message*) { ++static_cast<Counter*>(user)->count; });
    mosquitto_subscribe_callback_set(client.get(), [](mosquitto*, void* user, int, int, const int*) {
      static_cast<Counter*>(user)->is_subscribed = true;
    });
    mosquitto_subscribe(client.get(), nullptr, "bench/e/+", 0);
    while (!is_subscribed) work();
  }
  void expect(int events) {
    const Stopwatch watch;
    while (count < events) {
      work();
      if (watch.seconds() > kLimitS) throw std::runtime_error("only " + std::to_string(count) + " events arrived");
    }
    count = 0;
  }

 private:
  void work() {
    if (mosquitto_loop(client.get(), 100, 1) != MOSQ_ERR_SUCCESS) throw std::runtime_error("mosquitto is away");
  }
  bool is_subscribed = false;
  int count = 0;
  const Client client;
};

// `publish` runs in another process, so that the counting goes on.
double seconds_of(Counter& counter, int events, const std::function<void()>& publish) {
  const Stopwatch watch;
  const PeerProcess peer([&](Channel& channel) {
    publish();
    channel.signal();
  });
  counter.expect(events);
  return watch.seconds();
}

void publish_by_program(int port, int events) {
  FILE* const program =
      popen(("mosquitto_pub -h 127.0.0.1 -p " + std::to_string(port) + " -l -q 1 -t bench/e/door").c_str(), "w");
  for (int i = 0; i < events; ++i) fprintf(program, "%s\n", kPayload);
  if (pclose(program) != 0) throw std::runtime_error("mosquitto_pub has failed: see dev/bootstrap fleet");
}

void publish_by_library(int port, int events) {
  int in_flight = 0;
  const Client client = connected(port, &in_flight);
  mosquitto_publish_callback_set(client.get(), [](mosquitto*, void* user, int) { --*static_cast<int*>(user); });
  for (int sent = 0; sent < events || in_flight > 0;) {
    for (; sent < events && in_flight < kInFlight; ++sent, ++in_flight) {
      mosquitto_publish(client.get(), nullptr, "bench/e/door", sizeof(kPayload) - 1, kPayload, 1, false);
    }
    mosquitto_loop(client.get(), 100, 1);
  }
}

// A daemon whose ring holds all events of a round, and an uplink when there is one.
class Device {
 public:
  explicit Device(int rate) : rate_limit(rate) {
    std::ofstream(daemon.path("opt/flash/mtd4-cfg/zelvind.info"), std::ios::app) << "event_memory = 65536\n";
    daemon.start();
  }
  void start_uplink(const std::string& broker_lines) {
    std::filesystem::create_directories(daemon.path("etc/zelvind"));
    std::ofstream(daemon.path("etc/zelvind/uplink.info"))
        << broker_lines << "device = bench\nprefix = bench\nup = door\nrate = " << rate_limit << "\n";
    const std::vector<std::string> settings = {"DEVICE_ROOT=" + daemon.path("."),
                                               "ELOG_TARGET=file:" + daemon.path("uplink.log")};
    uplink =
        std::make_unique<Process>(std::vector<std::string>{ZELVIND_UPLINK}, settings, daemon.path("uplink.errors"));
    const Stopwatch watch;
    while (daemon.text_of("uplink.log").find("connected to") == std::string::npos) {
      if (watch.seconds() > kLimitS) throw std::runtime_error("the uplink does not connect");
      usleep(1000);
    }
    usleep(200000);  // it has begun to follow the daemon, and has no more to set up
  }
  void end_uplink() {
    uplink->end(SIGTERM);  // so that it goes on behind the last event
    uplink.reset();
    std::filesystem::remove(daemon.path("uplink.log"));
  }
  // Events of this name and a last one, at which the script reports.
  void post(const std::string& name, int events) const {
    std::string lines;
    for (int i = 0; i < events; ++i) lines += "1 " + name + " " + kInfo + "\n";
    lines += "1 last\n";
    send_whole(daemon.connect_poster().get(), lines.data(), lines.size());
  }

  DaemonProcess daemon{
      {daemon_program(), false,
       "on('door', function() end)\non('gate', function() end)\non('last', function() report('done') end)"}};
  std::unique_ptr<Process> uplink;

 private:
  const int rate_limit;
};

// The daemon's processor time for each event of a flood, in microseconds.
double cost_of_event(Device& device, const std::string& name, int events) {
  const double before = device.daemon.cpu_ns();
  device.post(name, events);
  device.daemon.next_report();
  return (device.daemon.cpu_ns() - before) / events / 1000;
}

void make_certificates(const std::string& folder) {
  const std::string command =
      "cd " + folder + " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout key" +
      " -out crt -subj /CN=localhost -addext subjectAltName=DNS:localhost -days 2 >openssl.log 2>&1";
  if (system(command.c_str()) != 0) throw std::runtime_error("openssl has failed");
}

}  // namespace

void event_rates(int rounds, int events) {
  mosquitto_lib_init();
  const BenchFolder folder;
  make_certificates(folder.path);
  const int port = free_port();
  const int tls_port = free_port();
  const std::string tls = "listener " + std::to_string(tls_port) + " 127.0.0.1\ncertfile " + folder.path +
                          "/crt\nkeyfile " + folder.path + "/key\n";
  const auto broker = start_broker("mosquitto", port, folder.path, settings_of("mosquitto", port, folder.path) + tls);
  const std::string plain_lines = "broker = mqtt://127.0.0.1:" + std::to_string(port) + "\n";
  const std::string tls_lines =
      "broker = mqtts://localhost:" + std::to_string(tls_port) + "\nca = " + folder.path + "/crt\n";
  Counter counter(port);
  Device device(10000);

  std::vector<double> program;
  std::vector<double> library;
  std::vector<double> uplink;
  std::vector<double> uplink_cpu;
  std::vector<double> alone;
  std::vector<double> followed;
  for (int round = 0; round < rounds; ++round) {
    program.push_back(events / seconds_of(counter, events, [&] { publish_by_program(port, events); }));
    library.push_back(events / seconds_of(counter, events, [&] { publish_by_library(port, events); }));
    alone.push_back(cost_of_event(device, "gate", events));
    device.start_uplink(plain_lines);
    const double before = device.uplink->cpu_s();
    const Stopwatch watch;
    followed.push_back(cost_of_event(device, "door", events));
    counter.expect(events);
    uplink.push_back(events / watch.seconds());
    uplink_cpu.push_back((device.uplink->cpu_s() - before) / events * 1e6);
    device.end_uplink();
  }
  const auto median = [](std::vector<double>& values) { return percentile(values, 0.5); };
  printf("%d messages of %zu bytes, QoS 1, medians of %d rounds\n", events, sizeof(kPayload) - 1, rounds);
  printf("  mosquitto_pub -l      %8.0f a second\n", median(program));
  printf("  bare library          %8.0f a second\n", median(library));
  printf(
      "  daemon and uplink     %8.0f a second, %.2f of the bare library; the uplink's processor time %.1f us an "
      "event\n",
      median(uplink), median(uplink) / median(library), median(uplink_cpu));
  printf("  daemon                %8.2f us of processor time an event, %.2f with an uplink\n", median(alone),
         median(followed));
  for (const auto& [name, lines] : {std::pair("plain", plain_lines), std::pair("with TLS", tls_lines)}) {
    device.start_uplink(lines);
    const double fresh = device.uplink->memory_kib();
    device.post("door", events);
    counter.expect(events);
    printf("  uplink's memory       %8.0f KiB %s, %.0f KiB after a flood of %d events\n", fresh, name,
           device.uplink->memory_kib(), events);
    device.end_uplink();
    device.daemon.next_report();
  }
}
