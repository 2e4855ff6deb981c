#include <gtest/gtest.h>

#include <netdb.h>
#include <sys/stat.h>
#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/cut_proxy.h"
#include "tests/mqtt_broker.h"
#include "tests/standin_device.h"
#include "uplink/broker_link.h"
#include "util/clock.h"
#include "util/mutex.h"

namespace {
std::atomic<int> hanging_lookups{0};
std::atomic<bool> resolver_released{false};
}  // namespace

// The resolver as the tests want it: the link that is under test calls this one (-Wl,--wrap).
extern "C" {
int __real_getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** out);
int __wrap_getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** out);
int __wrap_getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** out) {
  const std::string name = host;
  if (name.find(".example") == std::string::npos || (hints->ai_flags & AI_NUMERICHOST) != 0) {
    return __real_getaddrinfo(host, service, hints, out);
  }
  if (name == "hangs.example") {
    ++hanging_lookups;
    while (!resolver_released) usleep(1000);
    return EAI_AGAIN;
  }
  const int result = __real_getaddrinfo(name == "two.example" ? "127.0.0.2" : "127.0.0.1", service, hints, out);
  if (name == "two.example") return result | __real_getaddrinfo("127.0.0.1", service, hints, &(*out)->ai_next);
  return result;
}
}

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
// else comes in silence. With an answer that does not begin with an acceptance it closes the connection. One that
// `confirms_later_ones` confirms each message but the first one of a connection, and serves one at a time.
class FakeBroker {
 public:
  static std::string accepted_4() { return {"\x20\x02\x00\x00", 4}; }
  static std::string accepted_5() { return {"\x20\x03\x00\x00\x00", 5}; }

  explicit FakeBroker(std::function<std::string(int protocol)> answer_to, bool confirms_later_ones = false)
      : answer(std::move(answer_to)), confirms(confirms_later_ones) {
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
  // The first one of the connection with that number.
  std::string packet(size_t connection = 0) {
    const MutexLock lock(mutex);
    return connection < packets.size() ? packets[connection] : "";
  }
  int tries_of(int protocol) {
    const MutexLock lock(mutex);
    return static_cast<int>(std::count_if(packets.begin(), packets.end(),
                                          [&](const std::string& packet) { return protocol_of(packet) == protocol; }));
  }

 private:
  // 0: it is no CONNECT.
  static int protocol_of(const std::string& packet) {
    const size_t name = packet.find("MQTT");
    return name == std::string::npos ? 0 : packet[name + 4];
  }
  void serve() {
    std::vector<Descriptor> held;
    for (;;) {
      Descriptor client(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (client.get() < 0) return;
      char bytes[2048];
      const ssize_t size = recv(client.get(), bytes, sizeof(bytes), 0);
      const std::string packet(bytes, static_cast<size_t>(std::max(ssize_t{0}, size)));
      {
        const MutexLock lock(mutex);
        packets.push_back(packet);
      }
      const std::string reply = protocol_of(packet) == 0 ? "" : answer(protocol_of(packet));
      send(client.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
      while (confirms && confirm_next(client.get())) {
      }
      if (reply.find(accepted_4()) == 0 || reply.find(accepted_5()) == 0) held.push_back(std::move(client));
    }
  }

  // False: the connection has ended. Messages come one at a time.
  static bool confirm_next(int client) {
    char bytes[2048];
    if (recv(client, bytes, sizeof(bytes), 0) <= 0) return false;
    const int number_at = 4 + bytes[3];  // behind the topic
    const char reply[] = {'\x40', '\x02', bytes[number_at], bytes[number_at + 1]};
    if (reply[2] != 0 || reply[3] != 1) send(client, reply, sizeof(reply), MSG_NOSIGNAL);
    return true;
  }

  const std::function<std::string(int)> answer;
  const bool confirms;
  Mutex mutex;
  Strings packets GUARDED_BY(mutex);  // the first one of each connection
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

TEST_F(Broker, KeepsTheSessionAndLeavesCleanly) {
  MqttBroker broker;
  ASSERT_TRUE(broker.start());
  LoopedLink other(settings_for(broker.port(), "other"), {"z/gate/state"});
  ASSERT_TRUE(other.run_until_up());
  const UplinkSettings settings = settings_for(broker.port());
  {
    LoopedLink gate(settings, {"z/gate/c/unlock", "z/gate/c/report"});
    ASSERT_TRUE(gate.run_until_up());
    ASSERT_GT(gate.link.publish("z/gate/state", "on", true), 0);
    ASSERT_TRUE(other.run_until_told("z/gate/state on"));
    // Both come in one piece; SUBACK is in front of what is sent back.
    ASSERT_GT(gate.link.publish("z/gate/c/unlock", "known"), 0);
    ASSERT_TRUE(gate.run_until_told("z/gate/c/unlock known"));
    gate.link.close("off, said", 5000);
    EXPECT_EQ(gate.told.back().find("down"), std::string::npos);
    EXPECT_EQ(gate.link.wait_ms(), -1);
  }
  ASSERT_TRUE(other.run_until_told("z/gate/state off, said"));
  for (const char* const name : {"unlock", "report"}) {
    ASSERT_GT(other.link.publish(std::string("z/gate/c/") + name, "meanwhile"), 0);
  }
  ASSERT_TRUE(other.run_until([&] { return other.link.state().in_flight == 0; }));
  LoopedLink gate(settings, {"z/gate/c/unlock"});
  EXPECT_TRUE(gate.run_until_told("z/gate/c/unlock meanwhile"));
  EXPECT_TRUE(gate.run_until([&] { return gate.link.state().ignored == 1; }));
  EXPECT_EQ(gate.count("z/gate/c/report meanwhile"), 0U);
  EXPECT_EQ(other.count("z/gate/state off"), 0U);  // the will
}

TEST_F(Broker, SaysWhyItIsNotLetIn) {
  MqttBroker broker("allow_anonymous false\n");
  const std::string passwords = broker.folder.file("passwords");
  const std::string password = broker.folder.file("password");
  ASSERT_EQ(system(("mosquitto_passwd -c -b " + passwords + " gate secret").c_str()), 0);
  broker.configuration += "password_file " + passwords + "\n";
  ASSERT_TRUE(broker.start());
  UplinkSettings settings = settings_for(broker.port());
  settings.user = "gate";
  settings.password_file = password;
  LoopedLink gate(settings);
  const auto fails_with = [&](const std::string& reason) {
    return gate.run_until([&] { return gate.link.state().last_error == reason; });
  };
  EXPECT_TRUE(fails_with("failed to open " + password + ": No such file or directory"));
  ASSERT_EQ(mkfifo(password.c_str(), 0600), 0);  // to open one would wait for a writer
  EXPECT_TRUE(fails_with(password + " is not a regular file"));
  std::filesystem::remove(password);
  std::ofstream(password) << "wrong\n";
  EXPECT_TRUE(fails_with("Not authorized"));
  std::ofstream(password) << "secret\nnot this line";
  EXPECT_TRUE(gate.run_until_up());
  const uint64_t failures = gate.link.state().failures;
  EXPECT_GE(failures, 3U);
  broker.end(SIGKILL);
  EXPECT_TRUE(fails_with("Connection refused"));
  EXPECT_EQ(gate.told, Strings({"up", "down: the broker closed the connection"}));
  EXPECT_TRUE(gate.run_until([&] { return gate.link.state().failures > failures + 5; }));
  ASSERT_TRUE(broker.start());
  EXPECT_TRUE(gate.run_until_up(2));
  const std::string target = "127.0.0.1:" + std::to_string(broker.port());
  const Strings lines = standin::log_lines_with("uplink: ");
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[2], "<1> uplink: no connection to " + target + ": Not authorized");
  EXPECT_EQ(lines[3], "<1> uplink: connected to " + target + " with MQTT 5, after 0 s without");
  EXPECT_EQ(lines[5], "<1> uplink: no connection to " + target + ": Connection refused");
}

TEST_F(Broker, VerifiesCertificates) {
  if (!have_program("openssl")) GTEST_SKIP() << "openssl is not installed";
  MqttBroker broker;
  const TemporaryFolder& folder = broker.folder;
  const auto file = [&](const std::string& name) { return folder.file(name); };
  ASSERT_TRUE(make_authority(folder, "ca") && make_authority(folder, "foreign"));
  ASSERT_TRUE(make_certificate(folder, "ca", "server", "DNS:localhost"));
  ASSERT_TRUE(make_certificate(folder, "ca", "elsewhere", "DNS:elsewhere"));
  ASSERT_TRUE(make_certificate(folder, "ca", "address", "IP:127.0.0.1"));
  ASSERT_TRUE(make_certificate(folder, "ca", "old", "DNS:localhost", -1));
  ASSERT_TRUE(make_certificate(folder, "ca", "gate", "DNS:gate"));
  ASSERT_TRUE(make_certificate(folder, "foreign", "stranger", "DNS:gate"));
  std::ofstream(file("broken.crt")) << "-----BEGIN CERTIFICATE-----\n!\n-----END CERTIFICATE-----\n";
  ASSERT_EQ(mkfifo(file("pipe.crt").c_str(), 0600), 0);
  const std::string accepts = "the broker's certificate is not accepted: ";
  struct Row {
    const char* server;
    const char* host;
    const char* ca;
    const char* cert;
    const char* key;
    std::string error;  // empty: it connects
  };
  const Row rows[] = {
      {"server", "localhost", "ca", "gate", "gate", ""},
      {"address", "127.0.0.1", "ca", "gate", "gate", ""},
      {"address", "localhost", "ca", "gate", "gate", accepts + "hostname mismatch"},
      {"server", "127.0.0.1", "ca", "gate", "gate", accepts + "IP address mismatch"},
      {"elsewhere", "localhost", "ca", "gate", "gate", accepts + "hostname mismatch"},
      {"old", "localhost", "ca", "gate", "gate", accepts + "certificate has expired"},
      {"server", "localhost", "foreign", "gate", "gate", accepts + "self-signed certificate in certificate chain"},
      {"server", "localhost", "ca", "stranger", "stranger", "(refused)"},
      {"server", "localhost", "ca", "", "", "(refused)"},
      {"server", "localhost", "missing", "gate", "gate", "failed to open CA: No such file or directory"},
      {"server", "localhost", "pipe", "gate", "gate", "CA is not a regular file"},
      {"server", "localhost", "broken", "gate", "gate", "failed to read certificates from CA: bad base64 decode"},
      {"server", "localhost", "ca", "broken", "gate", "failed to read a certificate from CERT: bad base64 decode"},
      {"server", "localhost", "ca", "gate", "stranger", "failed to use the key in KEY with CERT: key values mismatch"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.server) + " " + row.host + " " + row.ca + " " + row.cert);
    broker.end();
    broker.configuration = "allow_anonymous true\nrequire_certificate true\ncafile " + file("ca.crt") + "\ncertfile " +
                           file(row.server + std::string(".crt")) + "\nkeyfile " +
                           file(row.server + std::string(".key")) + "\n";
    ASSERT_TRUE(broker.start());
    UplinkSettings settings = settings_for(broker.port());
    settings.tls = true;
    settings.host = row.host;
    settings.ca = file(row.ca + std::string(".crt"));
    settings.cert = *row.cert == 0 ? "" : file(row.cert + std::string(".crt"));
    settings.key = *row.key == 0 ? "" : file(row.key + std::string(".key"));
    LoopedLink gate(settings);
    EXPECT_TRUE(gate.run_until([&] { return gate.link.state().up || gate.link.state().failures > 0; }));
    std::string error = gate.link.state().last_error;
    for (const auto& [path, name] : {std::pair{settings.ca, "CA"}, {settings.cert, "CERT"}, {settings.key, "KEY"}}) {
      const size_t at = path.empty() ? std::string::npos : error.find(path);
      if (at != std::string::npos) error.replace(at, path.size(), name);
    }
    // Whether the alert arrives in front of the reset is up to chance.
    const std::string closed = "the broker closed the connection after the TLS handshake";
    if (error.find("the broker ended TLS: ") == 0 || error.find(closed) == 0) error = "(refused)";
    EXPECT_EQ(error, row.error);
    EXPECT_EQ(gate.link.state().protocol, row.error.empty() ? 5 : 0);
  }
}

TEST_F(Broker, FollowsACertificateThatIsReplaced) {
  if (!have_program("openssl")) GTEST_SKIP() << "openssl is not installed";
  MqttBroker broker;
  const TemporaryFolder& folder = broker.folder;
  ASSERT_TRUE(make_authority(folder, "ca") && make_certificate(folder, "ca", "server", "DNS:localhost"));
  ASSERT_TRUE(make_authority(folder, "next") && make_certificate(folder, "next", "successor", "DNS:localhost"));
  broker.configuration += "certfile " + folder.file("server.crt") + "\nkeyfile " + folder.file("server.key") + "\n";
  ASSERT_TRUE(broker.start());
  UplinkSettings settings = settings_for(broker.port());
  settings.tls = true;
  settings.host = "localhost";
  settings.ca = folder.file("ca.crt");
  LoopedLink gate(settings, {"z/gate/c/unlock"});
  ASSERT_TRUE(gate.run_until_up());
  ASSERT_GT(gate.link.publish("z/gate/c/unlock", std::string(60000, 'x')), 0);  // several TLS records
  ASSERT_TRUE(gate.run_until_told("z/gate/c/unlock " + std::string(100, 'x')));
  broker.end(SIGKILL);
  for (const char* const part : {".crt", ".key"}) {
    std::filesystem::rename(folder.file(std::string("successor") + part), folder.file(std::string("server") + part));
  }
  ASSERT_TRUE(broker.start());
  EXPECT_TRUE(gate.run_until([&] {
    return gate.link.state().last_error.find("the broker's certificate is not accepted: ") != std::string::npos;
  }));
  std::filesystem::rename(folder.file("next.crt"), folder.file("ca.crt"));
  EXPECT_TRUE(gate.run_until_up(2));
}

TEST_F(Broker, GoesOnBehindABadLine) {
  MqttBroker broker;
  ASSERT_TRUE(broker.start());
  CutProxy proxy(broker.port());
  BrokerLink::Times times = short_times();
  times.connect = 300;
  times.acknowledge = 1000;
  LoopedLink gate(settings_for(proxy.port()), {"z/gate/c/unlock"}, times);
  ASSERT_TRUE(gate.run_until_up());
  const std::string large(30000, 'x');

  proxy.cut();
  EXPECT_TRUE(gate.run_until_told("down: Connection reset by peer"));
  ASSERT_TRUE(gate.run_until_up(2));

  proxy.tear_after(10000);
  ASSERT_GT(gate.link.publish("z/gate/c/unlock", large), 0);
  ASSERT_TRUE(gate.run_until_up(3));
  EXPECT_EQ(gate.link.state().in_flight, 0);
  EXPECT_EQ(std::count_if(gate.told.begin(), gate.told.end(),
                          [](const std::string& told) { return told.find("confirmed") == 0; }),
            0);

  proxy.delay(20);
  ASSERT_GT(gate.link.publish("z/gate/c/unlock", large), 0);
  EXPECT_TRUE(gate.run_until_told("z/gate/c/unlock " + std::string(100, 'x')));
  EXPECT_TRUE(gate.run_until([&] { return gate.link.state().in_flight == 0; }));

  proxy.set(CutProxy::Mode::blackhole);
  ASSERT_GT(gate.link.publish("z/gate/c/unlock", "lost"), 0);
  EXPECT_TRUE(gate.run_until_told("down: the broker has not acknowledged a message for 1000 ms"));
  EXPECT_TRUE(gate.run_until([&] { return gate.link.state().last_error == "the broker does not answer"; }));
  proxy.set(CutProxy::Mode::pass);
  EXPECT_TRUE(gate.run_until_up(4));
}

TEST_F(Broker, TellsWhatTheBrokerDoesNotTake) {
  MqttBroker broker("allow_anonymous true\nmax_inflight_messages 3\nmax_packet_size 1000\n");
  const std::string rights = broker.folder.file("rights");
  std::ofstream(rights) << "topic readwrite z/gate/e/#\n";
  broker.configuration += "acl_file " + rights + "\n";
  ASSERT_TRUE(broker.start());
  LoopedLink gate(settings_for(broker.port()));
  ASSERT_TRUE(gate.run_until_up());
  EXPECT_EQ(gate.link.publish("z/gate/e/door", std::string(2000, 'x')), BrokerLink::kNever);
  EXPECT_EQ(gate.link.publish("z/gate/e/#", "no topic"), BrokerLink::kNever);
  const int token = gate.link.publish("z/elsewhere", "x");
  EXPECT_TRUE(gate.run_until_told("refused " + std::to_string(token) + ": Not authorized"));
  EXPECT_EQ(gate.link.state().refused, 3U);
  for (int i = 0; i < 3; ++i) EXPECT_GT(gate.link.publish("z/gate/e/door", "x"), 0);
  EXPECT_EQ(gate.link.publish("z/gate/e/door", "x"), BrokerLink::kNotNow);
  EXPECT_TRUE(gate.run_until([&] { return gate.link.state().in_flight == 0; }));
}

// With 3.1.1, where the will is not delayed.
TEST_F(Broker, LeavesAStateThatIsTrue) {
  MqttBroker broker;
  ASSERT_TRUE(broker.start());
  CutProxy proxy(broker.port());
  LoopedLink other(settings_for(broker.port(), "other"), {"z/gate/state"});
  ASSERT_TRUE(other.run_until_up());
  UplinkSettings settings = settings_for(proxy.port());
  settings.in_flight = 1;
  settings.user = "gate";
  settings.password_file = broker.folder.file("password");
  const std::pair<const char*, std::function<void(LoopedLink&)>> rows[] = {
      {"a reconnect that fails",
       [&](LoopedLink& gate) {
         std::filesystem::remove(settings.password_file);
         gate.link.reconnect();
         EXPECT_TRUE(gate.run_until([&] { return !gate.link.state().up; }));
       }},
      {"an end at which the broker hangs",
       [&](LoopedLink& gate) {
         broker.send_signal(SIGSTOP);
         EXPECT_GT(gate.link.publish("z/gate/e/door", "x"), 0);
         gate.link.close("off, said", 50);
         broker.send_signal(SIGCONT);
       }},
  };
  for (const auto& [what, leave] : rows) {
    SCOPED_TRACE(what);
    std::ofstream(settings.password_file) << "secret";
    proxy.tear_after(0);  // the first try, which is with MQTT 5
    LoopedLink gate(settings);
    ASSERT_TRUE(gate.run_until_up());
    ASSERT_EQ(gate.link.state().protocol, 4);
    other.told.clear();
    ASSERT_GT(gate.link.publish("z/gate/state", "on", true), 0);
    ASSERT_TRUE(other.run_until_told("z/gate/state on"));
    ASSERT_TRUE(gate.run_until([&] { return gate.link.state().in_flight == 0; }));
    leave(gate);
    EXPECT_TRUE(other.run_until_told("z/gate/state off"));
  }
}

TEST(BrokerLink, AsksForWhatItNeeds) {
  standin::reset();
  FakeBroker broker([](int protocol) { return protocol == 5 ? FakeBroker::accepted_5() : std::string(); });
  LoopedLink gate(settings_for(broker.port()), {"z/gate/c/unlock"});
  ASSERT_TRUE(gate.run_until_up());
  const std::string connect = broker.packet();
  const std::string wishes("\x11\x00\x00\x0e\x10", 5);     // the session lasts an hour
  const std::string limit("\x27\x00\x01\x00\x00", 5);      // packets of 64 KiB
  const std::string delay("\x05\x18\x00\x00\x00\x1e", 6);  // the will waits 30 s
  for (const std::string& part : {wishes, limit, delay}) EXPECT_NE(connect.find(part), std::string::npos) << part;
  EXPECT_EQ(connect[connect.find("MQTT") + 5], '\x2c');  // retained will with QoS 1, the session of before
  LoopedLink other(settings_for(broker.port()));
  ASSERT_TRUE(other.run_until_up());
  const std::string until_the_will("\x11\x00\x00\x00\x1e", 5);  // without a session the will would not wait
  EXPECT_NE(broker.packet(1).find(until_the_will), std::string::npos);
}

TEST(BrokerLink, FallsBackToMqtt311) {
  struct Row {
    const char* how;
    std::string refusal;
  };
  const Row rows[] = {
      {"by 3.1.1's answer", std::string("\x20\x02\x00\x01", 4)},
      {"by 5's answer", std::string("\x20\x03\x00\x84\x00", 5)},
      {"by closing the connection", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.how);
    standin::reset();
    FakeBroker broker([&](int protocol) { return protocol == 5 ? row.refusal : FakeBroker::accepted_4(); });
    LoopedLink gate(settings_for(broker.port()));
    ASSERT_TRUE(gate.run_until_up());
    EXPECT_EQ(gate.link.state().protocol, 4);
    EXPECT_EQ(gate.link.state().failures, 0U);
    gate.link.reconnect();
    ASSERT_TRUE(gate.run_until_up(2));
    EXPECT_EQ(gate.link.state().protocol, 4);
    EXPECT_GE(broker.tries_of(5), 2);
  }
}

// As a load balancer does whose broker is away.
TEST(BrokerLink, TriesMqtt5AgainAfterAMereClose) {
  standin::reset();
  std::atomic<int> closed{0};
  const std::string broken_off = FakeBroker::accepted_4() + std::string("\x10\x00", 2);
  FakeBroker broker([&](int protocol) {
    if (protocol == 4) return broken_off;
    return closed++ == 0 ? std::string() : FakeBroker::accepted_5();
  });
  LoopedLink gate(settings_for(broker.port()));
  ASSERT_TRUE(gate.run_until_up(2));
  EXPECT_EQ(broker.tries_of(4), 1);
  EXPECT_EQ(gate.link.state().protocol, 5);
}

TEST(BrokerLink, WaitsForEachConfirmation) {
  standin::reset();
  FakeBroker broker([](int) { return FakeBroker::accepted_5(); }, true);
  BrokerLink::Times times = short_times();
  times.acknowledge = 1000;
  LoopedLink gate(settings_for(broker.port()), {}, times);
  ASSERT_TRUE(gate.run_until_up());
  EXPECT_TRUE(gate.run_until([&] {
    if (gate.link.state().in_flight < 2) gate.link.publish("z/gate/e/door", "x");
    return gate.count("down: the broker has not acknowledged a message for 1000 ms") == 1;
  }));
  EXPECT_GE(gate.told.size(), 3U);  // others were confirmed
}

TEST(BrokerLink, NeverHasMoreThanTwentyInFlight) {
  standin::reset();
  FakeBroker broker([](int) { return FakeBroker::accepted_5(); });
  UplinkSettings settings = settings_for(broker.port());
  settings.in_flight = 100;
  BrokerLink::Times times = short_times();
  times.acknowledge = 100;
  LoopedLink gate(settings, {}, times);
  ASSERT_TRUE(gate.run_until_up());
  int taken = 0;
  while (gate.link.publish("z/gate/e/door", "x") != BrokerLink::kNotNow) ++taken;
  EXPECT_EQ(taken, 20);
  EXPECT_TRUE(gate.run_until_told("down: the broker has not acknowledged a message for 100 ms"));
  ASSERT_TRUE(gate.run_until_up(2));
  ASSERT_GT(gate.link.publish("z/gate/e/door", "x"), 0);
  const int64_t start = steady_ms();
  gate.link.close("off", 50);  // does not wait longer for the broker
  EXPECT_GE(steady_ms() - start, 50);
}

TEST(BrokerLink, DoesNotWaitForTheResolver) {
  standin::reset();
  hanging_lookups = 0;
  resolver_released = false;
  UplinkSettings settings = settings_for(1883);
  settings.host = "hangs.example";
  BrokerLink::Times times = short_times();
  times.connect = 50;
  {
    LoopedLink gone(settings, {}, times);
    ASSERT_TRUE(gone.run_until([] { return hanging_lookups == 1; }));
  }
  LoopedLink gate(settings, {}, times);
  EXPECT_TRUE(gate.run_until([&] { return gate.link.state().failures == 3; }));
  EXPECT_EQ(gate.link.state().last_error, "failed to look up hangs.example: no answer");
  EXPECT_EQ(hanging_lookups, 2);
  resolver_released = true;
  const std::string answer = "failed to look up hangs.example: Temporary failure in name resolution";
  EXPECT_TRUE(gate.run_until([&] { return gate.link.state().last_error == answer; }));
}

// The name has two addresses; at the first one nobody listens.
TEST(BrokerLink, TriesAllAddressesAndAsksForTheName) {
  standin::reset();
  FakeBroker broker([](int) { return FakeBroker::accepted_5(); });
  UplinkSettings settings = settings_for(broker.port());
  settings.host = "two.example";
  LoopedLink gate(settings);
  ASSERT_TRUE(gate.run_until_up());
  EXPECT_EQ(gate.link.state().failures, 0U);
  EXPECT_EQ(gate.link.state().last_error, "127.0.0.2: Connection refused");

  settings.tls = true;
  settings.host = "name.example";
  FakeBroker hello([](int) { return std::string(); });
  settings.port = hello.port();
  LoopedLink other(settings);
  ASSERT_TRUE(other.run_until([&] { return other.link.state().failures > 0; }));
  EXPECT_NE(hello.packet().find("name.example"), std::string::npos);
  EXPECT_EQ(hello.packet().find("127.0.0.1"), std::string::npos);
}

TEST(BrokerLink, IgnoresLargeMessagesAndEndsWithLargerOnes) {
  standin::reset();
  const auto message = [](size_t size) {
    const std::string topic("\x00\x0fz/gate/c/unlock", 17);
    std::string packet("\x30");
    for (size_t left = topic.size() + size; left > 0; left /= 128) {
      packet += static_cast<char>(left % 128 + (left >= 128 ? 128 : 0));
    }
    return packet + topic + std::string(size, 'x');
  };
  const std::string refused("\x20\x02\x00\x01", 4);
  const std::string all =
      FakeBroker::accepted_4() + message(65537) + message(5) + message(65536) + message(size_t{40} * 1024 * 1024);
  FakeBroker broker([&](int protocol) { return protocol == 5 ? refused : all; });
  CutProxy network(broker.port());
  network.delay(20);  // on loopback alone the bytes may come faster than the library reads them
  LoopedLink gate(settings_for(network.port()), {"z/gate/c/unlock"});
  const std::string end = "down: the broker sends a packet of more than 1 MiB";
  EXPECT_TRUE(gate.run_until_told(end));
  EXPECT_EQ(gate.told, Strings({"up", "z/gate/c/unlock xxxxx", "z/gate/c/unlock " + std::string(100, 'x'), end}));
  EXPECT_EQ(gate.link.state().ignored, 1U);
  // The next connection drops the session, in which the same packet waits.
  ASSERT_TRUE(gate.run_until([&] { return !broker.packet(2).empty(); }));
  for (const auto& [connection, flags] : {std::pair{1, '\x2c'}, {2, '\x2e'}}) {
    const std::string connect = broker.packet(static_cast<size_t>(connection));
    EXPECT_EQ(connect[connect.find("MQTT") + 5], flags) << connection;
  }
}

// The library begins TLS at once, which takes the socket's error.
TEST(BrokerLink, SeesARefusalBeforeTlsAtOnce) {
  UplinkSettings settings = settings_for(port_of(loopback_socket()));  // nobody listens there
  settings.tls = true;
  LoopedLink gate(settings);
  EXPECT_TRUE(gate.run_until([&] { return gate.link.state().failures == 3; }));
  EXPECT_EQ(gate.link.state().last_error, "Connection refused");
}

TEST(BrokerLink, WaitsLongerAfterEachFailure) {
  standin::reset();
  BrokerLink::Times times;
  times.first_retry = 4;
  times.last_retry = 64;
  LoopedLink gate(settings_for(port_of(loopback_socket())), {}, times);  // nobody listens there
  int64_t longest = 0;
  for (uint64_t tries = 1; tries <= 15; ++tries) {
    ASSERT_TRUE(gate.run_until([&] { return gate.link.state().failures == tries; }));
    const int64_t wait = gate.link.state().next_try_ms - steady_ms();
    EXPECT_LE(wait, std::min(int64_t{64}, int64_t{4} << (tries - 1)));
    longest = std::max(longest, wait);
  }
  EXPECT_GT(longest, 20);  // with 11 waits of up to 64 ms
  EXPECT_EQ(standin::log_lines_with("uplink: ").size(), 1U);
}

TEST(BrokerLink, WaitsShortlyAfterAStableConnection) {
  for (const int64_t stable : {0, 60000}) {
    standin::reset();
    FakeBroker broker([](int) { return FakeBroker::accepted_5() + std::string("\x10\x00", 2); });  // breaks off
    BrokerLink::Times times;
    times.first_retry = 1;
    times.stable = stable;
    LoopedLink gate(settings_for(broker.port()), {}, times);
    int64_t longest = 0;
    for (uint64_t tries = 1; tries <= 8; ++tries) {
      ASSERT_TRUE(gate.run_until([&] { return gate.link.state().failures == tries; }));
      longest = std::max(longest, gate.link.state().next_try_ms - steady_ms());
    }
    EXPECT_EQ(longest <= 1, stable == 0) << longest;
  }
}

}  // namespace
