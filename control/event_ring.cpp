#include "control/event_ring.h"

#include <sys/eventfd.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "device/event_queue.h"

EventRing* g_event_ring = nullptr;

namespace {

constexpr size_t kWordSize = sizeof(size_t);
constexpr size_t kEventSize = 64;  // of a small event: so many bytes of words for each start
constexpr size_t kLeastBytes = 1024;
constexpr size_t kInfoShare = 4;  // an info takes at most that part of the ring

// Orders the words around it. The thread sanitizer of GCC does not know fences; its own calls keep the order.
void fence(std::memory_order order) {
#if !defined(__SANITIZE_THREAD__)
  std::atomic_thread_fence(order);
#else
  (void)order;
#endif
}

constexpr size_t words_for(size_t bytes) {
  return (bytes + kWordSize - 1) / kWordSize;
}

uint32_t random_number() {
  uint32_t number = 0;
  if (getrandom(&number, sizeof(number), GRND_NONBLOCK) == sizeof(number)) return number;
  timespec now{};  // the kernel has no random numbers yet, soon after it has booted
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint32_t>(now.tv_nsec ^ now.tv_sec ^ getpid());
}

}  // namespace

struct EventRing::Header {
  uint64_t sequence;
  int64_t wait_ns;
  int64_t run_ns;
  uint32_t seconds;
  uint32_t microseconds;
  int32_t type;
  int32_t errors;
  uint32_t name_size;
  uint32_t info_size;  // as far as it is kept
  uint32_t info_cut;
  uint32_t unused;

  size_t size() const { return words_for(sizeof(Header)) + words_for(name_size) + words_for(info_size); }
};

EventRing::EventRing(size_t bytes)
    : slots(bytes < kLeastBytes ? 0 : bytes / (kEventSize + sizeof(uint64_t))),
      size(slots * kEventSize / kWordSize),
      starts(new std::atomic<uint64_t>[slots]),
      words(new Word[size]),
      wake(wake_up_descriptor()) {
  snprintf(run_name, sizeof(run_name), "%08x", random_number());
}

void EventRing::add(const event_item& event, int64_t wait_ns, int64_t run_ns, int errors) {
  const uint64_t sequence = newest.load(std::memory_order_relaxed) + 1;
  if (slots != 0) {
    const size_t info_size = strlen(event.info);
    const size_t kept = std::min(info_size, size * kWordSize / kInfoShare);
    const Header header{sequence,
                        wait_ns,
                        run_ns,
                        static_cast<uint32_t>(event.timestamp[0]),
                        static_cast<uint32_t>(event.timestamp[1]),
                        event.type,
                        errors,
                        static_cast<uint32_t>(strnlen(event.type_name, sizeof(event.type_name))),
                        static_cast<uint32_t>(kept),
                        static_cast<uint32_t>(info_size - kept),
                        0};
    write(event, header);
  }
  if (!followed.load(std::memory_order_relaxed)) return newest.store(sequence, std::memory_order_release);
  newest.store(sequence);  // in one order with ask_to_be_woken(), which says that it sleeps and then looks
  wake_reader();
}

void EventRing::end() {
  ended.store(true);
  wake_reader();
}

void EventRing::wake_reader() {
  if (reader_sleeps.exchange(false)) eventfd_write(wake.get(), 1);
}

void EventRing::write(const event_item& event, const Header& header) {
  const uint64_t position = reserved.load(std::memory_order_relaxed);
  reserved.store(position + header.size(), std::memory_order_relaxed);
  fence(std::memory_order_release);
  Word* const ring = words.get();
  size_t at = next_word;
  const auto put_word = [&](const char* from, size_t bytes) {
    size_t word = 0;
    memcpy(&word, from, bytes);
    ring[at].store(word, std::memory_order_relaxed);
    if (++at == size) at = 0;
  };
  const auto put = [&](const void* data, size_t bytes) {
    const char* from = static_cast<const char*>(data);
    for (; bytes >= kWordSize; from += kWordSize, bytes -= kWordSize) put_word(from, kWordSize);
    if (bytes > 0) put_word(from, bytes);
  };
  put(&header, sizeof(header));
  put(event.type_name, header.name_size);
  put(event.info, header.info_size);
  next_word = at;
  if (++next_start == slots) next_start = 0;
  starts[next_start].store(position, std::memory_order_relaxed);
}

bool EventRing::overwritten(uint64_t position) const {
  return reserved.load(std::memory_order_relaxed) > position + size;
}

bool EventRing::is_held(uint64_t sequence) const {
  if (last() - sequence >= slots) return false;
  return !overwritten(starts[sequence % slots].load(std::memory_order_relaxed));
}

// The events that are held are the last ones, so halving finds the first of them.
uint64_t EventRing::oldest_after(uint64_t sequence) const {
  uint64_t gone = sequence;
  uint64_t end = last() + 1;
  while (gone + 1 < end) {
    const uint64_t middle = gone + (end - gone) / 2;
    (is_held(middle) ? end : gone) = middle;
  }
  return end;
}

bool EventRing::copy(uint64_t sequence, EventRecordCopy& out) const {
  if (!is_held(sequence)) return false;
  const uint64_t position = starts[sequence % slots].load(std::memory_order_relaxed);
  auto at = static_cast<size_t>(position % size);
  const auto get = [&](void* data, size_t bytes) {
    char* to = static_cast<char*>(data);
    while (bytes > 0) {
      const size_t part = std::min(bytes, kWordSize);
      const size_t word = words[at].load(std::memory_order_relaxed);
      memcpy(to, &word, part);
      at = at + 1 == size ? 0 : at + 1;
      to += part;
      bytes -= part;
    }
    fence(std::memory_order_acquire);
    return !overwritten(position);
  };
  Header header{};
  if (!get(&header, sizeof(header)) || header.sequence != sequence) return false;
  out.name.resize(header.name_size);
  out.info.resize(header.info_size);
  if (!get(out.name.data(), header.name_size) || !get(out.info.data(), header.info_size)) return false;
  out.sequence = sequence;
  out.seconds = header.seconds;
  out.microseconds = header.microseconds;
  out.type = header.type;
  out.errors = header.errors;
  out.wait_ns = header.wait_ns;
  out.run_ns = header.run_ns;
  out.info_cut = header.info_cut;
  return true;
}

EventRing::Read EventRing::read(uint64_t& next, EventRecordCopy& out, uint64_t& lost) const {
  if (next > last()) return Read::nothing;
  if (copy(next, out)) {
    ++next;
    return Read::entry;
  }
  const uint64_t left = oldest_after(next);
  lost = left - next;
  next = left;
  return Read::lost;
}

bool EventRing::ask_to_be_woken(uint64_t next) {
  reader_sleeps.store(true);
  if (newest.load() < next && !ended.load()) return true;
  reader_sleeps.store(false);
  return false;
}
