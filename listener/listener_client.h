// One connected client of the listener. A record is never freed while the listener exists: when its client has gone, it
// serves the next one, so that a stream of short connections allocates nothing after the first ones.
#pragma once

#include <netinet/in.h>
#include <memory>

#include "listener/client_output.h"
#include "listener/subscription.h"

// The address of a client, for log lines: "a.b.c.d:port".
struct PeerText {
  explicit PeerText(const sockaddr_in& peer = {});
  char text[24];
};

struct ListenerClient {
  ListenerClient();

  // Starts over for a new connection: nothing of the one before is left. Takes over `new_fd`.
  void open(int new_fd, const PeerText& peer);

  // Ends the connection. The rest of the record stays for the next open, without the memory that large packets took.
  void close();

  // Makes room for `size` more bytes behind the held ones.
  void make_room(int size);

  // Takes `size` bytes away from the front of the held ones.
  void consume(int size);

  // The event_recv thread's, while the client is connected: what it has sent and the daemon has not consumed.
  std::unique_ptr<char[]> recv_buf;
  int recv_len = 0;
  int recv_cap;

  // Under the listener's lock.
  int fd = 0;  // 0 once closed
  Subscription subscription;
  ClientOutput output;

  // Set by open, constant while connected.
  PeerText address;
};
