#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/cut_proxy.h"
#include "tests/mqtt_broker.h"
#include "tests/standin_device.h"
#include "uplink/broker_link.h"
#include "util/clock.h"

namespace {
using Strings = std::vector<std::string>;

UplinkSettings settings_for(int port, const std::string& device = "gate") {
  UplinkSettings settings;
  settings.host = "127.0.0.1";
  settings.port = port;
  settings.device = device;
  settings.prefix = "z/" + device;
  return settings;
}

BrokerLink::Times short_times() {
  BrokerLink::Times times;
  times.first_retry = 20;
  times.last_retry = 50;
  return times;
}

// A link in a loop of its own, and what it has told.
class LoopedLink {
 public:
  explicit LoopedLink(const UplinkSettings& settings, const Strings& subscriptions = {},
                      const BrokerLink::Times& times = short_times())
      : link(settings, {settings.topic("state"), [] { return std::string("off"); }}, subscriptions, events(), times) {}

  // Runs the loop until `condition`; false after 15 s.
  bool run_until(const std::function<bool()>& condition) {
    const int64_t until = steady_ms() + 15000;
    while (!condition()) {
      if (steady_ms() > until) return false;
      std::vector<pollfd> wanted;
      link.add_descriptors(wanted);
      const int wait = link.wait_ms();
      poll(wanted.data(), wanted.size(), wait < 0 ? 100 : std::min(wait, 100));
      link.run();
    }
    return true;
  }
  bool run_until_told(const std::string& what, size_t times = 1) {
    return run_until([&] { return count(what) >= times; });
  }
  bool run_until_up(uint64_t times = 1) {
    return run_until([&] { return link.state().up && link.state().connects >= times; });
  }
  size_t count(const std::string& what) const {
    return static_cast<size_t>(std::count(told.begin(), told.end(), what));
  }

  Strings told;
  BrokerLink link;

 private:
  BrokerLink::Events events() {
    BrokerLink::Events told_to;
    told_to.on_up = [this] { told.emplace_back("up"); };
    told_to.on_down = [this](const std::string& reason) { told.push_back("down: " + reason); };
    told_to.on_confirmed = [this](int token) { told.push_back("confirmed " + std::to_string(token)); };
    told_to.on_refused = [this](int token, const std::string& reason) {
      told.push_back("refused " + std::to_string(token) + ": " + reason);
    };
    told_to.on_message = [this](std::string_view topic, std::string_view payload, bool retained) {
      told.push_back(std::string(topic) + (retained ? " retained " : " ") + std::string(payload.substr(0, 100)));
    };
    return told_to;
  }
};

// A broker of a few lines: answers each CONNECT by `answer`, to which it gives the protocol's number, and takes what
// else comes in silence. An empty answer closes the connection.
class FakeBroker {
 public:
  explicit FakeBroker(std::function<std::string(int protocol)> answer_to) : answer(std::move(answer_to)) {
    listen(listening.get(), 8);
    thread = std::thread([this] { serve(); });
  }
  ~FakeBroker() {
    shutdown(listening.get(), SHUT_RDWR);
    thread.join();
  }
  FakeBroker(const FakeBroker&) = delete;
  FakeBroker& operator=(const FakeBroker&) = delete;
  int port() const { return port_of(listening); }

 private:
  void serve() {
    std::vector<Descriptor> held;
    for (;;) {
      Descriptor client(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (client.get() < 0) return;
      char packet[512];
      const ssize_t size = recv(client.get(), packet, sizeof(packet), 0);
      const std::string_view text(packet, static_cast<size_t>(std::max(ssize_t{0}, size)));
      const size_t name = text.find("MQTT");
      if (name == std::string_view::npos) continue;
      const std::string bytes = answer(text[name + 4]);
      send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (bytes.size() > 4 || bytes == accepted_4()) held.push_back(std::move(client));
    }
  }

 public:
  static std::string accepted_4() { return std::string("\x20\x02\x00\x00", 4); }
  static std::string accepted_5() { return std::string("\x20\x03\x00\x00\x00", 5); }

 private:
  const std::function<std::string(int)> answer;
  Descriptor listening = loopback_socket();
  std::thread thread;
};

class Broker : public testing::Test {
 protected:
  void SetUp() override {
    if (!MqttBroker::is_installed()) GTEST_SKIP() << "mosquitto is not installed";
    standin::reset();
  }
};

TEST_F(Broker, TakesMessagesAndSendsThem) {
  MqttBroker broker;
  ASSERT_TRUE(broker.start());
  LoopedLink gate(settings_for(broker.port()), {"z/gate/c/unlock"});
  EXPECT_EQ(gate.link.publish("z/gate/c/unlock", "early"), BrokerLink::kNotNow);
  ASSERT_TRUE(gate.run_until_up());
  EXPECT_EQ(gate.link.state().protocol, 5);
  const int token = gate.link.publish("z/gate/c/unlock", "now");
  ASSERT_GT(token, 0);
  EXPECT_EQ(gate.link.state().in_flight, 1);
  EXPECT_TRUE(gate.run_until_told("confirmed " + std::to_string(token)));
  EXPECT_TRUE(gate.run_until_told("z/gate/c/unlock now"));
  EXPECT_EQ(gate.link.state().in_flight, 0);
}

}  // namespace
