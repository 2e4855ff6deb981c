#include "control/control_connection.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "control/answer.h"
#include "control/event_ring.h"
#include "control/waiting_call.h"
#include "util/unix_socket.h"

namespace {

constexpr int kPatienceMs = 10000;
constexpr size_t kFollowerOwedMost = size_t{64} * 1024;  // bytes; an event may go beyond
constexpr int kEventsAtOnce = 256;
constexpr int kPassedMost = 64;  // events of other names, until a follower is told where it stands

std::string id_of(const EventRing& ring, uint64_t sequence) {
  return ring.run() + ("-" + std::to_string(sequence));
}

std::string event_line(const EventRing& ring, const EventRecordCopy& event) {
  char time[24];
  snprintf(time, sizeof(time), "%u.%06u", event.seconds, event.microseconds);
  Answer answer;
  answer.line("event")
      .key("id", id_of(ring, event.sequence))
      .key("time", time)
      .key("type", event.type)
      .key("name", event.name);
  answer.key("info", event.info).key("wait_us", event.wait_ns / 1000).key("run_us", event.run_ns / 1000);
  answer.key("errors", event.errors);
  if (event.info_cut > 0) answer.key("info_cut", event.info_cut);
  return answer.take_lines();
}

}  // namespace

ControlConnection::ControlConnection(int connected, int64_t now)
    : fd(connected), peer(unix_peer(connected)), active_ms(now) {}

// A child of the daemon may still have the descriptor: the client must see the end all the same.
ControlConnection::~ControlConnection() {
  shutdown(fd.get(), SHUT_RDWR);
}

short ControlConnection::wanted_events() const {
  if (!owed.empty()) return POLLOUT;
  return is_free() && !has_ended && lines.room() > 0 ? POLLIN : 0;
}

bool ControlConnection::receive(int64_t now) {
  char bytes[kRequestMost];
  const ssize_t got = recv(fd.get(), bytes, lines.room(), MSG_DONTWAIT);
  if (got < 0) return errno == EAGAIN || errno == EINTR;
  if (got == 0) {
    has_ended = true;
    lines.finish();
  }
  lines.add(std::string_view(bytes, static_cast<size_t>(got)));
  if (lines.has_line()) active_ms = now;  // less than a request asks nothing
  return true;
}

RequestLines::Next ControlConnection::next_line(std::string& line) {
  return is_free() ? lines.take(line) : RequestLines::Next::nothing;
}

void ControlConnection::owe(std::string_view text, int64_t now) {
  if (owed.empty()) active_ms = now;
  owed += text;
}

bool ControlConnection::send_owed(int64_t now) {
  while (sent < owed.size()) {
    const ssize_t taken = send(fd.get(), owed.data() + sent, owed.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (taken < 0 && errno == EINTR) continue;
    if (taken < 0) {
      if (sent >= kFollowerOwedMost) {
        owed.erase(0, sent);
        sent = 0;
      }
      return errno == EAGAIN;
    }
    sent += static_cast<size_t>(taken);
    active_ms = now;
  }
  owed = std::string();  // a large answer does not keep its memory
  sent = 0;
  return true;
}

std::optional<int64_t> ControlConnection::deadline() const {
  if (owed.empty() || is_following()) return {};
  return active_ms + kPatienceMs;
}

std::optional<int64_t> ControlConnection::idle_since() const {
  if (call != nullptr || (is_following() && owed.empty())) return {};
  return active_ms;
}

void ControlConnection::begin_to_follow(FollowRequest request, uint64_t first) {
  following = std::move(request);
  next = first;
}

void ControlConnection::end_following(std::string_view reason, int64_t now) {
  following.reset();
  owe(reason, now);
  active_ms = now;  // a follower may have stopped reading
}

void ControlConnection::owe_events(const EventRing& ring, int64_t now) {
  EventRecordCopy event;
  for (int i = 0; i < kEventsAtOnce; ++i) {
    if (owed.size() - sent >= kFollowerOwedMost) return;
    uint64_t lost = 0;
    switch (ring.read(next, event, lost)) {
      case EventRing::Read::nothing:
        return;
      case EventRing::Read::lost:
        owe("lost n=" + std::to_string(lost) + " last=" + id_of(ring, next - 1) + '\n', now);
        passed = 0;
        break;
      case EventRing::Read::entry:
        if (following->wants(event.name)) {
          owe(event_line(ring, event), now);
          passed = 0;
        } else if (++passed == kPassedMost) {
          owe("passed id=" + id_of(ring, event.sequence) + '\n', now);
          passed = 0;
        }
    }
  }
}

std::optional<uint64_t> ControlConnection::waits_for() const {
  if (!is_following() || owed.size() - sent >= kFollowerOwedMost) return {};
  return next;
}
