// One client of the control socket: what it asks, what it is owed. Belongs to the control thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "control/control_request.h"
#include "util/descriptor.h"

class EventRing;
class WaitingCall;

class ControlConnection {
 public:
  // Takes the connected, non-blocking descriptor.
  explicit ControlConnection(int connected);
  ~ControlConnection();
  ControlConnection(const ControlConnection&) = delete;
  ControlConnection& operator=(const ControlConnection&) = delete;

  int descriptor() const { return fd.get(); }
  pid_t process() const { return peer_process; }  // 0: not known
  uid_t user() const { return peer_user; }

  // What poll(2) has to wait for. A client's next request is read when it has taken the answer to the last one.
  short wanted_events() const;

  // Reads what there is. False: the client is gone.
  bool receive();

  // The next request's line, when it is its turn.
  RequestLines::Next next_line(std::string& line);

  // Whether there is a line that need not be waited for.
  bool has_turn() const { return is_free() && lines.has_line(); }

  // Has sent all its requests and got all answers.
  bool is_finished() const { return has_ended && is_free() && !lines.has_line(); }

  // Since when, in steady_ms(), it has asked nothing: its connecting, or its taking of the last answer. Nothing: it
  // follows, or an answer is on the way.
  std::optional<int64_t> idle_since() const;

  // Adds to what the client is owed. `now`: steady_ms().
  void owe(std::string_view text, int64_t now);

  // Sends what the client takes without waiting. False: it is gone.
  bool send_owed(int64_t now);

  // When the client has to have taken something, in steady_ms(); nothing: it need not. A follower may stop reading.
  std::optional<int64_t> deadline() const;

  // From now on the client is a follower, from the event with the number `next` on.
  void begin_to_follow(FollowRequest request, uint64_t first);
  // A follower gets no more: it is owed `reason`, and may ask for something else. `now`: steady_ms().
  void end_following(std::string_view reason, int64_t now);
  bool is_following() const { return following.has_value(); }

  // Owes a follower what the ring has for it, a bounded number of events.
  void owe_events(const EventRing& ring, int64_t now);

  // The number of the first event that the follower has not seen; nothing: it has to read before it gets more.
  std::optional<uint64_t> waits_for() const;

  // Set while a request is being answered by a thread of its own.
  std::unique_ptr<WaitingCall> call;

 private:
  bool is_free() const { return call == nullptr && owed.empty() && !following.has_value(); }

  Descriptor fd;
  pid_t peer_process = 0;
  uid_t peer_user = 0;
  RequestLines lines;
  bool has_ended = false;  // it sends no more
  std::string owed;
  size_t sent = 0;   // of `owed`
  int64_t taken_ms;  // when the client last took something, or connected, or began to owe
  std::optional<FollowRequest> following;
  uint64_t next = 0;  // of a follower
};
