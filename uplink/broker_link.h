// The connection to the MQTT broker: connects, connects again with back-off and jitter, publishes with QoS 1,
// subscribes, and tells what was confirmed. MQTT 5 is tried first, 3.1.1 when the broker refuses it. It works inside
// the program's poll loop and never blocks it, name resolution and TLS handshake included.
#pragma once

#include <poll.h>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "uplink/uplink_settings.h"

// One thread only, but for what it does inside itself.
class BrokerLink {
 public:
  struct Events {
    std::function<void()> on_up;                             // connected; subscriptions are under way
    std::function<void(const std::string& reason)> on_down;  // tokens of what was not confirmed are void
    std::function<void(int token)> on_confirmed;
    std::function<void(std::string_view topic, std::string_view payload, bool retained)> on_message;
  };

  struct Will {
    std::string topic;
    std::function<std::string()> payload;  // asked at each connect; retained, delayed by 30 s with MQTT 5
  };

  struct State {
    bool up = false;
    int64_t since_ms = 0;   // steady_ms() of the last change
    int protocol = 0;       // 5 or 4 (3.1.1) while up
    uint64_t connects = 0;  // successful ones
    uint64_t failures = 0;
    std::string last_error;   // safe for a terminal; empty: none so far
    int64_t next_try_ms = 0;  // steady_ms() of the next try; 0: up or under way
    int in_flight = 0;        // publishes that are not confirmed
  };

  BrokerLink(const UplinkSettings& all_settings, Will last_will, std::vector<std::string> subscriptions,
             Events all_events);
  ~BrokerLink();
  BrokerLink(const BrokerLink&) = delete;
  BrokerLink& operator=(const BrokerLink&) = delete;

  // Publishes with QoS 1. Returns a token above 0 for on_confirmed, or 0: not connected, or 20 are in flight already.
  int publish(const std::string& topic, std::string_view payload, bool retain = false);

  // Connects anew, at once, with certificates, keys and password as they are now.
  void reconnect();

  // Says goodbye: publishes `payload` retained to the will's topic, disconnects, and waits at most `limit_ms` for both.
  void close(const std::string& payload, int limit_ms);

  // For the poll loop: what to wait for, how long at most (ms, -1: for as long as it takes), and what then is to be
  // done.
  void add_descriptors(std::vector<pollfd>& out) const;
  int wait_ms() const;
  void run();

  State state() const;

 private:
  struct Data;
  Data* const data;
};
