// One client of the control socket: what it asks, and what has yet to be sent to it. Control thread only.
#pragma once

#include <sys/socket.h>

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
  // Takes over `connected`, a non-blocking descriptor. `now`: steady_ms(), here and below.
  ControlConnection(int connected, int64_t now);
  // Closes the connection.
  ~ControlConnection();
  ControlConnection(const ControlConnection&) = delete;
  ControlConnection& operator=(const ControlConnection&) = delete;

  int descriptor() const { return fd.get(); }
  pid_t process() const { return peer.pid; }  // 0: not known
  uid_t user() const { return peer.uid; }

  // What poll(2) waits for. A client's next request is read after it has taken the answer to the last one.
  short wanted_events() const;

  // Reads what has come. Returns false when the connection is broken.
  bool receive(int64_t now);

  // Gives the next request's line, as RequestLines::take does; `nothing` while the last request is being answered.
  RequestLines::Next next_line(std::string& line);

  // Whether next_line() has something to give.
  bool has_turn() const { return is_free() && lines.has_line(); }

  // Whether the client has sent all its requests and taken all answers.
  bool is_finished() const { return has_ended && is_free() && !lines.has_line(); }

  // Adds to what the client is owed.
  void owe(std::string_view text, int64_t now);

  // Sends as much as the client takes without waiting. Returns false when the connection is broken.
  bool send_owed(int64_t now);

  // Until when the client must have taken something, in steady_ms(). Nothing while nothing waits for it, and for
  // a follower, which may stop reading.
  std::optional<int64_t> deadline() const;

  // Since when the client has done nothing though it could, in steady_ms(): it neither asks nor takes what waits for
  // it. Nothing while it waits for us: for an answer, or for an event that it follows.
  std::optional<int64_t> idle_since() const;

  // Makes the client a follower, from the event with the number `first` on.
  void begin_to_follow(FollowRequest request, uint64_t first);
  // A follower gets no more: it is owed `reason`, and may ask for something else. `now`: steady_ms().
  void end_following(std::string_view reason, int64_t now);
  bool is_following() const { return following.has_value(); }

  // Owes a follower what the ring has for it, a bounded number of events.
  void owe_events(const EventRing& ring, int64_t now);

  // The number of the first event that the follower has not seen. Nothing while it has to read before it gets more.
  std::optional<uint64_t> waits_for() const;

  // Set while a thread of its own answers a request.
  std::unique_ptr<WaitingCall> call;

 private:
  bool is_free() const { return call == nullptr && owed.empty() && !following.has_value(); }

  const Descriptor fd;
  const ucred peer;
  RequestLines lines;
  bool has_ended = false;  // it sends no more
  std::string owed;
  size_t sent = 0;    // of `owed`
  int64_t active_ms;  // when it last asked or took something, or something began to wait for it
  std::optional<FollowRequest> following;
  uint64_t next = 0;  // of a follower
  int passed = 0;     // events of other names since it was last told anything
};
