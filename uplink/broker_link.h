// The connection to the MQTT broker: connects, connects again with back-off and jitter, publishes with QoS 1,
// subscribes, and tells what was confirmed. It works inside the program's poll loop and never blocks it, name
// resolution and TLS handshake included.
//
// MQTT 5 is tried first, 3.1.1 when the broker refuses it, which is remembered for a day or until reconnect(). Brokers
// that do not know MQTT 5 may just close the connection, but others close one too, e.g. a load balancer: while 5 has
// never worked, 3.1.1 is then tried at once, and 5 again for the next connection.
//
// With subscriptions the session outlives the connection (MQTT 5: for an hour; 3.1.1: as long as the broker likes), so
// that what comes meanwhile arrives later, in rare cases twice. What the broker still sends for a subscription of an
// earlier run is ignored. A packet that is too large ends the connection and the session, in which it would come again.
// Without subscriptions there is no session.
#pragma once

#include <poll.h>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "uplink/uplink_settings.h"

// One thread only, but for what it does inside itself. Nothing throws, and the functions it calls must not throw
// either. Ignores SIGPIPE for the whole process: OpenSSL raises it.
class BrokerLink {
 public:
  // Called by run() and close() only; all but on_down from inside the library, where publish() and reconnect() may be
  // called, but neither run() nor close(). Each may be empty.
  struct Events {
    std::function<void()> on_up;                             // connected; subscriptions are under way
    std::function<void(const std::string& reason)> on_down;  // tokens of what was not confirmed are void
    std::function<void(int token)> on_confirmed;
    // The broker answers that it does not take this message and never will, e.g. because it is not allowed: whoever
    // sends it again gets the same answer. Only with MQTT 5; a full quota is no such answer, the link then goes down.
    std::function<void(int token, const std::string& reason)> on_refused;
    std::function<void(std::string_view topic, std::string_view payload, bool retained)> on_message;
  };

  struct Will {
    std::string topic;
    std::function<std::string()> payload;  // asked at each connect; retained, delayed by 30 s with MQTT 5
  };

  // In ms; tests have less patience.
  struct Times {
    int64_t connect = 20000;      // until the broker has answered; a quarter of it for an address while there are more
    int64_t acknowledge = 30000;  // for each message
    int64_t first_retry = 1000;   // a retry comes after a random part of this, then of its double, ...
    int64_t last_retry = 300000;
    int64_t stable = 60000;  // up so long: the next retry is a first one
  };

  struct State {
    bool up = false;
    int64_t since_ms = 0;     // steady_ms() of the last change
    int protocol = 0;         // 5 or 4 (3.1.1) while up
    uint64_t connects = 0;    // successful ones
    uint64_t failures = 0;    // tries that failed and connections that were lost
    uint64_t refused = 0;     // publishes: on_refused and kNever
    uint64_t ignored = 0;     // messages of the broker that were larger than 64 KiB, or that nobody subscribed
    std::string last_error;   // safe for a terminal; empty: none so far
    int64_t next_try_ms = 0;  // steady_ms() of the next try; 0: up or under way
    int in_flight = 0;        // publishes that are not confirmed
  };

  BrokerLink(const UplinkSettings& all_settings, Will last_will, std::vector<std::string> subscriptions,
             Events all_events)
      : BrokerLink(all_settings, std::move(last_will), std::move(subscriptions), std::move(all_events), Times()) {}
  BrokerLink(const UplinkSettings& all_settings, Will last_will, std::vector<std::string> subscriptions,
             Events all_events, const Times& all_times);
  ~BrokerLink();
  BrokerLink(const BrokerLink&) = delete;
  BrokerLink& operator=(const BrokerLink&) = delete;

  static constexpr int kNotNow = 0;  // not connected, or as much is in flight as settings and broker allow
  static constexpr int kNever = -1;  // this broker does not take the message, e.g. it is too large: as on_refused

  // Publishes with QoS 1. Returns a token above 0 for on_confirmed or on_refused, kNotNow or kNever.
  int publish(const std::string& topic, std::string_view payload, bool retain = false);

  // Connects anew, at once, with certificates, keys and password as they are now. Does not say goodbye: while the new
  // connection fails, the will speaks.
  void reconnect();

  // Says goodbye: publishes `payload` retained to the will's topic, disconnects, and waits at most `limit_ms` for both.
  // When the broker does not confirm the message in that time, the connection is just cut: then the will speaks. Events
  // that come meanwhile are still told, but for what becomes of this message. Afterwards the link stays down.
  void close(const std::string& payload, int limit_ms);

  // For the poll loop: what to wait for, how long at most (ms, -1: for as long as it takes), and what then is to be
  // done.
  void add_descriptors(std::vector<pollfd>& out) const;
  int wait_ms() const;
  void run();

  State state() const;

 private:
  struct Data;
  const std::unique_ptr<Data> data;
};
