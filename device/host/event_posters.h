// The other processes that post events: waiting for them, reading what they send, and cutting it into events.
//
// Readiness comes from one epoll set, which also holds the descriptor that wakes the script thread for events of the
// process itself. Posters are strangers, and must not harm the loop or each other:
//   - Posters take turns in the order in which they became ready. A turn is at most kTurnEvents events while several
//     are ready; the rest of what was received waits for the next turn.
//   - Nothing is read while enough events wait in the inbox, so a poster that is faster than the loop waits in its
//     send.
//   - When all places are taken and another poster waits to be accepted, one connection has to go (poster_places.h),
//     after all that it has sent has been read. The listening socket is watched for edges: a connection that cannot be
//     accepted yet must not wake the loop again and again.
//
// The script thread reads, or in its place the stand-in reader (stand_in.h), one at a time under the lock. Only the
// script thread waits, without the lock, and only it replaces the socket. open and close: main thread, while neither
// of them runs.
#pragma once

#include <sys/epoll.h>
#include <atomic>
#include <cstdint>
#include <string_view>

#include "device/host/event_inbox.h"
#include "device/host/poster_places.h"
#include "util/descriptor.h"
#include "util/mutex.h"
#include "util/owned_socket.h"
#include "util/rate_limit.h"

constexpr int kPostedEventsMax = 4096;                       // nothing is read while that many wait,
constexpr size_t kPostedBytesMax = size_t{8} * 1024 * 1024;  // or while they are that large
constexpr int kTurnEvents = 256;                             // lines of one poster in its turn, when several are ready
constexpr size_t kTurnBytes = size_t{4} * 1024;              // received for such a turn
constexpr size_t kTurnBytesAlone = size_t{64} * 1024;        // received when no other poster is ready

class EventPosters {
 public:
  explicit EventPosters(EventInbox& the_inbox);

  // Makes the epoll set with the inbox's descriptor in it, and the socket; wait() tries again when that fails. Returns
  // false, with errno set, when there is no descriptor left for the set.
  bool open();

  // Closes all connections and the socket.
  void close();

  bool is_open() const { return epoll.get() >= 0; }

  // OwnedSocket::number(). Any thread.
  int socket_number() const { return socket.number(); }

  // Waits until something happens, at most timeout_ms, and reads from the posters that are ready, until enough events
  // wait or the time is up. May return early with nothing done. Returns false when a signal interrupted it. Script
  // thread.
  bool wait(int timeout_ms);

  enum class Work { done, nothing, held_up };

  // Reads one piece, if there is one, without waiting. `held_up`: something has to wait for room in the inbox, for
  // memory, or until its time comes. Throws std::bad_alloc. Stand-in reader.
  Work read_piece();

  // Readable for poll(2) while there is anything that no thread has taken notice of yet.
  int descriptor() const { return epoll.get(); }

  // Frees the memory that a burst has left behind. Returns the number of lines dropped since the last call. Script
  // thread.
  uint64_t tidy_up();

  // Fills what event_counts has of the posters; PosterPlaces::list. Any thread.
  void count(event_counts& out);
  uint32_t list(event_poster* out, uint32_t max);

 private:
  struct Batch;
  struct Ready {
    epoll_event events[64];
    int count = 0;
  };

  void watch_socket() REQUIRES(mutex);
  bool collect(Ready& ready, int timeout_ms) const;
  void note(const Ready& ready) REQUIRES(mutex);
  int next_chore_ms(int64_t now) const REQUIRES(mutex);
  void take_turn() REQUIRES(mutex);
  void receive(Poster& poster, size_t size, int lines_max) REQUIRES(mutex);
  void cut(Poster& poster, std::string_view bytes, int lines_max) REQUIRES(mutex);
  void finish(Poster& poster) REQUIRES(mutex);
  void take_line(Poster& poster, std::string_view line, Batch& batch) REQUIRES(mutex);
  void accept_waiting() REQUIRES(mutex);
  bool accept_one() REQUIRES(mutex);
  void ask_one_to_leave() REQUIRES(mutex);
  void leave(Poster& poster) REQUIRES(mutex);
  bool has_room() const {
    const EventInbox::Tally& mine = inbox.posted(EventSource::posters);
    return mine.waiting() < kPostedEventsMax && mine.bytes_waiting() < kPostedBytesMax;
  }

  EventInbox& inbox;
  Descriptor epoll;    // constant while the threads run
  OwnedSocket socket;  // changed by the script thread, under mutex

  Mutex mutex;
  PosterPlaces places GUARDED_BY(mutex);
  PosterTurns turns GUARDED_BY(mutex);
  int last_ready GUARDED_BY(mutex) = 0;             // how many posters the epoll set last reported
  bool socket_changed GUARDED_BY(mutex) = false;    // it may have been removed
  bool someone_waits GUARDED_BY(mutex) = false;     // a poster may be waiting to be accepted
  bool someone_leaves GUARDED_BY(mutex) = false;    // a connection that had to go is being read empty
  int64_t accept_not_before GUARDED_BY(mutex) = 0;  // steady_ms
  RecordList spares GUARDED_BY(mutex);
  uint64_t dropped GUARDED_BY(mutex) = 0;        // lines,
  uint64_t dropped_taken GUARDED_BY(mutex) = 0;  // and as many of them as tidy_up has returned
  uint64_t evicted GUARDED_BY(mutex) = 0;        // connections that had to go
  RateLimit bad_line_limit GUARDED_BY(mutex);
  RateLimit closed_limit GUARDED_BY(mutex);
  RateLimit accept_limit GUARDED_BY(mutex);
  char buffer[kTurnBytesAlone] GUARDED_BY(mutex);
};
