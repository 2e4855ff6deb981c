#include "ctl/live/follow.h"

#include <memory>

#include "ctl/human_text.h"
#include "ctl/output.h"
#include "device/event_line.h"
#include "util/clock.h"
#include "util/text.h"

namespace {

constexpr int kRetryMs = 500;
constexpr int kSilenceMs = 5000;
constexpr size_t kNamesMax = 32;  // the daemon's limit
constexpr char kUnknown[] = "unknown";
constexpr char kNoRing[] = "event_memory is 0";  // within the daemon's sentence: to try again is in vain

// "a,b*", where a comma within a name is encoded.
std::string listed_names(const std::vector<std::string>& names) {
  if (names.size() > kNamesMax) throw Failure(Exit::usage, sstr("at most %zu names can be followed", kNamesMax));
  std::string list;
  for (const std::string& name : names) {
    if (const char* error = check_event_name(name)) throw Failure(Exit::usage, "NAME '" + name + "': " + error);
    if (!list.empty()) list += ',';
    for (const char c : encoded(name)) list += c == ',' ? "%2C" : std::string(1, c);
  }
  return list;
}

void say(const std::string& sentence) {
  fprintf(stderr, "zelvctl: %s\n", sentence.c_str());
}

class Follower {
 public:
  Follower(const FollowRequest& what, FILE* output, const std::function<bool(const AnswerLine&)>& event,
           const std::function<void(const std::string&)>& gap)
      : request(what), names(listed_names(what.names)), out(output), on_event(event), on_gap(gap), last(what.from) {}

  void run() {
    for (;;) {
      try {
        if (follow()) return;
      } catch (const Gone& gone) {
        if (!request.reconnect) throw;
        if (gone_since == 0) say(std::string(gone.what()) + "; waiting for it");
        if (gone_since == 0) gone_since = steady_ms();
        wait_to_read(-1, out, kRetryMs);
      }
    }
  }

 private:
  // The daemon went away: it may come back.
  struct Gone : Failure {
    using Failure::Failure;
  };

  // Returns true when on_event has had enough.
  bool follow() {
    const auto client = connected();
    bool is_over = false;  // the daemon has no more events, but goes on
    for (;;) {
      AnswerLine line;
      const ControlClient::Got got = next(*client, line, is_over);
      if (got == ControlClient::Got::end && is_over) continue;
      if (got == ControlClient::Got::end) throw Gone(Exit::unreachable, "the daemon has ended its answer");
      if (got == ControlClient::Got::nothing) {
        wait(*client);
      } else if (!take(line)) {
        return true;
      }
    }
  }

  // What has come of the answer. Sets `is_over` when the daemon has refused to go on with it.
  ControlClient::Got next(ControlClient& client, AnswerLine& line, bool& is_over) {
    try {
      return client.next(line, 0);
    } catch (const Refused& refused) {
      if (std::string_view(refused.what()).find(kNoRing) != std::string_view::npos) throw;
      // All places were taken: by others who come again, perhaps.
      if (gone_since != 0) throw Gone(refused.status, refused.what());
      if (!request.reconnect || run_id.empty()) throw;
      say(refused.what() + std::string("; waiting for a new one"));
      is_over = true;
      return ControlClient::Got::nothing;
    } catch (const Failure& failure) {
      throw Gone(failure.status, "the daemon went away");
    }
  }

  void wait(const ControlClient& client) {
    const bool has_come = wait_to_read(client.descriptor(), out, request.on_silence ? kSilenceMs : -1);
    if (!has_come && request.on_silence) request.on_silence();
  }

  // The first time, whatever fails is the end: somebody looks on.
  std::unique_ptr<ControlClient> connected() {
    const std::string line =
        "follow" + (last.empty() ? "" : " from=" + encoded(last)) + (names.empty() ? "" : " names=" + names);
    try {
      auto client = std::make_unique<ControlClient>(request.root);
      client->send(line);
      return client;
    } catch (const Failure& failure) {
      if (run_id.empty()) throw;
      throw Gone(failure.status, failure.what());
    }
  }

  bool take(const AnswerLine& line) {
    if (line.kind() == "event") {
      last = line.text("id");
      return on_event(line);
    }
    if (line.kind() == "following") begin(line);
    if (line.kind() == "lost") {
      lose(line.text("n"));
      last = line.text("last", last.c_str());
    }
    if (line.kind() == "passed") last = line.text("id", last.c_str());
    return true;
  }

  void begin(const AnswerLine& line) {
    const std::string new_run = line.text("run");
    if (gone_since != 0) {
      const auto gone_us = static_cast<uint64_t>(steady_ms() - gone_since) * 1000;
      say("connected again after " + duration_text(gone_us) +
          (new_run == run_id ? "" : "; the daemon was started again"));
    }
    gone_since = 0;
    run_id = new_run;
    // Whoever is cut off before the first event has seen all of those before it.
    if (last.empty() && line.count("next") > 0) last = new_run + "-" + std::to_string(line.count("next") - 1);
    if (request.on_silence) request.on_silence();
  }

  void lose(const std::string& number) {
    say(number == kUnknown ? "events of the daemon's former run may be missing"
                           : "missing: " + number_of(strtoull(number.c_str(), nullptr, 10), "event"));
    on_gap(number);
  }

  const FollowRequest& request;
  const std::string names;
  FILE* const out;
  const std::function<bool(const AnswerLine&)>& on_event;
  const std::function<void(const std::string&)>& on_gap;
  std::string last;        // id of the last event that we know of
  std::string run_id;      // the daemon's; empty: never connected
  int64_t gone_since = 0;  // steady_ms; 0: connected
};

}  // namespace

void follow_events(const FollowRequest& request, FILE* out,
                   const std::function<bool(const AnswerLine& event)>& on_event,
                   const std::function<void(const std::string& number)>& on_gap) {
  Follower(request, out, on_event, on_gap).run();
}
