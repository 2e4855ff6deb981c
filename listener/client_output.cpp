#include "listener/client_output.h"

#include <cerrno>
#include <utility>

#include "util/socket.h"

namespace {

constexpr std::chrono::seconds kProbation{60};  // after a client has caught up

}  // namespace

void ClientOutput::reset() {
  bytes.clear();
  bytes.tidy();
  range.clear();
  owing = failing = is_broken = false;
  skipped = 0;
  trusted_from = {};
  counted = {};
  deliveries_sent = 0;
}

ClientOutput::Pushed ClientOutput::push(int fd) {
  if (empty()) return Pushed::ok;
  if (!bytes.empty()) copy_range();  // so that one send takes both; without memory, the range waits for the next one
  const bool is_range = bytes.empty();
  const int sent = is_range ? sock_send_ready(fd, range.data(), static_cast<int>(range.size()))
                            : sock_send_ready(fd, bytes.data(), static_cast<int>(bytes.size()));
  if (sent < 0 && (errno == ENOBUFS || errno == ENOMEM)) {
    const bool first = !failing;
    failing = true;
    owe();
    return first ? Pushed::failed : Pushed::ok;
  }
  if (sent < 0) {
    give_up();
    return Pushed::broken;
  }
  if (sent > 0) {
    failing = false;
    counted.bytes += static_cast<uint64_t>(sent);
    ++counted.sends;
    if (counted.deliveries - std::exchange(deliveries_sent, counted.deliveries) > 1) ++counted.gathered_sends;
  }
  if (is_range) {
    range.consume(static_cast<size_t>(sent));
    copy_range();  // slow clients must not hold the block
  } else {
    bytes.consume(static_cast<size_t>(sent));
  }
  if (!empty() || !owing) return Pushed::ok;
  owing = false;
  trusted_from = Clock::now() + kProbation;
  return gap_over() ? Pushed::gap_over : Pushed::ok;
}

// Copies the range into the client's own buffer. Returns false when the memory for that is not granted.
bool ClientOutput::copy_range() {
  if (range.empty()) return true;
  if (!bytes.append(range.data(), range.size())) return false;
  range.clear();
  return true;
}

void ClientOutput::give_up() {
  bytes.clear();
  range.clear();
  owing = false;
  is_broken = true;
}

void ClientOutput::owe() {
  if (!owing) owing_since = Clock::now();
  owing = true;
}

bool ClientOutput::skip() {
  last_skip = Clock::now();
  ++counted.skips;
  if (skipped++ > 0) return false;
  first_skip = last_skip;
  return true;
}

int ClientOutput::take_gap() {
  const int number = skipped;
  skipped = 0;
  return number;
}
