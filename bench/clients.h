// Network clients of the listener: single connections, and many in one process that read whatever comes.
#pragma once

#include <string>
#include <vector>

#include "util/descriptor.h"

class Clients {
 public:
  // Connects `count` clients to `port` of this machine.
  Clients(int port, int count);

  // Sends the subscription of every client; it takes effect a moment later.
  void subscribe(const std::string& type_string);

  // Subscribes, and returns when all subscriptions have taken effect and nothing is under way to any client.
  // `poster` is a connection to the event socket; `type_name` is posted through it, and must be one of the string.
  void subscribe_now(const std::string& type_string, const std::string& type_name, int poster);

  // Reads until every client has got exactly `size` bytes, counted from the last call on; throws when none come for a
  // while.
  void read_bytes(size_t size);

  // Reads until the last bytes of what every client has got are `end`.
  void read_to(const std::string& end);

  // Reads until every client has got something since it subscribed; false when there is silence for `silence_ms`
  // before.
  bool try_read_something(int silence_ms);
  void read_something();

  // Reads for ever.
  [[noreturn]] void read_on();

 private:
  struct Client {
    Descriptor fd;
    size_t received = 0;
    bool is_done = false;
    std::string tail;
  };

  template <typename IsDone>
  bool read_until(IsDone&& is_done, int silence_ms);

  std::vector<Client> clients;
  Descriptor epoll;
};

// A connection to `port` of this machine, from the address `from` where one is given; -1 when it is refused. A small
// receive buffer makes a client that does not read stall soon.
Descriptor try_connect(int port, const char* from = nullptr, int receive_buffer = 0);

// The packet that subscribes to `type_string`.
std::string subscription(const std::string& type_string);
void send_subscription(int fd, const std::string& type_string);

// A TCP port of this machine that nobody listens on, and that the kernel does not give to others.
int free_port();

// A bare server at a port of its own.
class BareServer {
 public:
  BareServer();
  int port() const { return own_port; }

  // Waits for `count` clients. Returns their connections, which send small pieces at once.
  std::vector<Descriptor> accept_clients(int count);

 private:
  int own_port = 0;
  Descriptor listening;
};
