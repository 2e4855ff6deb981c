// The daemon, its uplink and real brokers, together as on a device.

#include <gtest/gtest.h>

#include <memory>

#include "tests/mqtt_broker.h"
#include "tests/real_uplink.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSlow = true;
#else
constexpr bool kSlow = false;
#endif

constexpr char kUnlock[] = R"(
script_define("unlock", {})
on("unlock", function()
  local command = fields()
  post(1, "uplink_reply", {cmd_id = command.cmd_id, status = "ok", door = command.door})
end)
)";

class NatsServer : public MqttBroker {
 protected:
  std::string command() override {
    std::ofstream(folder.file("conf")) << "server_name: test\nlisten: 127.0.0.1:-1\njetstream { store_dir: '"
                                       << folder.path << "' }\nmqtt { listen: '127.0.0.1:" << port() << "' }\n";
    return "exec nats-server -c '" + folder.file("conf") + "'";
  }
};

// Its port mapper is one of its own, which ends with it.
class RabbitMq : public MqttBroker {
 protected:
  std::string command() override {
    std::ofstream(folder.file("plugins")) << "[rabbitmq_mqtt].\n";
    std::ofstream(folder.file("rabbitmq.conf"))
        << "listeners.tcp = none\nmqtt.listeners.tcp.1 = 127.0.0.1:" << port() << "\n";
    return "cd '" + folder.path +
           "'; export HOME=$PWD ERL_EPMD_ADDRESS=127.0.0.1 ERL_EPMD_PORT=" + std::to_string(mapper) +
           " RABBITMQ_DIST_PORT=" + std::to_string(other_nodes) +
           " RABBITMQ_NODENAME=test@localhost RABBITMQ_MNESIA_BASE=$PWD RABBITMQ_LOG_BASE=$PWD"
           " RABBITMQ_ENABLED_PLUGINS_FILE=$PWD/plugins RABBITMQ_CONFIG_FILE=$PWD/rabbitmq"
           " RABBITMQ_CONF_ENV_FILE=$PWD/none RUNNING_UNDER_SYSTEMD=1; setpriv --pdeathsig KILL epmd >/dev/null 2>&1 &"
           " exec /usr/lib/rabbitmq/bin/rabbitmq-server";
  }

 private:
  const int mapper = port_of(loopback_socket());
  const int other_nodes = port_of(loopback_socket());
};

struct Kind {
  const char* name;
  const char* program;
  std::unique_ptr<MqttBroker> (*make)();
  bool slow;  // to start
};

template <typename Broker>
std::unique_ptr<MqttBroker> make() {
  return std::make_unique<Broker>();
}

class UplinkLive : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    daemon.write("scripts/unlock.lua", kUnlock);
    ASSERT_TRUE(daemon.start());
  }

  // Starts the broker, and lets the uplink reach it only when the recorder is there.
  void start(MqttBroker& broker) {
    if (proxy) proxy->set(CutProxy::Mode::blackhole);
    ASSERT_TRUE(broker.start());
    ASSERT_TRUE(wait_until([&] { return recorder.connect(broker.port()); }));
    if (!proxy) proxy = std::make_unique<CutProxy>(broker.port());
    proxy->set(CutProxy::Mode::pass);
  }

  void start_uplink() {
    if (!uplink) {
      uplink = std::make_unique<RealUplink>(daemon, proxy->port(), "gate",
                                            "prefix = z/%i\nup = door\ndown = unlock\nhold_ms = 100\n");
    }
    uplink->start();
    ASSERT_TRUE(uplink->wait_until_ready());
  }

  std::string run() {
    const auto stats = ControlClient(daemon.path(".")).ask("stats");
    return line_of(stats, "daemon").text("run");
  }

  RealDaemon daemon;
  MqttRecorder recorder;
  std::unique_ptr<CutProxy> proxy;
  std::unique_ptr<RealUplink> uplink;
};

TEST_P(UplinkLive, WorksWithThisBroker) {
  if (!have_program(GetParam().program)) GTEST_SKIP() << GetParam().program << " is not installed";
  if (GetParam().slow && kSlow) GTEST_SKIP() << GetParam().program << " is slow, and the sanitizers learn nothing new";
  const auto broker = GetParam().make();
  start(*broker);
  start_uplink();
  EXPECT_TRUE(recorder.wait_for("z/gate/state {\"on\":true"));
  ASSERT_TRUE(daemon.post("1 door n=1\n"));
  EXPECT_TRUE(recorder.wait_for("z/gate/e/door {\"id\":\"" + run() + "-1\""));

  broker->end(SIGKILL);
  ASSERT_TRUE(daemon.post("1 door n=2\n"));
  start(*broker);
  uplink->send_signal(SIGHUP);
  EXPECT_TRUE(recorder.wait_for("z/gate/e/door {\"id\":\"" + run() + "-2\""));

  MqttPeer sender;
  ASSERT_TRUE(sender.connect(broker->port(), "sender"));
  sender.publish("z/gate/c/unlock", R"({"id":"q1","f":{"door":"front"}})");
  EXPECT_TRUE(recorder.wait_for(R"(z/gate/r/q1 {"id":"q1","status":"ok","f":{"door":"front"}})"));
  EXPECT_EQ(uplink->end(), 0);
  EXPECT_TRUE(recorder.wait_for("z/gate/state {\"on\":false"));
}

const Kind kKinds[] = {{"mosquitto", "mosquitto", make<MqttBroker>, false},
                       {"nats", "nats-server", make<NatsServer>, false},
                       {"rabbitmq", "rabbitmq-server", make<RabbitMq>, true}};
INSTANTIATE_TEST_SUITE_P(Brokers, UplinkLive, testing::ValuesIn(kKinds),
                         [](const auto& kind) { return std::string(kind.param.name); });

}  // namespace
