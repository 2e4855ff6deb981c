// What the daemon holds for its clients in memory, and the bound of it.
//
// A client can make the daemon hold 64 KiB that it has sent, as much that waits to be sent to it, and its type string. A
// thousand of them must not eat the device. One half of the memory is shared out: each buffer of each possible client is
// sure of its own part. The other half goes to whoever asks first. A buffer that is refused does not grow: its client is
// treated as stalled, until it has taken what waits for it or others have given memory back.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>

constexpr size_t kClientMax = 1000;

// The account. Any thread.
class ClientMemory {
 public:
  // `limit`: bytes of all clients together.
  explicit ClientMemory(size_t limit) : own(limit / 2 / kClientMax / kBuffersOfAClient), shared(limit - limit / 2) {}

  // A buffer of `from` bytes wants to have `to` instead. Returns whether it may; a smaller one always may.
  bool resize(size_t from, size_t to) {
    const size_t before = beyond(from), after = beyond(to);
    const size_t sum = used.fetch_add(after - before) + (after - before);
    if (after <= before || sum <= shared) return true;
    used -= after - before;
    return false;
  }

  // The same for memory that takes the place of a refused-or-granted buffer: always granted.
  void replace(size_t from, size_t to) { used += beyond(to) - beyond(from); }

 private:
  static constexpr size_t kBuffersOfAClient = 3;

  size_t beyond(size_t size) const { return size > own ? size - own : 0; }

  const size_t own;
  const size_t shared;
  std::atomic<size_t> used{0};  // of the shared half
};

// Bytes that come in at the end and go out at the front. Starts without memory, grows by doubling. Not shared between
// threads: its owner's rule of access holds.
class ClientBuffer {
 public:
  static constexpr size_t kKept = 1024;  // bytes that an empty buffer keeps, so that small traffic allocates nothing

  // `account` outlives the buffer.
  explicit ClientBuffer(ClientMemory& account) : memory(account) {}
  ClientBuffer(const ClientBuffer&) = delete;
  ClientBuffer& operator=(const ClientBuffer&) = delete;
  ~ClientBuffer() { memory.replace(bytes.capacity(), 0); }

  const char* data() const { return bytes.data() + start; }
  size_t size() const { return bytes.size() - start; }
  bool empty() const { return size() == 0; }
  bool is_large() const { return bytes.capacity() > kKept; }

  // Makes room for `more` bytes behind those held. False when the memory for it is not granted; nothing has changed
  // then. Throws std::bad_alloc when there is none.
  bool reserve(size_t more) {
    if (bytes.size() + more <= bytes.capacity()) return true;
    if (size() + more > bytes.capacity() && !grow(size() + more)) return false;
    bytes.erase(0, start);
    start = 0;
    return true;
  }

  // Adds `count` bytes; results as of reserve.
  bool append(const char* added, size_t count) {
    if (!reserve(count)) return false;
    bytes.append(added, count);
    return true;
  }

  // Takes away the first `count` bytes, at most size().
  void consume(size_t count) {
    start += count;
    if (!empty()) return;
    bytes.clear();
    start = 0;
  }

  // Drops everything.
  void clear() { consume(size()); }

  // Gives the memory of an empty buffer back, but for a little.
  void tidy() {
    if (!empty() || !is_large()) return;
    memory.replace(bytes.capacity(), 0);
    std::string().swap(bytes);
    memory.replace(0, bytes.capacity());
  }

 private:
  bool grow(size_t wanted) {
    size_t capacity = bytes.capacity() < 64 ? 128 : bytes.capacity() * 2;
    while (capacity < wanted) capacity *= 2;
    std::string larger;
    larger.reserve(capacity);
    if (!memory.resize(bytes.capacity(), larger.capacity())) return false;
    larger.append(data(), size());
    larger.swap(bytes);
    start = 0;
    return true;
  }

  ClientMemory& memory;
  std::string bytes;  // [start, end) is held
  size_t start = 0;
};
