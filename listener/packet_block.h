// The packets of a burst, each stored once for all clients that get it.
//
// Most clients ask for the same events. A copy for each of them would cost more than anything else in a burst: it
// drives everything out of the processor's caches. So packets are stored here one after another, and a client has a
// range of them, which is sent without a copy and grows as long as the client gets every packet that is added.
//
// No lock of its own: all calls under the listener's lock.
#pragma once

#include <cstddef>

#include "listener/client_buffer.h"

class PacketBlock {
 public:
  static constexpr size_t kMax = size_t{256} * 1024;  // bytes, unless a single packet is larger

  // What blocks may take beside what clients hold: one that is filled, and a few that clients without memory still have
  // ranges of. An account of their own, so that nobody who holds the clients' memory keeps others from their events.
  static constexpr size_t kMemory = 8 * kMax;

  // `memory` must outlive it. Belongs to all that share it: the listener, which makes it, and the ranges. The last one
  // that leaves deletes it.
  explicit PacketBlock(ClientMemory& memory) : bytes(memory) {}

  const char* data() const { return bytes.data(); }
  size_t size() const { return bytes.size(); }

  // Adds a packet at the end. False when the memory for it is not granted: nothing has been added. Throws
  // std::bad_alloc when there is none.
  bool append(const char* packet, size_t count) { return bytes.append(packet, count); }

  // Whether there is a range of it.
  bool is_held() const { return sharers > 1; }

  // Drops all packets, unless there is a range of them.
  void clear() {
    if (!is_held()) bytes.clear();
  }

  // As clear; gives the memory back as well.
  void tidy() {
    clear();
    if (!is_held()) bytes.tidy();
  }

  void share() { ++sharers; }
  void leave() {
    if (--sharers == 0) delete this;
  }

 private:
  ~PacketBlock() = default;

  ClientBuffer bytes;
  size_t sharers = 1;  // its maker
};

// A piece of a block, which keeps its bytes as long as the range exists.
class PacketRange {
 public:
  PacketRange() = default;
  PacketRange(const PacketRange&) = delete;
  PacketRange& operator=(const PacketRange&) = delete;
  ~PacketRange() { clear(); }

  const char* data() const { return block->data() + start; }
  size_t size() const { return end - start; }
  bool empty() const { return start == end; }

  // Becomes the last `count` bytes of `wanted`. Only while it is empty.
  void begin(PacketBlock& wanted, size_t count) {
    wanted.share();
    block = &wanted;
    end = wanted.size();
    start = end - count;
  }

  // Adds the last `count` bytes of `wanted`. False when the range does not end right before them: nothing has changed.
  bool extend(const PacketBlock& wanted, size_t count) {
    if (block != &wanted || end + count != wanted.size()) return false;
    end += count;
    return true;
  }

  // Removes the first `count` bytes, at most size().
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
