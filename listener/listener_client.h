// One connected client of the listener. A record is never freed while the listener exists: when its client has gone, it
// serves the next one, so that a stream of short connections allocates nothing after the first ones.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "listener/client_buffer.h"
#include "listener/client_output.h"

// Who is at the other end of a connection.
struct Peer {
  bool is_process = false;  // of this machine, over a Unix socket
  uint32_t owner = 0;       // the address, in network byte order, or the process's user
  int number = 0;           // the port or the process

  // Equal for connections of the same owner.
  uint64_t source() const { return (is_process ? uint64_t{1} << 32 : 0) | owner; }
};

// Its name, for log lines: "a.b.c.d:port", or "process P of user U".
struct PeerText {
  explicit PeerText(const Peer& peer);
  char text[48];
};

class ListenerClient {
 public:
  using Clock = std::chrono::steady_clock;

  // `account` must outlive the record.
  explicit ListenerClient(ClientMemory& account) : recv_buf(account), output(account), memory(account) {}
  ListenerClient(const ListenerClient&) = delete;
  ListenerClient& operator=(const ListenerClient&) = delete;
  ~ListenerClient() { set_type_string({}); }

  // Starts over for a new connection, and takes over `new_fd`. The record is new or closed. Accept thread.
  void open(int new_fd, const Peer& other_end);

  // Ends the connection and gives back what it held. The event_recv thread, or the main thread once that has ended.
  void close();

  // Sets what the client asks for from now on; without a value it has not subscribed. The caller tells the listener's
  // SubscriptionCache.
  void set_type_string(std::optional<std::string> text);

  // Whether the client has been connected for a minute: waits for newer ones come out of a budget of their own.
  bool is_known(Clock::time_point now) const { return now - since >= std::chrono::seconds(60); }

  // Event_recv thread, while the client is connected.
  ClientBuffer recv_buf;     // what it has sent and the daemon has not consumed
  int64_t read_tick = -1;    // when it was read last; -1: never
  size_t awaited = 0;        // bytes that its next packet is known to lack
  bool is_held_off = false;  // there was no memory for them

  // Under the listener's lock.
  int fd = 0;               // 0 once closed
  size_t position = 0;      // in the list of clients
  bool is_leaving = false;  // given up for another one; the event_recv thread will remove it
  ClientOutput output;
  std::optional<std::string> type_string;  // set by set_type_string alone

  // Set by open, constant while connected.
  Peer peer;
  Clock::time_point since{};

 private:
  ClientMemory& memory;
};
