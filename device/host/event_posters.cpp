#include "device/host/event_posters.h"

#include <poll.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "device/event_source.h"
#include "device/log.h"
#include "util/clock.h"

namespace {

constexpr int kAcceptRetryMs = 300;
constexpr size_t kPieceMemory = size_t{1024} * 1024;  // what the events of a piece may need, as a rule

constexpr OwnedSocket::Names kEventSocket{kEventSocketPath, kEventLockPath, "evq: %s: no events from other processes",
                                          "evq: %s is made: events from other processes are taken", elog};

bool watch(int epoll, int fd, uint32_t what, void* tag) {
  epoll_event event{};
  event.events = what;
  event.data.ptr = tag;
  return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

bool has_memory_for_a_piece() {
  void* volatile const memory = malloc(kPieceMemory);  // volatile: the compiler must not assume that it succeeds
  free(memory);
  return memory != nullptr;
}

}  // namespace

// The events of one piece, which enter the inbox together.
struct EventPosters::Batch {
  Batch() = default;
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
  ~Batch() { records.clear(); }

  EventStamp stamp = stamp_now();
  uint32_t count = 0;
  size_t bytes = 0;
  int lines = 0;
  RecordList records;
};

EventPosters::EventPosters(EventInbox& the_inbox) : inbox(the_inbox), socket(kEventSocket) {}

bool EventPosters::open() {
  epoll.reset(above_standard_streams(epoll_create1(EPOLL_CLOEXEC)));
  if (epoll.get() < 0 || !watch(epoll.get(), inbox.wake_descriptor(), EPOLLIN | EPOLLET, nullptr)) {
    epoll.reset();
    return false;
  }
  const MutexLock lock(mutex);
  dropped_taken = dropped;
  bad_line_limit = closed_limit = accept_limit = RateLimit();
  if (socket.open()) watch_socket();
  return true;
}

void EventPosters::close() {
  const MutexLock lock(mutex);
  places.leave_all();
  while (!turns.empty()) turns.take();
  socket.close();
  epoll.reset();
  last_ready = 0;
  someone_waits = someone_leaves = socket_changed = false;
  spares.clear();
}

void EventPosters::watch_socket() {
  if (!watch(epoll.get(), socket.descriptor(), EPOLLIN | EPOLLET, this)) {
    elog(1, "evq: cannot watch the event socket (%s): no events from other processes", strerrordesc_np(errno));
    return socket.close();
  }
  socket_changed = true;  // it may be gone already
  if (socket.change_descriptor() >= 0) watch(epoll.get(), socket.change_descriptor(), EPOLLIN, &socket);
}

bool EventPosters::wait(int timeout_ms) {
  const int64_t start = steady_ms();
  int wait_ms = 0;
  {
    const MutexLock lock(mutex);
    if (socket_changed || socket.number() == 0) {
      if (socket_changed) accept_waiting();  // those who connected to the former socket
      socket_changed = false;
      if (socket.make_again(start)) watch_socket();
    }
    if (turns.empty()) wait_ms = std::min(timeout_ms, next_chore_ms(start));
  }
  Ready ready;
  if (!collect(ready, wait_ms)) return false;
  inbox.woke_up();
  const int64_t until_ms = std::max(start + timeout_ms, steady_ms() + 1);
  const MutexLock lock(mutex);
  note(ready);
  while (!turns.empty() && has_room()) {
    take_turn();
    if (steady_ms() >= until_ms) break;
  }
  accept_waiting();
  return true;
}

EventPosters::Work EventPosters::read_piece() {
  // A script may have used up the memory, and free it soon: the posters can wait until then.
  if (!has_memory_for_a_piece()) return Work::held_up;
  const MutexLock lock(mutex);
  if (turns.empty() || has_room()) {  // before each turn: a poster that becomes ready joins the queue at once
    Ready ready;
    collect(ready, 0);
    note(ready);
  }
  const bool has_turn = !turns.empty() && has_room();
  if (has_turn) take_turn();
  accept_waiting();
  const bool is_left = !turns.empty() || someone_waits;
  if (is_left) inbox.pass_on_wake();  // the loop may have begun to wait before this thread took notice of it
  if (has_turn) return Work::done;
  return is_left ? Work::held_up : Work::nothing;
}

uint64_t EventPosters::tidy_up() {
  const MutexLock lock(mutex);
  spares.clear();
  return dropped - std::exchange(dropped_taken, dropped);
}

void EventPosters::count(event_counts& out) {
  const MutexLock lock(mutex);
  out.lines_refused = dropped;
  out.posters_evicted = evicted;
  out.posters = static_cast<uint32_t>(places.taken());
}

uint32_t EventPosters::list(event_poster* out, uint32_t max) {
  const MutexLock lock(mutex);
  return places.list(out, max);
}

// How long wait() may sleep, in milliseconds, before it has to accept a poster that waits.
int EventPosters::next_chore_ms(int64_t now) const {
  if (!someone_waits) return INT_MAX;
  return static_cast<int>(std::clamp<int64_t>(accept_not_before - now, 0, INT_MAX));
}

bool EventPosters::collect(Ready& ready, int timeout_ms) const {
  const int count = epoll_wait(epoll.get(), ready.events, static_cast<int>(std::size(ready.events)), timeout_ms);
  ready.count = std::max(count, 0);
  return count >= 0;
}

// A poster may have left, and another one have its place, since the set was asked: then there is nothing to receive.
void EventPosters::note(const Ready& ready) {
  last_ready = 0;
  bool is_for_the_loop = false;
  for (int i = 0; i < ready.count; ++i) {
    void* const tag = ready.events[i].data.ptr;
    if (tag == nullptr) {
      is_for_the_loop = true;
    } else if (tag == this) {
      someone_waits = true;
    } else if (tag == &socket) {
      socket_changed = socket.take_change() || socket_changed;
      is_for_the_loop = true;
    } else {
      ++last_ready;
      turns.add(*static_cast<Poster*>(tag));
    }
  }
  if (is_for_the_loop) inbox.pass_on_wake();  // does nothing when this is the loop
}

// Gives the next poster its turn. Nothing is received as long as something is left from its last turn.
void EventPosters::take_turn() {
  Poster& poster = turns.take();
  if (poster.fd < 0) return;
  const bool is_alone = last_ready <= 1 && turns.empty();
  const int lines_max = is_alone ? INT_MAX : kTurnEvents;
  if (poster.unread.empty()) {
    receive(poster, is_alone ? kTurnBytesAlone : kTurnBytes, lines_max);
  } else {
    std::string bytes;
    bytes.swap(poster.unread);
    cut(poster, bytes, lines_max);
  }
}

// Receives and cuts at most `size` bytes. A poster that has sent all leaves.
void EventPosters::receive(Poster& poster, size_t size, int lines_max) {
  // recv, never recvmsg: the kernel then drops what comes along with the bytes, descriptors above all.
  const ssize_t got = recv(poster.fd, buffer, size, MSG_DONTWAIT);
  poster.has_more = got == static_cast<ssize_t>(size);
  if (got > 0) return cut(poster, std::string_view(buffer, static_cast<size_t>(got)), lines_max);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (got == 0 && !poster.is_leaving) finish(poster);
  leave(poster);
}

// Takes the lines among `bytes`, until there are lines_max of them, or no room in the inbox.
void EventPosters::cut(Poster& poster, std::string_view bytes, int lines_max) {
  Batch batch;
  const EventInbox::Tally& mine = inbox.posted(EventSource::posters);
  const int64_t room = kPostedEventsMax - mine.waiting();
  const size_t bytes_before = mine.bytes_waiting();
  const std::string_view rest =
      poster.lines.feed(bytes, [&](std::string_view line) ZELVIND_LOCK_RULE(no_thread_safety_analysis) {
        take_line(poster, line, batch);
        return batch.lines < lines_max && batch.count < room && bytes_before + batch.bytes < kPostedBytesMax;
      });
  if (batch.lines > 0) {
    poster.heard_ms = steady_ms();
    poster.recent.add(batch.count, poster.heard_ms);
  }
  inbox.add(batch.records, batch.count, batch.bytes);
  poster.unread = rest;
  // One that may have more keeps its place among those that have something left, before the epoll set tells of it.
  if (!rest.empty() || poster.has_more) turns.add(poster);
}

void EventPosters::finish(Poster& poster) {
  Batch batch;
  poster.lines.finish([&](std::string_view line)
                          ZELVIND_LOCK_RULE(no_thread_safety_analysis) { take_line(poster, line, batch); });
  inbox.add(batch.records, batch.count, batch.bytes);
}

void EventPosters::take_line(Poster& poster, std::string_view line, Batch& batch) {
  ++batch.lines;
  EventLine event{};
  EventRecord* record = nullptr;
  const char* wrong = parse_event_line(line, event);
  if (wrong == nullptr) {
    record = make_record(EventSource::posters, event.type, event.name, event.info, batch.stamp, &spares);
    if (record == nullptr) wrong = "there is no memory for it";
  }
  if (record != nullptr) {
    batch.records.push(record);
    ++batch.count;
    ++poster.events;
    batch.bytes += record->size;
    return;
  }
  ++dropped;
  ++poster.dropped;
  if (const auto left_out = bad_line_limit.allow()) {
    elog(1, "evq: dropped a line of process %d of user %u: %s: '%.*s'%s", poster.process, poster.user, wrong,
         static_cast<int>(std::min<size_t>(line.size(), 40)), line.data(), left_out->text);
  }
}

void EventPosters::accept_waiting() {
  if (socket.descriptor() < 0) someone_waits = false;
  if (!someone_waits || steady_ms() < accept_not_before) return;
  while (someone_waits && !places.all_taken() && accept_one()) {
  }
  if (someone_waits && places.all_taken()) ask_one_to_leave();
}

bool EventPosters::accept_one() {
  const int fd = above_standard_streams(accept4(socket.descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
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
  Poster& poster = places.enter(fd);
  if (!watch(epoll.get(), fd, EPOLLIN, &poster)) leave(poster);
  return true;
}

// Called when all places are taken. If a poster does wait to be accepted, one connection has to go: it is read empty in
// its turns, like all others, and then leaves.
void EventPosters::ask_one_to_leave() {
  pollfd waiting{socket.descriptor(), POLLIN, 0};
  someone_waits = poll(&waiting, 1, 0) != 0;
  if (!someone_waits || someone_leaves) return;
  Poster& poster = places.first_to_go();
  accept_not_before = poster.since_ms + kPosterHoldMs;
  if (steady_ms() < accept_not_before) return;
  if (const auto left_out = closed_limit.allow()) {
    elog(1, "evq: closed a connection of process %d of user %u, which has %d, while others wait%s", poster.process,
         poster.user, places.of_process(poster), left_out->text);
  }
  shutdown(poster.fd, SHUT_RD);  // its sends fail from now on: no line is lost without its notice
  someone_leaves = poster.is_leaving = true;
  ++evicted;
  turns.add(poster);
}

// Frees a place and a descriptor: another poster may be waiting for either.
void EventPosters::leave(Poster& poster) {
  if (poster.is_leaving) someone_leaves = false;
  accept_not_before = 0;
  places.leave(poster);
}
