#include "bench/clients.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cstring>
#include <stdexcept>
#include <string_view>

#include "bench/peer_process.h"

namespace {

constexpr int kSilenceMs = 20000;
// For a daemon whose queue of connections is short: a client that finds it full tries again a second later.
constexpr useconds_t kConnectPauseUs = 200;
constexpr size_t kTailMax = 64;

sockaddr_in address_of(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

Descriptor connect_client(int port) {
  Descriptor fd = try_connect(port);
  if (fd.get() < 0) throw std::runtime_error("failed to connect to port " + std::to_string(port));
  return fd;
}

Descriptor bind_any(int& port) {
  Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = address_of(0);
  socklen_t size = sizeof(address);
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("no free port");
  }
  port = ntohs(address.sin_port);
  return fd;
}

void expect_more(bool came) {
  if (!came) throw std::runtime_error("clients get nothing any more");
}

}  // namespace

Clients::Clients(int port, int count) : clients(static_cast<size_t>(count)), epoll(epoll_create1(EPOLL_CLOEXEC)) {
  for (Client& client : clients) {
    client.fd = connect_client(port);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &client;
    epoll_ctl(epoll.get(), EPOLL_CTL_ADD, client.fd.get(), &event);
    usleep(kConnectPauseUs);
  }
}

void Clients::subscribe(const std::string& type_string) {
  const std::string packet = subscription(type_string);
  for (Client& client : clients) {
    client.is_done = false;
    send_whole(client.fd.get(), packet.data(), packet.size());
  }
}

void Clients::subscribe_now(const std::string& type_string, const std::string& type_name, int poster) {
  subscribe(type_string);
  const std::string probe = "1 " + type_name + " probe\n";
  const std::string last = "1 " + type_name + " last\n";
  do {
    send_whole(poster, probe.data(), probe.size());
  } while (!try_read_something(20));
  send_whole(poster, last.data(), last.size());
  read_to({'l', 'a', 's', 't', '\0'});
}

// `is_done` is asked after each piece that a client has got, until it is true for that client. Returns true when it is
// for all, and false after a silence of `silence_ms`.
template <typename IsDone>
bool Clients::read_until(IsDone&& is_done, int silence_ms) {
  static char buffer[256 * 1024];
  epoll_event ready[128];
  size_t left = 0;
  for (const Client& client : clients) left += client.is_done ? 0 : 1;
  while (left > 0) {
    const int count = epoll_wait(epoll.get(), ready, 128, silence_ms);
    if (count <= 0) return false;
    for (int i = 0; i < count; ++i) {
      Client& client = *static_cast<Client*>(ready[i].data.ptr);
      const ssize_t got = recv(client.fd.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
      if (got <= 0) throw std::runtime_error("a client's connection has ended");
      client.received += static_cast<size_t>(got);
      if (!is_done(client, std::string_view(buffer, static_cast<size_t>(got))) || client.is_done) continue;
      client.is_done = true;
      --left;
    }
  }
  return true;
}

void Clients::read_bytes(size_t size) {
  for (Client& client : clients) client.received = 0, client.is_done = false;
  expect_more(read_until(
      [size](const Client& client, std::string_view) {
        if (client.received > size) throw std::runtime_error("a client got more than was sent");
        return client.received == size;
      },
      kSilenceMs));
}

void Clients::read_to(const std::string& end) {
  for (Client& client : clients) client.tail.clear(), client.is_done = false;
  expect_more(read_until(
      [&end](Client& client, std::string_view piece) {
        client.tail.append(piece.substr(piece.size() - std::min(piece.size(), kTailMax)));
        client.tail.erase(0, client.tail.size() - std::min(client.tail.size(), kTailMax));
        const size_t size = std::min(client.tail.size(), end.size());
        return size == end.size() && client.tail.compare(client.tail.size() - size, size, end) == 0;
      },
      kSilenceMs));
}

bool Clients::try_read_something(int silence_ms) {
  return read_until([](const Client&, std::string_view) { return true; }, silence_ms);
}

void Clients::read_something() {
  expect_more(try_read_something(kSilenceMs));
}

void Clients::read_on() {
  for (Client& client : clients) client.is_done = false;
  for (;;) read_until([](const Client&, std::string_view) { return false; }, kSilenceMs);
}

int free_port() {
  constexpr int kFirst = 10000;
  constexpr int kCount = 20000;
  static int tried = getpid();
  for (int i = 0; i < kCount; ++i) {
    sockaddr_in address = address_of(kFirst + tried++ % kCount);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    const Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
      return ntohs(address.sin_port);
    }
  }
  throw std::runtime_error("no free port");
}

Descriptor try_connect(int port, const char* from, int receive_buffer) {
  Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (receive_buffer > 0) setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
  if (from != nullptr) {
    sockaddr_in own = address_of(0);
    inet_pton(AF_INET, from, &own.sin_addr);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&own), sizeof(own)) != 0) return Descriptor();
  }
  const sockaddr_in address = address_of(port);
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) fd.reset();
  return fd;
}

std::string subscription(const std::string& type_string) {
  const auto length = static_cast<uint32_t>(8 + type_string.size() + 1);
  const uint32_t head[2] = {length, 0};
  std::string packet(reinterpret_cast<const char*>(head), sizeof(head));  // little-endian, as this machine
  return packet.append(type_string.c_str(), type_string.size() + 1);
}

void send_subscription(int fd, const std::string& type_string) {
  const std::string packet = subscription(type_string);
  send(fd, packet.data(), packet.size(), MSG_NOSIGNAL);
}

BareServer::BareServer() : listening(bind_any(own_port)) {
  if (listen(listening.get(), 1024) != 0) throw std::runtime_error("failed to listen");
}

std::vector<Descriptor> BareServer::accept_clients(int count) {
  std::vector<Descriptor> connections;
  while (count-- > 0) {
    connections.emplace_back(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const int on = 1;
    setsockopt(connections.back().get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  return connections;
}
