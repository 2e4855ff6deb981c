#include "listener/listener_client.h"

#include <arpa/inet.h>
#include <cstdio>
#include <utility>

#include "util/socket.h"

PeerText::PeerText(const Peer& peer) {
  char host[INET_ADDRSTRLEN] = "?";
  if (peer.is_process) {
    snprintf(text, sizeof(text), "process %d of user %u", peer.number, peer.owner);
  } else {
    inet_ntop(AF_INET, &peer.owner, host, sizeof(host));
    snprintf(text, sizeof(text), "%s:%d", host, peer.number);
  }
}

void ListenerClient::open(int new_fd, const Peer& other_end) {
  read_tick = -1;
  awaited = 0;
  is_held_off = is_leaving = false;
  peer = other_end;
  since = Clock::now();
  fd = new_fd;
}

void ListenerClient::close() {
  if (fd > 0) sock_close(fd);
  fd = 0;
  recv_buf.clear();
  recv_buf.tidy();
  set_type_string({});
  output.reset();
}

void ListenerClient::set_type_string(std::optional<std::string> text) {
  const size_t before = type_string ? type_string->capacity() : 0;
  type_string.reset();  // first: a string that takes over a short one keeps its own memory, however much that is
  type_string = std::move(text);
  memory.replace(before, type_string ? type_string->capacity() : 0);
}
