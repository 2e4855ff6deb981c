// An endpoint where clients connect: the listener's port at one address, or a Unix socket. It logs what comes of that;
// a port that is in use, and a socket that belongs to somebody else, is tried again for a minute.
//
// The main thread opens it, then the accept thread has it, and at the end the main thread again.
#pragma once

#include <poll.h>
#include <atomic>
#include <cstdint>
#include <string>

#include "device/listener_access.h"
#include "listener/listener_client.h"
#include "util/descriptor.h"
#include "util/owned_socket.h"

class ListenSocket {
 public:
  explicit ListenSocket(ListenEndpoint where);

  // Opens it, at `port` where that matters; 0 lets the kernel choose. Returns whether it is open.
  bool open(int port);

  // When it is to be tried again, by steady_ms(); -1: it is open or has been given up.
  int64_t next_try() const;

  // Tries again when that is due at `now`, and remakes a Unix socket that was removed. `port` as for open().
  void maintain(int port, int64_t now);

  // Closes it, and removes the Unix socket.
  void close();

  // Any thread.
  bool is_open() const { return open_now; }
  const ListenEndpoint endpoint;

  // What poll is to watch: for clients that come, and for changes that are a reason for maintain().
  pollfd clients_entry() const { return {descriptor(), POLLIN, 0}; }
  pollfd changes_entry() const { return {unix_socket.change_descriptor(), POLLIN, 0}; }

  // The port that is open; 0: none.
  int port() const;

  // Accepts a client. Returns its descriptor and sets `peer`; otherwise as sock_accept.
  int accept(Peer& peer) const;

 private:
  int descriptor() const { return endpoint.path.empty() ? tcp.get() : unix_socket.descriptor(); }
  bool open_tcp(int port);
  void try_tcp_again(int port, int64_t now);

  const std::string lock_path;
  const OwnedSocket::Names names;
  OwnedSocket unix_socket;  // unused for a port
  Descriptor tcp;
  int tries_left = 0;        // to open the port, one a second
  int64_t next_tcp_try = 0;  // steady_ms
  std::atomic<bool> open_now{false};
};
