// The other processes that post events: their connections, the waiting for them, and the events read from them.
//
// Readiness comes from one epoll set, which also holds the descriptor that wakes the script thread for events of the
// process itself. What is hard here is fairness with strangers:
//   - A poster is served one bounded piece at a time, in the order in which posters became ready; those that were
//     ready but not served yet come first next time.
//   - Nothing is read while enough events wait here, so a poster that is faster than the loop waits in its send.
//   - With all places taken and somebody waiting to be accepted, the poster that was silent longest, and for long
//     enough, has to go. Silent is who ends no line, however many bytes come. The listening socket is watched for
//     edges: a connection that cannot be accepted yet must not wake the loop again and again.
//
// open and close: main thread, while the script thread does not run. Everything else: script thread.
#pragma once

#include <sys/epoll.h>
#include <cstdint>
#include <string_view>

#include "device/host/event_record.h"
#include "device/host/event_socket.h"
#include "device/host/poster_lines.h"
#include "util/descriptor.h"
#include "util/rate_limit.h"

constexpr int kPostersMax = 256;
constexpr int kPostedEventsMax = 4096;                       // no reading while that many wait
constexpr size_t kPostedBytesMax = size_t{8} * 1024 * 1024;  // nor while they are that big
constexpr int kPosterSilenceMs = 5000;                       // of a poster that has to make place
constexpr size_t kPosterPiece = size_t{64} * 1024;           // bytes read from one poster in its turn

class EventPosters {
 public:
  // Makes the epoll set with `wake_fd` in it, and the socket if it can be made; otherwise wait() tries again. Returns
  // false, with errno set, when there is no descriptor left for the set.
  bool open(int wake_fd);

  // Closes all connections and the socket, and frees what waits.
  void close();

  bool is_open() const { return epoll.get() >= 0; }

  // The oldest event read, or null.
  EventRecord* take();

  // The number of events that take() would return.
  int waiting() const { return events; }

  // Waits until something happens, at most timeout_ms, and serves who is ready; may return early with nothing done.
  // Serving goes on until enough events wait, or until the time is up. Returns false when a signal interrupted it.
  bool wait(int timeout_ms);

  // The number of lines dropped since the last call.
  int64_t take_dropped();

 private:
  struct Poster {
    int fd = -1;           // -1: a free place
    int64_t heard_ms = 0;  // steady_ms of the last end of a line: bytes alone would let anybody keep a place
    PosterLines lines;
  };

  void open_socket();
  void retry_socket();
  int next_chore_ms(int64_t now);
  bool collect_ready(int timeout_ms);
  void serve_ready(int64_t until_ms);
  bool serve(Poster& poster);
  ssize_t recv_piece(Poster& poster);
  bool take_in(Poster& poster, std::string_view bytes, bool is_end);
  void take_line(const Poster& poster, std::string_view line, int32_t seconds, int32_t microseconds);
  void accept_waiting();
  bool accept_one();
  bool make_place();
  Poster& silent_longest();
  void drop(Poster& poster);
  bool has_room() const { return events < kPostedEventsMax && bytes < kPostedBytesMax; }

  EventSocket socket;
  Descriptor epoll;
  int listening = -1;             // owned by `socket`; -1: there is none
  int64_t socket_not_before = 0;  // steady_ms; when to try for one again
  int64_t socket_not_after = 0;   // 0: the loop has not tried yet
  bool someone_waits = false;     // somebody may be waiting to be accepted
  int64_t accept_not_before = 0;  // steady_ms; after descriptors ran out
  Poster posters[kPostersMax];
  int poster_count = 0;
  epoll_event ready[64];  // reported by the set; served from next_ready on
  int ready_count = 0;
  int next_ready = 0;
  RecordList records;
  int events = 0;    // in records
  size_t bytes = 0;  // in records
  int64_t dropped = 0;
  RateLimit bad_line_limit;
  RateLimit closed_limit;
  RateLimit accept_limit;
  char buffer[kPosterPiece];
};
