#include "listener/client_output.h"

#include "util/socket.h"

namespace {

constexpr size_t kReserved = ClientOutput::kGatherMax + 2048;  // a packet of the usual size fits behind a full row
constexpr std::chrono::seconds kKeepUp{60};
constexpr std::chrono::seconds kRowMin{1};

}  // namespace

ClientOutput::ClientOutput() {
  bytes.reserve(kReserved);
}

void ClientOutput::begin() {
  drop();
  no_wait_until = {};
  skipped = 0;
}

void ClientOutput::append(const char* packet, size_t size) {
  if (sent > 0) {
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(sent));
    sent = 0;
  }
  bytes.insert(bytes.end(), packet, packet + size);
}

bool ClientOutput::push(int fd) {
  const int now_sent = sock_send_ready(fd, bytes.data() + sent, static_cast<int>(waiting()));
  if (now_sent < 0) {
    drop();
    return false;
  }
  sent += static_cast<size_t>(now_sent);
  if (!empty()) return true;
  if (owing) no_wait_until = Clock::now() + kKeepUp;
  drop();
  return true;
}

bool ClientOutput::skip() {
  if (skipped++ > 0) return false;
  first_skip = Clock::now();
  return true;
}

int ClientOutput::row_over() {
  if (skipped == 0 || owing || Clock::now() < first_skip + kRowMin) return 0;
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
