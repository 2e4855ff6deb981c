/* What the device libraries count about themselves, beyond device/event_queue.h and device/log.h: C11 and C++17. All of
 * it is declared weak: with a device's own libraries the addresses may be null, and nothing of it is shown. The counts
 * begin with the process and never go back. */
#pragma once

#include <stdint.h>  // NOLINT(modernize-deprecated-headers): C too

struct event_item;

#define EVENT_POSTERS_MAX 256 /* connections that the embedded queue serves at once */

struct event_counts {
  uint64_t posted;          /* events that the process itself has queued, */
  uint64_t posted_refused;  /* and those refused because the queue was full */
  uint64_t lines;           /* events that other processes have queued, a line each, */
  uint64_t lines_refused;   /* and lines that were dropped: not an event, too long, or no memory */
  uint64_t posters_evicted; /* connections closed because all places were taken and others waited */
  uint64_t oldest_age_us;   /* since the oldest event that waits came in, steady clock; 0: none waits */
  uint32_t waiting;         /* events that wait now, */
  uint32_t waiting_highest; /* and the most that ever did */
  uint32_t posters;         /* connections of other processes now */
};

/* One connection of another process that posts events. */
struct event_poster {
  int32_t process; /* its process id and user id when it connected */
  uint32_t user;
  uint64_t connected_ms;  /* for how long it has been connected */
  uint64_t lines;         /* events that it has queued, */
  uint64_t lines_refused; /* and lines of it that were dropped */
  uint64_t bytes_waiting; /* received from it, and not an event yet */
  uint64_t recent;        /* of `lines`, those of the last recent_ms milliseconds: */
  uint64_t recent_ms;     /* about 10 s, or less since it connected */
};

struct log_counts {
  uint64_t written;  /* messages that at least one target took, */
  uint64_t lost;     /* those that none took, */
  uint64_t repeated; /* and those left out, but summed up in a line of the log's own */
};

#ifdef __cplusplus
extern "C" {
#endif

/* Fills *out. Any thread; holds locks of the queue for as long as a copy takes. */
__attribute__((weak)) void event_counts_now(struct event_counts* out);

/* Copies the connections that there are now into out[max], in no order, and returns their number, at most `max`;
 * EVENT_POSTERS_MAX is always enough. Any thread, as event_counts_now. */
__attribute__((weak)) uint32_t event_posters_now(struct event_poster* out, uint32_t max);

/* Returns when `event`, a record of event_dequeue, came in: nanoseconds of CLOCK_MONOTONIC, so that a caller that knows
 * what this clock reads now need not read it again. Script thread. */
__attribute__((weak)) int64_t event_came_ns(const struct event_item* event);

/* Fills *out. Any thread; takes no lock. */
__attribute__((weak)) void log_counts_now(struct log_counts* out);

#ifdef __cplusplus
}
#endif
