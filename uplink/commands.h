// Commands of the broker to the scripts: each becomes an event of the daemon, at most once, and the script's answer
// goes back. docs/uplink.md describes the payloads.
//
// At most once: the id is on the disk before the event is posted, and a post whose end is unknown is not tried again.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "uplink/uplink_settings.h"

// One thread only. Nothing throws.
class Commands {
 public:
  struct Ways {
    // Whether a post is worth a try: false for a while after one has failed.
    std::function<bool()> can_post;
    // Hands the line "TYPE NAME INFO" (no line end) to the daemon. False: it is not known to have been taken in.
    std::function<bool(const std::string& line)> post;
    // Publishes an answer. `id` is safe as a part of a topic.
    std::function<void(const std::string& id, const std::string& payload)> answer;
  };

  struct State {
    uint64_t taken = 0;  // handed to the daemon
    uint64_t refused = 0;
    uint64_t failed = 0;         // the daemon may or may not have taken them in
    uint64_t repeated = 0;       // ids that were known already
    uint64_t stray_replies = 0;  // of scripts, to an id that is not known
    std::string last_refusal;    // safe for a terminal
  };

  // Remembers the last 256 ids in a file of `folder`, across restarts, with the answers that were given. The folder
  // need not exist before the first command comes.
  Commands(const UplinkSettings& all_settings, const std::string& folder, Ways all_ways);
  ~Commands();
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;

  // A message of the broker; `name` is the topic's part behind PREFIX/c/, any bytes. Answers before it returns, unless
  // the answer is the script's to give.
  void take(std::string_view name, std::string_view payload, bool retained);

  // A script's event "uplink_reply", as its info: "cmd_id=q1&status=ok&...".
  void reply(std::string_view info);

  State state() const;

 private:
  struct Data;
  const std::unique_ptr<Data> data;
};
