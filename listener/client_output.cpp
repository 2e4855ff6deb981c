#include "listener/client_output.h"

#include <cerrno>

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
}

ClientOutput::Pushed ClientOutput::push(int fd) {
  if (empty()) return Pushed::ok;
  if (!bytes.empty()) copy_range();  // for one send; else the range has to wait for another one
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
  if (sent > 0) failing = false;
  if (is_range) {
    range.consume(static_cast<size_t>(sent));
    copy_range();  // the block is for those who keep up
  } else {
    bytes.consume(static_cast<size_t>(sent));
  }
  if (!empty() || !owing) return Pushed::ok;
  owing = false;
  trusted_from = Clock::now() + kProbation;
  return Pushed::ok;
}

// Turns the range into bytes of the client's own. False when the memory for them is not granted.
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
  if (skipped++ > 0) return false;
  first_skip = Clock::now();
  return true;
}

int ClientOutput::take_gap() {
  const int number = skipped;
  skipped = 0;
  return number;
}
