// Devices with an uplink each, a broker, and trouble: the uplinks, the daemons and the broker are killed at random
// points, the lines between them are cut, held, delayed and torn, while numbered events are posted and commands are
// sent. Afterwards every event that a daemon has taken in has arrived, or is within a declared gap; first arrivals are
// in order; no command was run twice.
//
// ZELVIND_CHAOS_SECONDS sets how long (10), ZELVIND_CHAOS_SEED repeats a run's choices. dev/chaos-fleet starts it.

#include <gtest/gtest.h>

#include <iomanip>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <vector>

#include "ctl/control_client.h"
#include "tests/mqtt_broker.h"
#include "tests/real_uplink.h"

namespace {

using std::chrono::milliseconds;

constexpr size_t kRepeatedIds = 50;  // of the last commands, that may come again; the uplink remembers 256
constexpr int64_t kCalmMs = 40000;   // until all must have arrived, once the trouble is over

int setting(const char* name, int otherwise) {
  const char* const text = getenv(name);
  return text == nullptr ? otherwise : atoi(text);
}

void pause(uint_fast32_t ms) {
  std::this_thread::sleep_for(milliseconds(ms));
}

// What stands in `text` behind `mark`, up to `end`.
std::string part_behind(const std::string& text, const std::string& mark, char end) {
  const size_t at = text.find(mark);
  if (at == std::string::npos) return "";
  return text.substr(at + mark.size(), text.find(end, at + mark.size()) - at - mark.size());
}

// An event's place in the order of a device: which run of the daemon, and which event of it.
using Place = std::pair<size_t, uint64_t>;

class Device {
 public:
  Device(std::string the_name, int broker_port, std::mt19937& shared)
      : name(std::move(the_name)), random(shared), proxy(broker_port) {
    daemon.write("scripts/unlock.lua", R"(
      script_define("unlock", {})
      on("unlock", function()
        local id = fields().cmd_id
        trace(1, "unlocks for " .. id .. ".")
        post(1, "uplink_reply", {cmd_id = id, status = "ok"})
      end))");
    daemon.write(
        "opt/flash/mtd4-cfg/zelvind.info",
        "log_level = 2\nlistener_port = 0\nevent_memory = 16384\nscript_path = " + daemon.path("scripts") + "\n");
    uplink = std::make_unique<RealUplink>(daemon, proxy.port(), name,
                                          "prefix = z/%i\nup = door,alarm\nurgent = alarm\ndown = unlock\n"
                                          "down_rate = 1000\nrate = 10000\nspool_size = 512\nhold_ms = 1000\nfull = " +
                                              std::string(name == "d0" ? "drop_oldest\n" : "drop_newest\n"));
  }

  ~Device() {
    posting = watching = false;
    if (poster.joinable()) poster.join();
    if (!witness.joinable()) return;
    daemon.send_signal(SIGKILL);
    witness.join();
  }

  void start() {
    start_daemon();
    uplink->start();
    ASSERT_TRUE(uplink->wait_until_ready());
    poster = std::thread([this, seed = random()] { post_events(seed); });
    witness = std::thread([this] { watch(); });
  }
  void end_posts() {
    posting = false;
    poster.join();
  }
  void end() {
    watching = false;
    EXPECT_EQ(uplink->end(), 0);
    EXPECT_EQ(daemon.stop(), 0);
    witness.join();
  }

  // Every other time while it has events that nobody has confirmed.
  void kill_uplink() {
    if (random() % 2 == 0) proxy.set(CutProxy::Mode::blackhole);
    pause(random() % 1000);
    EXPECT_EQ(uplink->end(SIGKILL), 128 + SIGKILL) << "the uplink has ended by itself";
    if (random() % 2 == 0) proxy.cut();
    proxy.set(CutProxy::Mode::pass);
    pause(random() % 800);
    uplink->start();
  }
  // More events than the spool has room for, while nobody confirms any.
  void flood() {
    proxy.set(CutProxy::Mode::blackhole);
    large_ones = 400;
    wait_until([this] { return large_ones <= 0; });
    pause(random() % 1500);
    if (random() % 4 != 0) return kill_uplink();
    proxy.set(CutProxy::Mode::pass);
  }
  void kill_daemon() {
    daemon.send_signal(SIGKILL);
    EXPECT_EQ(daemon.wait_for_end(), 128 + SIGKILL) << "the daemon has ended by itself";
    pause(random() % 500);
    start_daemon();
  }
  void hang_up_uplink() const {  // it does not wait for the next try then
    if (uplink->has_begun()) uplink->send_signal(SIGHUP);
  }

  // A command with a new id, or now and then with one of the last ids. Returns its payload.
  std::string next_command() {
    const bool is_new = commands == 0 || random() % 4 != 0;
    const size_t id = is_new ? ++commands : commands - random() % std::min(commands, kRepeatedIds);
    return "{\"id\":\"" + name + "-" + std::to_string(id) + "\"}";
  }
  std::string topic(const std::string& below) const { return "z/" + name + "/" + below; }

  // Something of this device has come to the broker.
  void take(const std::string& payload) {
    const MutexLock lock(mutex);
    if (payload.rfind("{\"gap\":[\"", 0) == 0) {
      const std::string ids = part_behind(payload, "[\"", ']');
      gaps.insert({part_behind("\"" + ids, "\"", '"'), part_behind(ids, ",\"", '"')});
    } else if (const std::string number = part_behind(payload, "\"n\":\"", '"'); !number.empty()) {
      const int n = std::stoi(number);
      ++arrivals;
      if (!arrived.emplace(n, part_behind(payload, "\"id\":\"", '"')).second) return;
      EXPECT_GT(n, last_first_arrival) << name << ": out of order";
      last_first_arrival = n;
    }
  }

  // Whether all that was posted is accounted for; `missing` tells what is not.
  bool is_complete(std::string& missing) const {
    const MutexLock lock(mutex);
    missing.clear();
    for (const int n : posted) {
      if (arrived.count(n) == 0 && !is_declared(n)) {
        missing += " " + std::to_string(n);
        if (const auto seen = witnessed.find(n); seen != witnessed.end()) missing += "=" + seen->second;
      }
    }
    return missing.empty();
  }

  void expect_commands_once() {
    const std::string text = all_log();
    for (size_t id = 1; id <= commands; ++id) {
      const std::string line = "unlocks for " + name + "-" + std::to_string(id) + ".";
      const size_t at = text.find(line);
      if (at == std::string::npos) continue;
      ++run;
      EXPECT_EQ(text.find(line, at + 1), std::string::npos) << line << " came twice";
    }
  }

  std::string summary() const {
    const MutexLock lock(mutex);
    std::ostringstream text;
    size_t declared = 0;
    for (const int n : posted) declared += arrived.count(n) == 0 ? 1 : 0;
    text << name << ": " << posted.size() << " events posted, " << arrived.size() << " arrived, "
         << arrivals - arrived.size() << " of them more than once, " << declared << " only declared lost in "
         << gaps.size() << " gaps; " << commands << " commands sent, " << run << " run";
    return text.str();
  }

  const std::string name;
  size_t commands = 0;  // sent with different ids

 private:
  void start_daemon() {
    former_log += daemon.log();
    for (const char* file : {"log", "pid"}) std::filesystem::remove(daemon.path(file));
    ASSERT_TRUE(daemon.start());
    const auto stats = ControlClient(daemon.path(".")).ask("stats");
    const MutexLock lock(mutex);
    runs.push_back(line_of(stats, "daemon").text("run"));
  }
  std::string all_log() const { return former_log + daemon.log(); }

  void post_events(uint_fast32_t seed) {
    std::mt19937 own(seed);
    for (int n = 0; posting;) {
      std::string lines;
      const int first = n + 1;
      for (auto count = own() % 20 + 1; count > 0; --count) {
        const size_t pad = large_ones-- > 0 || own() % 50 == 0 ? 3000 : own() % 50;
        lines += std::string(own() % 300 == 0 ? "1 alarm" : "1 door") + " n=" + std::to_string(++n) +
                 "&pad=" + std::string(pad, '.') + "\n";
      }
      if (daemon.post(lines)) {  // otherwise nobody knows whether they were taken in
        const MutexLock lock(mutex);
        for (int taken = first; taken <= n; ++taken) posted.push_back(taken);
      }
      if (large_ones <= 0) pause(own() % 200);
    }
  }

  // Learns the ids of all events from the daemon itself.
  void watch() {
    std::string last;
    while (watching) {
      try {
        ControlClient client(daemon.path("."));
        client.send("follow names=door,alarm" + (last.empty() ? "" : " from=" + last));
        AnswerLine line;
        while (client.next(line, -1) == ControlClient::Got::line) {
          if (line.kind() != "event") continue;
          last = line.text("id");
          const MutexLock lock(mutex);
          witnessed[std::stoi(part_behind(line.text("info"), "n=", '&'))] = last;
        }
      } catch (const Failure&) {
        pause(20);
      }
    }
  }

  static Place place_of(const std::string& id, const std::vector<std::string>& runs_in_order) {
    const size_t dash = id.find('-');
    const auto found = std::find(runs_in_order.begin(), runs_in_order.end(), id.substr(0, dash));
    EXPECT_NE(found, runs_in_order.end()) << id << " is of no run";
    return {found - runs_in_order.begin(), std::stoull(id.substr(dash + 1))};
  }

  // An event that came just before its daemon was killed has no witness: its place is between those of others, in
  // different runs.
  bool is_declared(int n) const REQUIRES(mutex) {
    const auto place = [order = &runs](const std::string& id) { return place_of(id, *order); };
    const auto seen = witnessed.lower_bound(n);
    const bool is_known = seen != witnessed.end() && seen->first == n;
    const Place last = seen == witnessed.end() ? Place(runs.size(), 0) : place(seen->second);
    Place first = is_known ? last : Place();
    if (!is_known && seen != witnessed.begin()) first = place(std::prev(seen)->second);
    if (!is_known && first.first == last.first) return false;
    return std::any_of(gaps.begin(), gaps.end(), [&](const auto& gap) {
      const Place from = place(gap.first);
      const Place to = place(gap.second);
      return is_known ? from <= first && last <= to : from.first < to.first && from <= last && first <= to;
    });
  }

  std::mt19937& random;  // of the main thread
  RealDaemon daemon;

 public:
  CutProxy proxy;
  std::unique_ptr<RealUplink> uplink;

 private:
  std::atomic<bool> posting{true}, watching{true};
  std::atomic<int> large_ones{0};  // of the next events
  std::thread poster, witness;
  std::string former_log;  // of daemons that were killed
  size_t run = 0;          // commands

  mutable Mutex mutex;
  std::vector<std::string> runs GUARDED_BY(mutex);                       // of the daemon
  std::vector<int> posted GUARDED_BY(mutex);                             // events that the daemon has taken in
  std::map<int, std::string> witnessed GUARDED_BY(mutex);                // their ids
  std::map<int, std::string> arrived GUARDED_BY(mutex);                  // at the broker
  std::set<std::pair<std::string, std::string>> gaps GUARDED_BY(mutex);  // first and last id
  size_t arrivals GUARDED_BY(mutex) = 0;
  int last_first_arrival GUARDED_BY(mutex) = 0;
};

class UplinkChaos : public testing::Test {
 protected:
  void SetUp() override {
    if (!MqttBroker::is_installed()) GTEST_SKIP() << "mosquitto is not installed";
    broker.configuration += "persistence_location " + broker.folder.path + "/\n";
    ASSERT_TRUE(broker.start());
    ASSERT_TRUE(join_broker());
    for (const char* name : {"d0", "d1"}) {
      devices.push_back(std::make_unique<Device>(name, broker.port(), random));
      proxies.push_back(&devices.back()->proxy);
    }
    for (const auto& device : devices) device->start();
  }

  bool join_broker() {
    return recorder.connect(broker.port(), "recorder", "z/#") && sender.connect(broker.port(), "sender");
  }

  void take(const std::string& topic, const std::string& payload) {
    if (topic.find("/r/") != std::string::npos) {
      const MutexLock lock(mutex);
      answers += payload + "\n";
    } else if (topic.find("/state") == std::string::npos) {
      devices[static_cast<size_t>(topic[3] - '0')]->take(payload);
    }
  }

  // What it has confirmed and not sent to the recorder yet would be lost by the broker, and not by the uplink. So it
  // serves nobody else before the recorder.
  void kill_broker() {
    broker.end(random() % 2 == 0 ? SIGKILL : SIGTERM);
    for (CutProxy* proxy : proxies) proxy->set(CutProxy::Mode::blackhole);
    pause(random() % 1500);
    ASSERT_TRUE(broker.start() && join_broker());
    for (CutProxy* proxy : proxies) proxy->set(CutProxy::Mode::pass);
  }

  void make_trouble() {
    Device& device = *devices[random() % devices.size()];
    switch (random() % 10) {
      case 0:
        return device.kill_uplink();
      case 1:
        return device.kill_daemon();
      case 2:
        return kill_broker();
      case 3:
        return device.proxy.cut();
      case 4:
        device.proxy.set(CutProxy::Mode::blackhole);
        pause(random() % 2000);
        return device.proxy.set(CutProxy::Mode::pass);
      case 5:
        return device.proxy.tear_after(random() % 3000);
      case 6:
        return device.proxy.delay(static_cast<int>(random() % 60));
      case 7:
        return device.hang_up_uplink();
      case 8:
        return device.flood();
      default:
        for (auto count = random() % 5 + 1; count > 0; --count) {
          sender.publish(device.topic("c/unlock"), device.next_command());
        }
    }
  }

  void calm_down() {
    for (const auto& device : devices) {
      device->proxy.set(CutProxy::Mode::pass);
      device->proxy.delay(0);
      device->proxy.tear_after(-1);
      device->end_posts();
    }
  }

  void expect_all() {
    for (const auto& device : devices) {
      std::string missing;
      const int64_t until = steady_ms() + kCalmMs;
      for (int64_t again = 0; !device->is_complete(missing) && steady_ms() < until; pause(50)) {
        if (steady_ms() < again) continue;
        device->hang_up_uplink();
        again = steady_ms() + 5000;
      }
      EXPECT_EQ(missing, "") << device->name << " has lost events";
    }
  }

  void expect_answers() {
    for (const auto& device : devices) {
      const std::string id = device->name + "-" + std::to_string(++device->commands);
      const std::string answer = R"({"id":")" + id + R"(","status":"ok"})";
      EXPECT_TRUE(wait_until([&] {
        sender.publish(device->topic("c/unlock"), "{\"id\":\"" + id + "\"}");
        pause(200);
        const MutexLock lock(mutex);
        return answers.find(answer) != std::string::npos;
      })) << id;
    }
  }

  const unsigned seed =
      static_cast<unsigned>(setting("ZELVIND_CHAOS_SEED", static_cast<int>(std::random_device()() >> 1)));
  std::mt19937 random{seed};
  MqttBroker broker{"allow_anonymous true\npersistence true\nautosave_interval 1\nmax_queued_messages 0\n"};
  std::vector<std::unique_ptr<Device>> devices;
  std::vector<CutProxy*> proxies;
  Mutex mutex;
  std::string answers GUARDED_BY(mutex);
  MqttPeer recorder{[this](const std::string& topic, const std::string& payload) { take(topic, payload); }};
  MqttPeer sender;
};

TEST_F(UplinkChaos, LosesNothingThatItDoesNotDeclare) {
  const int64_t until = steady_ms() + int64_t{1000} * setting("ZELVIND_CHAOS_SECONDS", 10);
  std::cout << "seed " << seed << std::endl;
  while (steady_ms() < until && !HasFailure()) {
    make_trouble();
    pause(random() % 200);
    if (random() % 2 == 0) devices[random() % devices.size()]->hang_up_uplink();
  }
  calm_down();
  expect_all();
  expect_answers();
  for (const auto& device : devices) {
    device->end();
    device->expect_commands_once();
    std::cout << device->summary() << std::endl;
  }
}

}  // namespace
