#include "device/host/event_posters.h"

#include <poll.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include "device/log.h"
#include "util/clock.h"

namespace {

constexpr int kAcceptRetryMs = 300;
constexpr int kSocketRetryMs = 1000;
constexpr int kSocketPatienceMs = 60000;

bool watch(int epoll, int fd, uint32_t what, void* tag) {
  epoll_event event{};
  event.events = what;
  event.data.ptr = tag;
  return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

ucred peer_of(int fd) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
  return peer;
}

}  // namespace

bool EventPosters::open(int wake_fd) {
  epoll.reset(above_standard_streams(epoll_create1(EPOLL_CLOEXEC)));
  if (epoll.get() < 0 || !watch(epoll.get(), wake_fd, EPOLLIN | EPOLLET, nullptr)) {
    epoll.reset();
    return false;
  }
  dropped = 0;
  socket_not_after = 0;
  bad_line_limit = closed_limit = accept_limit = RateLimit();
  open_socket();
  return true;
}

// Who has the socket may be about to end, so it is tried for again from when the loop runs; but not for ever: when the
// daemon that should have it is restarted later on, a stray one must not step in.
void EventPosters::retry_socket() {
  const int64_t now = steady_ms();
  if (socket_not_after == 0) {
    socket_not_before = now;
    socket_not_after = now + kSocketPatienceMs;
  }
  if (now < socket_not_before || now > socket_not_after) return;
  socket_not_before = now + kSocketRetryMs;
  open_socket();
}

void EventPosters::open_socket() {
  listening = socket.open();
  if (listening < 0 || watch(epoll.get(), listening, EPOLLIN | EPOLLET, this)) return;
  elog(1, "evq: cannot watch the event socket (%s): no events from other processes", strerrordesc_np(errno));
  socket.close();
  listening = -1;
}

void EventPosters::close() {
  for (Poster& poster : posters) {
    if (poster.fd >= 0) drop(poster);
  }
  socket.close();
  listening = -1;
  epoll.reset();
  someone_waits = false;
  ready_count = next_ready = 0;
  records.clear();
  events = 0;
  bytes = 0;
}

EventRecord* EventPosters::take() {
  EventRecord* record = records.take();
  if (record == nullptr) return nullptr;
  --events;
  bytes -= record->size;
  return record;
}

bool EventPosters::wait(int timeout_ms) {
  if (listening < 0) retry_socket();
  const int64_t start = steady_ms();
  if (next_ready == ready_count && !collect_ready(std::min(timeout_ms, next_chore_ms(start)))) return false;
  serve_ready(std::max(start + timeout_ms, steady_ms() + 1));
  if (someone_waits) accept_waiting();
  return true;
}

int64_t EventPosters::take_dropped() {
  const int64_t count = dropped;
  dropped = 0;
  return count;
}

// How long to sleep at most because somebody waits to be accepted.
int EventPosters::next_chore_ms(int64_t now) {
  if (!someone_waits) return INT_MAX;
  int64_t due = accept_not_before;
  if (poster_count == kPostersMax) due = silent_longest().heard_ms + kPosterSilenceMs;
  return static_cast<int>(std::clamp<int64_t>(due - now, 0, INT_MAX));
}

bool EventPosters::collect_ready(int timeout_ms) {
  next_ready = 0;
  ready_count = epoll_wait(epoll.get(), ready, static_cast<int>(std::size(ready)), timeout_ms);
  if (ready_count >= 0) return true;
  ready_count = 0;
  return false;
}

void EventPosters::serve_ready(int64_t until_ms) {
  while (next_ready < ready_count && has_room()) {
    void* tag = ready[next_ready++].data.ptr;
    if (tag == nullptr) continue;  // the wake descriptor, or a poster that is gone
    if (tag == this) {
      someone_waits = true;
      continue;
    }
    serve(*static_cast<Poster*>(tag));
    if (steady_ms() >= until_ms) return;
  }
}

// Gives a poster its turn. Returns false when there was nothing to read.
bool EventPosters::serve(Poster& poster) {
  const ssize_t got = recv_piece(poster);
  if (got > 0) return true;
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return false;
  if (got == 0) take_in(poster, {}, true);
  drop(poster);
  return true;
}

// Reads a piece and takes it in; returns what recv returns.
ssize_t EventPosters::recv_piece(Poster& poster) {
  // recv, never recvmsg: what somebody passes along beside the bytes, descriptors above all, is thrown away.
  const ssize_t got = recv(poster.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
  const bool has_line = got > 0 && take_in(poster, std::string_view(buffer, static_cast<size_t>(got)), false);
  if (has_line) poster.heard_ms = steady_ms();
  return got;
}

// Returns true when a line came to its end, or was given up as too long.
bool EventPosters::take_in(Poster& poster, std::string_view piece, bool is_end) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  bool has_line = false;
  const auto take = [&](std::string_view line) {
    has_line = true;
    take_line(poster, line, static_cast<int32_t>(now.tv_sec), static_cast<int32_t>(now.tv_nsec / 1000));
  };
  poster.lines.feed(piece, take);
  if (is_end) poster.lines.finish(take);
  return has_line;
}

void EventPosters::take_line(const Poster& poster, std::string_view line, int32_t seconds, int32_t microseconds) {
  EventLine event{};
  EventRecord* record = nullptr;
  const char* wrong = parse_event_line(line, event);
  if (wrong == nullptr) {
    record = make_record(event.type, event.name, event.info, seconds, microseconds);
    if (record == nullptr) wrong = "there is no memory for it";
  }
  if (record != nullptr) {
    records.push(record);
    ++events;
    bytes += record->size;
    return;
  }
  ++dropped;
  const auto left_out = bad_line_limit.allow();
  if (!left_out) return;
  const ucred peer = peer_of(poster.fd);
  elog(1, "evq: dropped a line of process %d of user %u: %s: '%.*s'%s", peer.pid, peer.uid, wrong,
       static_cast<int>(std::min<size_t>(line.size(), 40)), line.data(), left_out->text);
}

void EventPosters::accept_waiting() {
  if (poster_count < kPostersMax && steady_ms() < accept_not_before) return;
  while (someone_waits && (poster_count < kPostersMax || make_place()) && accept_one()) {
  }
}

bool EventPosters::accept_one() {
  const int fd = above_standard_streams(accept4(listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (fd < 0) {
    if (errno == EINTR || errno == ECONNABORTED) return true;
    someone_waits = errno != EAGAIN;
    if (!someone_waits) return false;
    const int error = errno;
    accept_not_before = steady_ms() + kAcceptRetryMs;
    if (const auto left_out = accept_limit.allow()) {
      elog(1, "evq: cannot accept a poster: %s%s", strerrordesc_np(error), left_out->text);
    }
    return false;
  }
  const auto is_free = [](const Poster& poster) { return poster.fd < 0; };
  Poster& poster = *std::find_if(std::begin(posters), std::end(posters), is_free);
  poster.fd = fd;
  poster.heard_ms = steady_ms();
  ++poster_count;
  if (!watch(epoll.get(), fd, EPOLLIN, &poster)) drop(poster);
  return true;
}

// All places are taken: closes the poster that was silent longest, if it was so for long enough and somebody waits.
// Returns true when there is a place.
bool EventPosters::make_place() {
  Poster& poster = silent_longest();
  const int64_t due = poster.heard_ms + kPosterSilenceMs;
  if (steady_ms() < due) return false;
  pollfd waiting{listening, POLLIN, 0};
  if (poll(&waiting, 1, 0) == 0) {
    someone_waits = false;
    return false;
  }
  serve(poster);
  if (poster_count < kPostersMax) return true;
  if (poster.heard_ms + kPosterSilenceMs > due) return false;  // it spoke, and it is we who did not listen
  shutdown(poster.fd, SHUT_RD);                                // from here on its sends fail: nothing is lost unseen
  while (recv_piece(poster) > 0) {
  }
  if (const auto left_out = closed_limit.allow()) {
    const ucred peer = peer_of(poster.fd);
    elog(1, "evq: closed process %d of user %u, without a line for 5 s while others wait%s", peer.pid, peer.uid,
         left_out->text);
  }
  drop(poster);
  return true;
}

EventPosters::Poster& EventPosters::silent_longest() {
  const auto silent_longer = [](const Poster& a, const Poster& b) { return a.heard_ms < b.heard_ms; };
  return *std::min_element(std::begin(posters), std::end(posters), silent_longer);
}

void EventPosters::drop(Poster& poster) {
  for (int i = next_ready; i < ready_count; ++i) {
    if (ready[i].data.ptr == &poster) ready[i].data.ptr = nullptr;
  }
  ::close(poster.fd);
  poster.fd = -1;
  poster.lines.reset();
  --poster_count;
}
