// A TCP proxy on loopback that makes trouble between a client and a server: cuts, holds, delays and tears.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "util/clock.h"
#include "util/descriptor.h"

inline sockaddr_in loopback_address(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A socket bound to `port` of 127.0.0.1, 0: one from the kernel. Not listening.
inline Descriptor loopback_socket(int port = 0) {
  Descriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  const sockaddr_in address = loopback_address(port);
  if (bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) made.reset();
  return made;
}

inline int port_of(const Descriptor& socket) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

// Connected to `port` of 127.0.0.1, or none.
inline Descriptor loopback_connection(int port) {
  Descriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = loopback_address(port);
  if (connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) made.reset();
  return made;
}

// Functions may be called from any thread; they hold for the connections of now and later.
class CutProxy {
 public:
  enum class Mode { pass, blackhole };  // blackhole: accepts and holds, nothing goes either way

  explicit CutProxy(int server_port) : server(server_port) {
    listen(listening.get(), 64);
    thread = std::thread([this] {
      while (!ended) step();
    });
  }
  ~CutProxy() {
    ended = true;
    wake_up();
    thread.join();
  }
  CutProxy(const CutProxy&) = delete;
  CutProxy& operator=(const CutProxy&) = delete;

  int port() const { return port_of(listening); }
  void set(Mode wanted) {
    mode = wanted;
    wake_up();
  }
  // Every byte is held for so long, in ms.
  void delay(int wanted_ms) { delay_ms = wanted_ms; }
  // Resets all connections.
  void cut() {
    cuts_wanted = true;
    wake_up();
  }
  // Takes so many further bytes from clients, most likely up to the midst of a packet, and resets the connection that
  // sends more.
  void tear_after(int64_t bytes) { until_torn = bytes; }

  int accepted() const { return connections_made; }

 private:
  struct Piece {
    int64_t due;
    std::string bytes;
  };
  struct Way {
    std::deque<Piece> pieces;
    size_t held = 0;
  };
  struct Pair {
    Descriptor ends[2];  // client, server
    Way ways[2];         // from the client, from the server
    bool dead = false;
  };
  static constexpr size_t kMostHeld = size_t{256} * 1024;

  void wake_up() const {
    const uint64_t one = 1;
    static_cast<void>(!write(wake.get(), &one, sizeof(one)));
  }

  void step() {
    std::vector<pollfd> wanted{{wake.get(), POLLIN, 0}, {listening.get(), POLLIN, 0}};
    const bool passes = mode == Mode::pass;
    const int64_t now = steady_ms();
    int64_t next = now + 60000;
    for (const Pair& pair : pairs) {
      for (const int from : {0, 1}) {
        const bool reads = passes && pair.ways[from].held < kMostHeld;
        const auto& to_send = pair.ways[1 - from].pieces;
        const bool writes = passes && !to_send.empty() && to_send.front().due <= now;
        if (passes && !to_send.empty()) next = std::min(next, to_send.front().due);
        const int interest = (reads ? POLLIN : 0) | (writes ? POLLOUT : 0);
        wanted.push_back({interest != 0 ? pair.ends[from].get() : -1, static_cast<short>(interest), 0});
      }
    }
    poll(wanted.data(), wanted.size(), static_cast<int>(std::max(int64_t{0}, next - now)));
    uint64_t ignored = 0;
    static_cast<void>(!read(wake.get(), &ignored, sizeof(ignored)));
    size_t place = 2;
    for (Pair& pair : pairs) {
      for (const int from : {0, 1}) move_on(pair, from, wanted[place++].revents);
    }
    if (cuts_wanted.exchange(false)) {
      for (Pair& pair : pairs) reset(pair);
    }
    pairs.remove_if([](const Pair& pair) { return pair.dead; });
    if ((wanted[1].revents & POLLIN) != 0) take_client();
  }

  void take_client() {
    Descriptor client(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ++connections_made;
    Descriptor to_server = loopback_connection(server);
    if (to_server.get() < 0) return;  // the client sees its connection closed
    pairs.emplace_back();
    pairs.back().ends[0] = std::move(client);
    pairs.back().ends[1] = std::move(to_server);
  }

  // Reads from one end of a pair, and writes to it.
  void move_on(Pair& pair, int end, short happened) {
    if (pair.dead || happened == 0) return;
    if ((happened & POLLOUT) != 0) {
      Way& way = pair.ways[1 - end];
      std::string& bytes = way.pieces.front().bytes;
      const ssize_t sent = send(pair.ends[end].get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0) return close_both(pair);
      way.held -= static_cast<size_t>(sent);
      bytes.erase(0, static_cast<size_t>(sent));
      if (bytes.empty()) way.pieces.pop_front();
    }
    if ((happened & ~POLLOUT) == 0) return;
    char buffer[16384];
    const int64_t left = end == 0 && until_torn >= 0 ? until_torn.load() : int64_t{sizeof(buffer)};
    const size_t room = std::min(sizeof(buffer), static_cast<size_t>(left));
    const ssize_t got =
        recv(pair.ends[end].get(), buffer, std::max(room, size_t{1}), MSG_DONTWAIT | (room == 0 ? MSG_PEEK : 0));
    if (got <= 0) return close_both(pair);
    if (room == 0) until_torn = -1;
    if (room == 0) return reset(pair);
    if (end == 0 && until_torn >= 0) until_torn -= got;
    pair.ways[end].pieces.push_back({steady_ms() + delay_ms, std::string(buffer, static_cast<size_t>(got))});
    pair.ways[end].held += static_cast<size_t>(got);
  }

  static void close_both(Pair& pair) { pair.dead = true; }
  static void reset(Pair& pair) {
    const linger at_once{1, 0};
    for (const Descriptor& end : pair.ends) setsockopt(end.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    pair.dead = true;
  }

  const int server;
  Descriptor listening = loopback_socket();
  Descriptor wake = wake_up_descriptor();
  std::atomic<bool> ended{false};
  std::atomic<bool> cuts_wanted{false};
  std::atomic<Mode> mode{Mode::pass};
  std::atomic<int> delay_ms{0};
  std::atomic<int64_t> until_torn{-1};
  std::atomic<int> connections_made{0};
  std::list<Pair> pairs;  // of the thread
  std::thread thread;
};
