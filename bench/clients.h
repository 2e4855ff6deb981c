// Network clients of the listener, many in one process, that read whatever comes. For the other process of a benchmark.
#pragma once

#include <string>
#include <vector>

#include "util/descriptor.h"

class Clients {
 public:
  // Connects `count` clients to `port` of this machine.
  Clients(int port, int count);

  // Sends the subscription of every client; it takes effect some time later.
  void subscribe(const std::string& type_string);

  // Reads until every client has got exactly `size` bytes, counted from the last call on; throws when none come for a
  // while.
  void read_bytes(size_t size);

  // Reads until the last bytes of what every client has got are `end`.
  void read_to(const std::string& end);

  // Reads until every client has got something.
  void read_something() { read_to(""); }

 private:
  struct Client {
    Descriptor fd;
    size_t received = 0;
    std::string tail;
  };

  template <typename IsDone>
  void read_until(IsDone&& is_done);

  std::vector<Client> clients;
  Descriptor epoll;
};

// A TCP port of this machine that nobody listens on.
int free_port();

// A bare server at a port of its own.
class BareServer {
 public:
  BareServer();
  int port() const { return own_port; }

  // Waits for `count` clients. Returns their connections, which send small pieces at once.
  std::vector<Descriptor> accept_clients(int count);

 private:
  Descriptor listening;
  int own_port;
};
