// The connections of other processes that post events: whose turn it is, and which process has to give one up when all
// places are taken.
//
// No lock of its own: all calls under the lock of EventPosters.
#pragma once

#include <sys/types.h>
#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string>

#include "device/counts.h"
#include "device/host/poster_lines.h"

constexpr int kPostersMax = EVENT_POSTERS_MAX;
constexpr int kPosterHoldMs = 1000;  // nobody is told to leave earlier: a burst of short posts gets through

// A count of what happened in the last 10 s, so that a flood from an old connection shows. Times are steady_ms.
class RecentCount {
 public:
  explicit RecentCount(int64_t now_ms = 0) : began_ms(now_ms), second(now_ms / 1000) {}

  void add(uint64_t n, int64_t now_ms) {
    pass_to(now_ms);
    counts[second % kSeconds] += n;
  }

  // The count, and over how many ms it goes: 9000 to 9999, or less since the construction.
  struct Span {
    uint64_t count;
    uint64_t ms;
  };
  Span span(int64_t now_ms) const {
    RecentCount now = *this;
    now.pass_to(now_ms);
    const int64_t begin_ms = std::max(began_ms, (now.second - kSeconds + 1) * 1000);
    return {std::accumulate(now.counts, now.counts + kSeconds, uint64_t{0}), static_cast<uint64_t>(now_ms - begin_ms)};
  }

 private:
  static constexpr int kSeconds = 10;

  void pass_to(int64_t now_ms) {
    const int64_t now_s = now_ms / 1000;
    second = std::max(second, now_s - kSeconds);
    while (second < now_s) counts[++second % kSeconds] = 0;
  }

  int64_t began_ms;
  int64_t second;  // the one that counts now
  uint64_t counts[kSeconds] = {};
};

struct Poster {
  int fd = -1;  // -1: a free place
  pid_t process = 0;
  uid_t user = 0;
  int64_t since_ms = 0;     // steady_ms of its connecting
  int64_t heard_ms = 0;     // of the last end of a line: bytes alone do not count
  bool is_queued = false;   // PosterTurns: waits for its turn
  bool is_leaving = false;  // has to go as soon as it is read empty
  bool has_more = false;    // what was received last filled the buffer: there may be more to receive
  uint64_t events = 0;      // that its lines were,
  uint64_t dropped = 0;     // and lines that were none
  RecentCount recent;       // of `events`
  PosterLines lines;
  std::string unread;  // received, and left for its next turn
};

class PosterPlaces {
 public:
  bool all_taken() const { return count == kPostersMax; }

  // Gives the connection `fd` a place; one must be free. The place owns it until leave().
  Poster& enter(int fd);

  // Closes the connection and frees its place.
  void leave(Poster& poster);
  void leave_all();

  // Returns the connection that has to go when all places are taken: of the process with most connections, or of the
  // user with most where each process has one, the one that has been silent longest. The caller checks kPosterHoldMs.
  Poster& first_to_go();

  int taken() const { return count; }

  // Copies what is known of the connections into out[max]. Returns their number.
  uint32_t list(event_poster* out, uint32_t max) const;

  // The number of connections of the poster's process.
  int of_process(const Poster& poster) const;

 private:
  Poster posters[kPostersMax];
  int count = 0;
};

// The posters that wait for their turn, each once. One that has left stays until its turn.
class PosterTurns {
 public:
  bool empty() const { return count == 0; }

  // Puts the poster at the end, unless it waits already.
  void add(Poster& poster) {
    if (poster.is_queued) return;
    poster.is_queued = true;
    ring[(first + count++) % kPostersMax] = &poster;
  }

  // Takes the first one; there must be one.
  Poster& take() {
    Poster& poster = *ring[first];
    first = (first + 1) % kPostersMax;
    --count;
    poster.is_queued = false;
    return poster;
  }

 private:
  Poster* ring[kPostersMax];
  int first = 0;
  int count = 0;
};
