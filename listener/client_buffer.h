// The memory that the daemon holds for its clients, and its bound.
//
// A client can make the daemon hold 64 KiB that it has sent, as much that waits to be sent to it, and its type string.
// A thousand clients must not use up the device's memory. One half of what they may use is divided: each buffer of each
// possible client is sure of its own part. The other half goes to whoever asks first. A buffer that is refused does not
// grow: its client is treated as stalled until it has taken what waits for it, or others have given memory back.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <vector>

constexpr size_t kClientMax = 1000;

// The account. Any thread.
class ClientMemory {
 public:
  // `limit`: bytes of all clients together.
  explicit ClientMemory(size_t the_limit)
      : limit(the_limit), own(limit / 2 / kClientMax / kBuffersOfAClient), shared(limit - limit / 2) {}

  // Asks for a buffer of `to` bytes in place of one of `from`. Returns whether it is granted; a smaller one always is.
  bool resize(size_t from, size_t to) {
    const size_t before = beyond(from);
    const size_t after = beyond(to);
    const size_t sum = used.fetch_add(after - before) + (after - before);
    if (after > before && sum > shared) {
      used -= after - before;
      return false;
    }
    all += to - from;
    return true;
  }

  // The same without asking: for what is given back, and for a type string: its packet was granted as much.
  void replace(size_t from, size_t to) {
    used += beyond(to) - beyond(from);
    all += to - from;
  }

  // Bytes that are held now.
  size_t held() const { return all.load(std::memory_order_relaxed); }

  const size_t limit;

 private:
  static constexpr size_t kBuffersOfAClient = 3;

  size_t beyond(size_t size) const { return size > own ? size - own : 0; }

  const size_t own;
  const size_t shared;
  std::atomic<size_t> used{0};  // of the shared half
  std::atomic<size_t> all{0};
};

// Bytes that are added at the end and taken from the front. Starts without memory, grows by doubling. Not shared
// between threads.
class ClientBuffer {
 public:
  static constexpr size_t kKept = 1024;  // bytes that an empty buffer keeps, so that small traffic allocates nothing

  // `account` must outlive the buffer.
  explicit ClientBuffer(ClientMemory& account) : memory(account) {}
  ClientBuffer(const ClientBuffer&) = delete;
  ClientBuffer& operator=(const ClientBuffer&) = delete;
  ~ClientBuffer() { memory.replace(storage.size(), 0); }

  const char* data() const { return storage.data() + start; }
  size_t size() const { return end - start; }
  bool empty() const { return start == end; }

  // Makes room for `more` bytes behind those held. False when the memory for it is not granted; nothing has changed
  // then. Throws std::bad_alloc when there is none.
  bool reserve(size_t more) { return more <= storage.size() - end || make_room(more); }

  // Adds `count` bytes. Fails as reserve does.
  bool append(const char* added, size_t count) {
    if (!reserve(count)) return false;
    memcpy(storage.data() + end, added, count);
    end += count;
    return true;
  }

  // Removes the first `count` bytes, at most size().
  void consume(size_t count) {
    start += count;
    if (empty()) start = end = 0;
  }

  // Drops everything.
  void clear() { start = end = 0; }

  // Gives memory back when little is held, but for a little. Throws std::bad_alloc.
  void tidy() {
    if (size() > kKept || storage.size() <= 2 * kKept) return;
    std::vector<char> smaller(data(), data() + size());
    memory.replace(storage.size(), smaller.size());
    storage.swap(smaller);
    end -= start;
    start = 0;
  }

 private:
  static constexpr size_t kLine = 64;             // of the processor's cache
  static constexpr size_t kUsual = 1057 * kLine;  // what is gathered for one send, and a bit

  bool make_room(size_t more) {
    const size_t wanted = size() + more;
    if (wanted <= storage.size()) {
      std::copy_n(data(), size(), storage.data());  // towards the front
      end -= start;
      start = 0;
      return true;
    }
    size_t ample = std::max(wanted, 2 * storage.size());
    if (wanted <= kUsual) ample = std::min(ample, kUsual);
    return grow(in_lines(ample)) || grow(wanted);
  }

  // An odd number of lines: otherwise the buffers of many clients, which fill up alike, compete for a few sets of the
  // caches.
  static constexpr size_t in_lines(size_t bytes) { return ((bytes + kLine - 1) / kLine | 1) * kLine; }

  bool grow(size_t capacity) {
    if (!memory.resize(storage.size(), capacity)) return false;
    try {
      std::vector<char> larger(capacity);
      std::copy_n(data(), size(), larger.data());
      storage.swap(larger);
    } catch (...) {
      memory.replace(capacity, storage.size());
      throw;
    }
    end -= start;
    start = 0;
    return true;
  }

  ClientMemory& memory;
  std::vector<char> storage;  // [start, end) is held
  size_t start = 0;
  size_t end = 0;
};
