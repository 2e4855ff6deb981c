// The uplink as a whole: what its parts tell each other, and the loop in which they work. The loop sleeps until a
// descriptor is ready or a deadline has come.
#pragma once

#include <poll.h>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "uplink/answers.h"
#include "uplink/broker_link.h"
#include "uplink/commands.h"
#include "uplink/daemon_link.h"
#include "uplink/outbox.h"
#include "uplink/spool.h"
#include "uplink/state_message.h"
#include "uplink/uplink_settings.h"
#include "uplink/uplink_status.h"
#include "util/rate_limit.h"

// One thread only.
class Uplink {
 public:
  // `root`: DEVICE_ROOT or empty, also in the environment. `starts` of the program are its session.
  Uplink(UplinkSettings all_settings, std::string the_root, uint64_t starts);

  // Works until SIGTERM or SIGINT can be read from `signals`, a signalfd; SIGHUP connects to the broker anew. Then
  // brings to the disk what is not acknowledged and says goodbye: 3 s at most, whatever the broker does.
  void run(int signals);

 private:
  BrokerLink::Events broker_events();
  DaemonLink::Events daemon_events();
  std::vector<std::string> followed_names() const;
  void take_event(const AnswerLine& event);
  void take_gap(const std::string& first, const std::string& last, uint64_t count);
  bool post(const std::string& line);
  void publish_state(int64_t now);
  StateMessage::Told telling() const;
  std::string state_text(bool on) const;
  int64_t state_due() const;
  int wait_ms() const;
  bool take_signals(int signals);
  uint64_t recent_publishes(int64_t now);
  std::string stats();

  const UplinkSettings settings;
  const std::string root;
  const uint64_t session;
  const int64_t started_ms;
  const int64_t started_s;

  Spool spool;
  Outbox outbox;
  Answers answers;
  Commands commands;
  BrokerLink broker;
  DaemonLink daemon;
  StatusSocket status;

  StateMessage state_message;
  int64_t no_post_before = 0;  // the daemon has taken in nothing
  uint64_t taken_over = 0;     // that were taken over
  uint64_t lost = 0;
  RateLimit lost_limit;
  std::deque<std::pair<int64_t, uint64_t>> published;  // counts in the last seconds
};
