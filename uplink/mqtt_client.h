// One connection to a broker at one address, over libmosquitto: from the TCP connect, which waits for nothing, to its
// end. Each connection has a client of its own, so that nothing which the library keeps outlives it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "uplink/broker_tls.h"
#include "uplink/uplink_settings.h"

struct mosquitto;

constexpr size_t kLargestMessage = size_t{64} * 1024;   // of the broker; with 3.1.1 a larger one is read and dropped
constexpr uint64_t kLargestPacket = uint64_t{1} << 20;  // of the broker; a larger one ends the connection
constexpr int kMostInFlight = 20;                       // the library's own queue has no bound

// One thread only. Nothing throws.
class MqttClient {
 public:
  // Called by exchange(), from inside the library: publish() and subscribe() may be called there, nothing else.
  class Owner {
   public:
    Owner() = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    virtual ~Owner() = default;
    virtual void on_accepted(int most_in_flight) = 0;
    // An empty reason: confirmed.
    virtual void on_answered(int token, const std::string& refusal) = 0;
    virtual void on_subscription_refused() = 0;
    virtual void on_message(const char* topic, std::string_view payload, bool retained) = 0;
  };

  // Holds the library, and SIGPIPE ignored: OpenSSL raises it. Lives longer than any client.
  struct Library {
    Library();
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
  };

  struct Wishes {
    bool mqtt5 = true;  // false: 3.1.1
    bool keeps_session = false;
    bool begins_anew = false;  // what the broker kept of the session is dropped
    std::string will_topic;
    std::string will;
  };

  // `owner` and `tls` live longer; without `tls` the connection is plain.
  MqttClient(Owner& its_owner, BrokerTls* its_tls) : owner(its_owner), tls(its_tls) {}
  MqttClient(const MqttClient&) = delete;
  MqttClient& operator=(const MqttClient&) = delete;
  ~MqttClient() = default;

  // Starts to connect to a numeric address, with the password as it is now. What is wrong shows at once in trouble()
  // and at exchange().
  void connect(const UplinkSettings& settings, const std::string& address, const Wishes& wishes);

  // What to wait for; -1: there is no connection any more.
  int descriptor() const;
  short wanted() const;

  // Reads and writes what there is, without waiting. False: the connection has ended, trouble() says why.
  bool exchange();

  // steady_ms() of the latest time for the next exchange(); 0: at once, whatever the descriptor says.
  int64_t due() const { return has_decrypted() ? 0 : housekeeping; }

  // Publishes with QoS 1 and returns a token above 0; 0: it fails, trouble() says why; -1: the broker does not take
  // such a message.
  int publish(const std::string& topic, std::string_view payload, bool retain);
  void subscribe(const std::string& topic);
  static bool covers(const std::string& subscription, const char* topic);

  // Says goodbye, so that the broker does not publish the will; is_gone() once that is sent.
  void leave();
  bool is_gone() const { return descriptor() < 0; }

  bool is_reached() const { return reached; }          // TCP is connected
  bool is_refused_version() const { return refused; }  // the broker does not know this version of MQTT
  bool is_flooded() const { return flooded; }          // the broker sent a packet that is too large
  bool is_closed_unanswered() const;                   // before it was accepted, without a word: perhaps the same
  const std::string& trouble() const { return said; }

 private:
  bool set_up(const UplinkSettings& settings, const Wishes& wishes);
  void set_callbacks();
  bool set_will(const Wishes& wishes);
  void keep_wishes(const Wishes& wishes, int port);
  bool set_password(const UplinkSettings& settings);
  bool is_connected(short happened);
  int read(short happened);
  int read_and_write(short happened);
  bool has_decrypted() const;
  void look_for_flood();
  bool fail(const std::string& reason);
  std::string reason_of(int code, int error) const;
  void on_connect(int code, int most_in_flight);
  void on_published(int token, int code);

  struct Destroy {
    void operator()(mosquitto* gone) const;
  };

  Owner& owner;
  BrokerTls* const tls;
  std::unique_ptr<mosquitto, Destroy> client;
  int64_t housekeeping = 0;
  bool mqtt5 = true;
  bool reached = false;
  bool answered = false;  // CONNACK has come
  bool accepted = false;
  bool refused = false;
  bool flooded = false;
  int unflushed = 0;               // messages that came since all that was to be written was written
  bool heard = false;              // the library has called back during this read
  std::optional<uint64_t> silent;  // bytes that had come when it first did not
  std::string said;
};
