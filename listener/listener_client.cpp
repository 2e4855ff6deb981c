#include "listener/listener_client.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "util/socket.h"

namespace {

constexpr int kFirstCapacity = 1024;  // bytes

}  // namespace

PeerText::PeerText(const sockaddr_in& peer) {
  char host[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &peer.sin_addr, host, sizeof(host));
  snprintf(text, sizeof(text), "%s:%d", host, ntohs(peer.sin_port));
}

ListenerClient::ListenerClient() : recv_buf(new char[kFirstCapacity]), recv_cap(kFirstCapacity) {}

void ListenerClient::open(int new_fd, const PeerText& peer) {
  recv_len = 0;
  address = peer;
  fd = new_fd;
}

void ListenerClient::close() {
  if (fd > 0) sock_close(fd);
  fd = 0;
  std::unique_ptr<char[]> none;
  subscription.swap(none);
  output.reset();
}

void ListenerClient::make_room(int size) {
  int wanted = recv_cap;
  while (wanted < recv_len + size) wanted *= 2;
  if (wanted == recv_cap) return;
  std::unique_ptr<char[]> larger(new char[static_cast<size_t>(wanted)]);
  memcpy(larger.get(), recv_buf.get(), static_cast<size_t>(recv_len));
  recv_buf = std::move(larger);
  recv_cap = wanted;
}

void ListenerClient::consume(int size) {
  recv_len -= size;
  memmove(recv_buf.get(), recv_buf.get() + size, static_cast<size_t>(recv_len));
}
