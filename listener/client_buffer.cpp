#include "listener/client_buffer.h"

#include <algorithm>

bool ClientBuffer::make_room(size_t more) {
  const size_t wanted = size() + more;
  if (wanted > storage.size()) {
    size_t capacity = std::max(wanted, 2 * storage.size());
    if (wanted <= kUsual) capacity = std::min(capacity, kUsual);
    // An odd number of lines: buffers of many clients that fill up alike would else get into each other's way in the
    // processor's caches.
    std::vector<char> larger(((capacity + kLine - 1) / kLine | 1) * kLine);
    if (!memory.resize(storage.size(), larger.size())) return false;
    std::copy_n(data(), size(), larger.data());
    storage.swap(larger);
  } else {
    std::copy_n(data(), size(), storage.data());  // towards the front
  }
  end -= start;
  start = 0;
  return true;
}
