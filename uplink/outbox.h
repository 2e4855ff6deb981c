// What is on its way to the broker, in the daemon's order: at most `in_flight` records without an acknowledgement, at
// most `rate` a second.
//
// A record begins in memory. When the broker acknowledges it within `hold_ms`, that was all. Otherwise it goes to the
// spool, after all that came before it, and is acknowledged there. So the records in memory are always younger than
// those in the spool, and what memory holds is bounded: by time while events are few, by size in a flood. An urgent
// record goes to the spool at once, and is on the disk before it is published.
//
// The position is the id up to which the uplink need not ask the daemon again: everything up to it is acknowledged or
// on the disk. It is written with the spool's syncs, and once a second into a small file beside the status socket,
// which a reboot may lose: while all is acknowledged in time, nothing is written to the disk at all.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "uplink/spool.h"
#include "uplink/uplink_settings.h"

// One thread only. Nothing throws. Times are those of steady_ms().
class Outbox {
 public:
  // As BrokerLink::publish.
  using Publish = std::function<int(const std::string& topic, const std::string& payload)>;

  struct State {
    uint64_t published = 0;
    uint64_t confirmed = 0;
    uint64_t repeated = 0;  // published anew after a lost connection
    uint64_t refused = 0;   // that the broker never takes
    uint64_t gaps = 0;      // records of a gap published
    uint64_t bytes = 0;     // of payloads published
    size_t waiting = 0;     // records in memory
  };

  // All must live longer. The position goes to `position_path` too; an uplink that starts again begins behind the one
  // there, or else behind the spool's.
  Outbox(const UplinkSettings& all_settings, Spool& the_spool, std::string position_path, Publish publish_one);

  const std::string& position() const { return seen; }

  // The next record in the daemon's order.
  void add(UplinkRecord record, int64_t now);

  // There is nothing up to this id.
  void pass(const std::string& id);

  // The connection came up, or went down, with which all tokens are void.
  void set_up(bool is_up);

  // The broker has taken the record of this token, or never will: then a gap takes its place.
  void confirm(int token);
  void refuse(int token);

  // Writes and publishes what is due. To be called after all of the above. `publish_other` publishes a message beside
  // the records, if there is one: it returns false otherwise. Such messages count for `rate`, and take turns with the
  // records while both wait, so that neither kind holds up the other.
  void run(int64_t now, const std::function<bool()>& publish_other = nullptr);

  // When run() has something to do again; -1: after the next call.
  int64_t due() const;

  // Gives all that is not acknowledged to the disk: the end.
  void save();

  State state() const;

 private:
  struct Held {
    UplinkRecord record;
    std::string before;  // the position before it
    int64_t since = 0;
    bool was_sent = false;  // over an earlier connection
  };
  struct Sent {
    int token = 0;        // 0: it is to be published next
    uint64_t number = 0;  // in the spool; 0: only in `held`
    Held held;            // of a record of the spool that was published, no payload
  };

  using Flight = std::deque<Sent>;

  Flight::iterator find(int token);
  void finish(const Flight::iterator& sent);
  void declare(const Flight::iterator& refused);
  const Held* oldest_held() const;
  void spool_oldest();
  void spool_all();
  void spool_due(int64_t now);
  void sync();
  bool has_rate(int64_t now);
  void publish_due(int64_t now, const std::function<bool()>& publish_other);
  bool publish_next(int64_t now);
  bool take_next(int64_t now);
  const UplinkRecord* next_spooled(uint64_t& number);
  std::string safe_position() const;
  void keep_position(int64_t now);

  const UplinkSettings& settings;
  Spool& spool;
  const std::string position_file;
  const Publish publish;

  Flight in_flight;           // in the daemon's order
  std::deque<Held> waiting;   // younger than all others
  size_t held_bytes = 0;      // of `waiting`, and of what is in flight and not in the spool
  size_t held_in_flight = 0;  // records
  bool has_urgent = false;    // in `waiting`
  bool is_up = false;
  uint64_t highest_number = 0;  // of the spool, that was published
  std::deque<int64_t> sent_at;  // of the messages in the last second
  bool is_turn_of_other = true;
  std::string seen;  // the position of what was taken over
  std::string kept;  // the position in the file
  int64_t kept_at = INT64_MIN / 2;
  State counts;
};
