// The daemon, its uplink and real brokers, together as on a device.

#include <gtest/gtest.h>

#include <memory>
#include <set>

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
  post(1, "uplink_reply", {cmd_id = command.cmd_id, status = "open", door = command.door})
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

void PrintTo(const Kind& kind, std::ostream* out) {
  *out << kind.name;
}

template <typename Broker>
std::unique_ptr<MqttBroker> make() {
  return std::make_unique<Broker>();
}

class UplinkLive : public testing::Test {
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

  void start_uplink(bool is_ready = true) {
    if (!uplink) {
      uplink = std::make_unique<RealUplink>(
          daemon, proxy->port(), "gate",
          "prefix = z/%i\nup = door,alarm\nurgent = alarm\ndown = unlock\nrate = 1000\nhold_ms = 100\n");
    }
    uplink->start();
    if (is_ready) {
      ASSERT_TRUE(uplink->wait_until_ready());
    }
  }

  void post(const std::string& name, int first, int last) const {
    std::string lines;
    for (int n = first; n <= last; ++n) lines += "1 " + name + " n=" + std::to_string(n) + "\n";
    EXPECT_TRUE(daemon.post(lines));
  }
  // Each of these events has come, first arrivals in order.
  void expect_all(int first, int last) const {
    const auto number = [](int n) { return "\"n\":\"" + std::to_string(n) + "\""; };
    ASSERT_TRUE(recorder.wait_for(number(last)));
    const std::string text = recorder.text();
    for (int n = first; n < last; ++n) EXPECT_LT(text.find(number(n)), text.find(number(n + 1))) << n;
  }
  std::string run() const { return uplink->stat("daemon", "run"); }
  bool stat_becomes(const char* kind, const char* key, const std::string& value) const {
    return wait_until([&] { return uplink->stat(kind, key) == value; });
  }

  RealDaemon daemon;
  MqttRecorder recorder;
  std::unique_ptr<CutProxy> proxy;
  std::unique_ptr<RealUplink> uplink;
};

class UplinkBrokers : public UplinkLive, public testing::WithParamInterface<Kind> {};

TEST_P(UplinkBrokers, EventsArriveAndCommandsCome) {
  if (!have_program(GetParam().program)) GTEST_SKIP() << GetParam().program << " is not installed";
  if (GetParam().slow && kSlow) GTEST_SKIP() << GetParam().program << " is slow, and the sanitizers learn nothing new";
  const auto broker = GetParam().make();
  start(*broker);
  start_uplink();
  EXPECT_TRUE(recorder.wait_for("z/gate/state {\"on\":true"));
  post("door", 1, 1);
  EXPECT_TRUE(recorder.wait_for("z/gate/e/door {\"id\":\"" + run() + "-1\""));

  broker->end(SIGKILL);
  post("door", 2, 2);
  start(*broker);
  uplink->send_signal(SIGHUP);
  EXPECT_TRUE(recorder.wait_for("z/gate/e/door {\"id\":\"" + run() + "-2\""));

  MqttPeer sender;
  ASSERT_TRUE(sender.connect(broker->port(), "sender"));
  sender.publish("z/gate/c/unlock", R"({"id":"q1","f":{"door":"front"}})");
  EXPECT_TRUE(recorder.wait_for(R"(z/gate/r/q1 {"id":"q1","status":"open","f":{"door":"front"}})"));
  sender.publish("z/gate/c/reboot", R"({"id":"q2"})");
  EXPECT_TRUE(recorder.wait_for(R"(z/gate/r/q2 {"id":"q2","status":"refused")"));
  EXPECT_EQ(uplink->end(), 0);
  EXPECT_TRUE(recorder.wait_for("z/gate/state {\"on\":false"));
}

const Kind kKinds[] = {{"mosquitto", "mosquitto", make<MqttBroker>, false},
                       {"nats", "nats-server", make<NatsServer>, false},
                       {"rabbitmq", "rabbitmq-server", make<RabbitMq>, true}};
INSTANTIATE_TEST_SUITE_P(Each, UplinkBrokers, testing::ValuesIn(kKinds),
                         [](const auto& kind) { return std::string(kind.param.name); });

class UplinkProgram : public UplinkLive {
 protected:
  void SetUp() override {
    if (!MqttBroker::is_installed()) GTEST_SKIP() << "mosquitto is not installed";
    UplinkLive::SetUp();
    start(broker);
    start_uplink();
  }
  MqttBroker broker;
};

TEST_F(UplinkProgram, LosesNothingWhenTheBrokerOrItselfIsKilled) {
  post("door", 1, 50);
  expect_all(1, 50);
  const std::string of_run = run() + "-";
  broker.end(SIGKILL);
  post("door", 51, 100);
  ASSERT_TRUE(stat_becomes("spool", "records", "50"));
  EXPECT_EQ(uplink->end(SIGKILL), 128 + SIGKILL);
  post("door", 101, 150);
  start_uplink(false);
  ASSERT_TRUE(stat_becomes("daemon", "position", of_run + "150"));
  start(broker);
  expect_all(1, 150);
  EXPECT_EQ(recorder.text().find("/gap"), std::string::npos);
  ASSERT_TRUE(stat_becomes("out", "waiting", "0"));
  EXPECT_EQ(uplink->end(), 0);
  EXPECT_TRUE(recorder.wait_for("z/gate/state {\"on\":false,\"session\":2,"));
}

TEST_F(UplinkProgram, MetricsHaveEachNumber) {
  const std::set<std::string> others = {"version", "device", "run",      "position", "pid",        // not measured
                                        "port",    "tls",    "protocol", "rate",     "uptime_s"};  // or told otherwise
  size_t numbers = 4;  // texts that metrics tell as numbers: the version, broker, daemon, spool
  for (const AnswerLine& line : ControlClient(daemon.path("."), kAnswerLimitMs, kUplinkSocketPath).ask("stats")) {
    for (const auto& [key, value] : line.values())
      numbers += others.count(key) == 0 && line.number(key.c_str(), -1) >= 0;
  }
  EXPECT_EQ(daemon.launch("zelvctl metrics | grep -c ^zelvind_uplink_ >$ROOT/metrics"), 0);
  EXPECT_EQ(daemon.text_of("metrics"), std::to_string(numbers) + "\n");
}

TEST_F(UplinkProgram, DeclaresWhatTheFormerDaemonMayHaveHad) {
  post("door", 1, 1);
  expect_all(1, 1);
  const std::string former = run();
  EXPECT_EQ(daemon.stop(), 0);
  daemon.write("log", "");
  daemon.write("pid", "");
  ASSERT_TRUE(daemon.start());
  post("door", 2, 2);
  expect_all(1, 2);
  const std::string gap = "z/gate/gap {\"gap\":[\"" + former + "-2\",\"" + run() + "-0\"],\"n\":null}\n";
  EXPECT_LT(recorder.text().find(gap), recorder.text().find("\"n\":\"2\""));
}

TEST_F(UplinkProgram, EndsSoonAndKeepsAllWhenTheBrokerHangs) {
  proxy->set(CutProxy::Mode::blackhole);
  post("alarm", 1, 3);
  ASSERT_TRUE(stat_becomes("spool", "records", "3"));  // urgent: before any answer of the broker
  const int64_t start = steady_ms();
  EXPECT_EQ(uplink->end(), 0);
  EXPECT_LT(steady_ms() - start, 5000);
  proxy->cut();  // what was on the way
  proxy->set(CutProxy::Mode::pass);
  start_uplink();
  expect_all(1, 3);
}

// With MQTT 3.1.1, where the will is not delayed: the first try, with 5, is torn.
TEST_F(UplinkProgram, IsSaidToBeAwayWhenItIsKilled) {
  ASSERT_TRUE(stat_becomes("broker", "in_flight", "0"));
  proxy->tear_after(0);
  uplink->send_signal(SIGHUP);
  ASSERT_TRUE(stat_becomes("broker", "protocol", "4"));
  EXPECT_EQ(recorder.text().find("\"on\":false"), std::string::npos);
  EXPECT_EQ(uplink->end(SIGKILL), 128 + SIGKILL);
  EXPECT_TRUE(recorder.wait_for("z/gate/state {\"on\":false,\"session\":1,"));
}

TEST_F(UplinkProgram, GoesOnWithoutStandardStreamsAndWhereFilesMayNotGrow) {
  EXPECT_EQ(uplink->end(), 0);
  proxy->set(CutProxy::Mode::blackhole);
  uplink->start("ulimit -f 8; exec <&- >&-; ");
  ASSERT_TRUE(stat_becomes("daemon", "state", "following"));
  for (const char* const stream : {"0", "1"}) {
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + uplink->stat("uplink", "pid") + "/fd/" + stream), "/dev/null");
  }
  post("door", 1, 200);
  ASSERT_TRUE(stat_becomes("spool", "place", "memory"));
  proxy->cut();
  proxy->set(CutProxy::Mode::pass);
  expect_all(1, 200);
  EXPECT_EQ(uplink->end(), 0);
}

TEST_F(UplinkProgram, SaysWhyItDoesNotStart) {
  const std::string run_it = "exec 2>$ROOT/second; " ZELVIND_UPLINK;
  EXPECT_EQ(daemon.launch(run_it), 1);
  EXPECT_EQ(daemon.text_of("second"), "zelvind-uplink: another zelvind-uplink uses ROOT/var/lib/zelvind-uplink\n");
  daemon.write("etc/zelvind/uplink.info", "broker = mqtt://h\nrate = x\nnix");
  EXPECT_EQ(daemon.launch(run_it), 2);
  EXPECT_EQ(daemon.text_of("second").substr(0, 53), "zelvind-uplink: ROOT/etc/zelvind/uplink.info: line 3:");
}

}  // namespace
