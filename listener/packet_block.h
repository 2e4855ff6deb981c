// The packets of a burst, each held once, whoever gets it.
//
// Most clients ask for the same events. A copy for each of them would cost more than anything else in a burst: it
// drives everything out of the processor's caches. So packets stand here one behind the other, and a client has a
// range of them: it grows by a packet as long as no other packet stands in between, and is sent as it is.
//
// No lock of its own: everything under the listener's lock.
#pragma once

#include <cstddef>

#include "listener/client_buffer.h"

class PacketBlock {
 public:
  static constexpr size_t kMax = size_t{256} * 1024;  // bytes, but for a single packet that is larger

  // `memory` outlives it. Owned by those who share it: the listener, which makes it, and the ranges.
  explicit PacketBlock(ClientMemory& memory) : bytes(memory) {}

  const char* data() const { return bytes.data(); }
  size_t size() const { return bytes.size(); }

  // Adds a packet at the end. False when the memory for it is not granted: nothing has been added.
  bool append(const char* packet, size_t count) { return bytes.append(packet, count); }

  // Whether there is a range of it.
  bool is_held() const { return sharers > 1; }

  // Drops all packets, and with `tidy` most of the memory. Only while it is not held.
  void clear() { bytes.clear(); }
  void tidy() { bytes.tidy(); }

  void share() { ++sharers; }
  void leave() {
    if (--sharers == 0) delete this;
  }

 private:
  ~PacketBlock() = default;

  ClientBuffer bytes;
  size_t sharers = 1;  // its maker
};

// The bytes from one place of a block to another, which stay there as long as the range has them.
class PacketRange {
 public:
  PacketRange() = default;
  PacketRange(const PacketRange&) = delete;
  PacketRange& operator=(const PacketRange&) = delete;
  ~PacketRange() { clear(); }

  const char* data() const { return block->data() + start; }
  size_t size() const { return end - start; }
  bool empty() const { return start == end; }

  // Begins with `count` bytes at `place` of `wanted`. Only while it is empty.
  void begin(PacketBlock& wanted, size_t place, size_t count) {
    wanted.share();
    block = &wanted;
    start = place;
    end = place + count;
  }

  // Takes the `count` bytes at `place` of `wanted` in. False when they do not stand right behind its end.
  bool extend(const PacketBlock& wanted, size_t place, size_t count) {
    if (block != &wanted || end != place) return false;
    end += count;
    return true;
  }

  // Takes away the first `count` bytes, at most size().
  void consume(size_t count) {
    start += count;
    if (empty()) clear();
  }

  void clear() {
    if (block != nullptr) block->leave();
    block = nullptr;
    start = end = 0;
  }

 private:
  PacketBlock* block = nullptr;  // null while empty
  size_t start = 0;
  size_t end = 0;
};
