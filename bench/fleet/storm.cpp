// Many devices and one broker: how long until all are back after its restart, and what that costs the broker. A device
// is the uplink's own connection to the broker, with its waits and a subscription; all are in one process.
#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include "bench/clients.h"
#include "bench/fleet/broker_process.h"
#include "bench/fleet/fleet.h"
#include "bench/measure.h"
#include "uplink/broker_link.h"

namespace {

class Crowd {
 public:
  Crowd(int count, int port) : came_back(static_cast<size_t>(count)), links(static_cast<size_t>(count)) {
    for (size_t i = 0; i < links.size(); ++i) links[i] = make(i, port);
  }

  // Works for so long, or until all are connected. Returns how long that took.
  double run(double limit_s, bool until_all_are_up) {
    const Stopwatch since;
    watch = Stopwatch();
    std::vector<pollfd> wanted;
    while (since.seconds() < limit_s && !(until_all_are_up && up == links.size())) {
      wanted.clear();
      int wait = 100;
      for (const auto& link : links) {
        link->add_descriptors(wanted);
        if (const int own = link->wait_ms(); own >= 0) wait = std::min(wait, own);
      }
      poll(wanted.data(), wanted.size(), wait);
      for (const auto& link : links) link->run();
    }
    return since.seconds();
  }

  size_t count_up() const { return up; }
  uint64_t failures() const {
    uint64_t all = 0;
    for (const auto& link : links) all += link->state().failures;
    return all;
  }
  std::vector<double> came_back;  // when, in seconds since the last run() began

 private:
  std::unique_ptr<BrokerLink> make(size_t number, int port) {
    UplinkSettings settings;
    settings.host = "127.0.0.1";
    settings.port = port;
    settings.device = "device-" + std::to_string(number);
    settings.prefix = "zelvind/" + settings.device;
    BrokerLink::Events events;
    events.on_up = [this, number] {
      ++up;
      came_back[number] = watch.seconds();
    };
    events.on_down = [this](const std::string&) { --up; };
    return std::make_unique<BrokerLink>(settings,
                                        BrokerLink::Will{settings.topic("state"), [] { return std::string("{}"); }},
                                        std::vector<std::string>{settings.topic("c/+")}, events);
  }

  Stopwatch watch;
  size_t up = 0;
  std::vector<std::unique_ptr<BrokerLink>> links;
};

}  // namespace

void reconnect_storm(const std::string& program, int devices, int outage_s) {
  const BenchFolder folder;
  const int port = free_port();
  const std::string settings = settings_of(program, port, folder.path);
  auto broker = start_broker(program, port, folder.path, settings);
  const double empty_kib = broker->memory_kib();
  Crowd crowd(devices, port);
  const double first_s = crowd.run(60, true);
  printf(
      "%s, %d devices: all connected after %.1f s, at once; the broker's processor time %.2f s, its memory %.1f KiB "
      "a device\n",
      program.c_str(), devices, first_s, broker->cpu_s(), (broker->memory_kib() - empty_kib) / devices);
  broker.reset();
  crowd.run(outage_s, false);
  const uint64_t failures = crowd.failures();
  broker = start_broker(program, port, folder.path, settings);
  crowd.run(400, true);
  std::vector<double>& back = crowd.came_back;
  std::sort(back.begin(), back.end());
  size_t most = 0;  // in one second
  for (size_t i = 0, from = 0; i < back.size(); ++i) {
    while (back[i] - back[from] > 1) ++from;
    most = std::max(most, i - from + 1);
  }
  printf(
      "  after an outage of %d s: %zu of %d are back, half after %.1f s, 99 %% after %.1f s, the last after %.1f s; at "
      "most %zu a second; the broker's processor time %.2f s; %.1f tries a device in the outage\n",
      outage_s, crowd.count_up(), devices, back[back.size() / 2], back[back.size() * 99 / 100], back.back(), most,
      broker->cpu_s(), static_cast<double>(failures) / devices);
}
