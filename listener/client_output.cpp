#include "listener/client_output.h"

#include <sys/socket.h>
#include <cerrno>

namespace {

constexpr size_t kReserved = ClientOutput::kGatherMax + 2048;  // a packet of the usual size fits behind a full row

}  // namespace

ClientOutput::ClientOutput() {
  bytes.reserve(kReserved);
}

void ClientOutput::reset() {
  drop();
  failing = false;
  is_broken = false;
  budget = {};
  skipped = 0;
}

void ClientOutput::append(const char* packet, size_t size) {
  if (sent > 0) {
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(sent));
    sent = 0;
  }
  bytes.insert(bytes.end(), packet, packet + size);
}

ClientOutput::Pushed ClientOutput::push(int fd) {
  if (empty()) return Pushed::ok;
  ssize_t now_sent;
  do {
    now_sent = send(fd, bytes.data() + sent, waiting(), MSG_DONTWAIT);
  } while (now_sent < 0 && errno == EINTR);
  if (now_sent < 0 && errno == EAGAIN) return Pushed::ok;
  if (now_sent < 0 && (errno == ENOBUFS || errno == ENOMEM)) {
    const bool first = !failing;
    owing = failing = true;
    return first ? Pushed::failed : Pushed::ok;
  }
  if (now_sent < 0) {
    drop();
    is_broken = true;
    return Pushed::broken;
  }
  failing = false;
  sent += static_cast<size_t>(now_sent);
  if (!empty()) return Pushed::ok;
  if (owing) budget.caught_up(Clock::now());
  drop();
  return Pushed::ok;
}

bool ClientOutput::skip() {
  if (skipped++ > 0) return false;
  first_skip = Clock::now();
  return true;
}

int ClientOutput::take_row() {
  const int number = skipped;
  skipped = 0;
  return number;
}

void ClientOutput::drop() {
  bytes.clear();
  sent = 0;
  owing = false;
  if (bytes.capacity() <= kReserved) return;
  bytes = std::vector<char>();  // a large packet went through: keep no more than before
  bytes.reserve(kReserved);
}
