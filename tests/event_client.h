// A client of the listener for tests, written from docs/protocol.md and not from the daemon's code.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <cerrno>
#include <cstdint>
#include <string>

#include "util/descriptor.h"
#include "util/socket.h"
#include "util/unix_socket.h"

class EventClient {
 public:
  struct Event {
    int64_t seconds = 0, microseconds = 0;
    std::string name, info;
  };

  // Connects to the local `port`. With a receive buffer of few bytes a client that does not read stalls soon. `from`
  // and `to` are the last bytes of 127.0.0.x.
  explicit EventClient(int port, int receive_buffer = 0, int from = 1, int to = 1)
      : fd(socket(AF_INET, SOCK_STREAM, 0)) {
    if (receive_buffer > 0) set(SO_RCVBUF, receive_buffer);
    set(SO_RCVTIMEO, timeval{10, 0});
    const auto at = [](int number, int its_port) {
      const in_addr host{htonl(INADDR_LOOPBACK - 1 + static_cast<in_addr_t>(number))};
      return sockaddr_in{AF_INET, htons(static_cast<uint16_t>(its_port)), host, {}};
    };
    const sockaddr_in here = at(from, 0), there = at(to, port);
    const bool is_bound = from == 1 || bind(fd.get(), reinterpret_cast<const sockaddr*>(&here), sizeof(here)) == 0;
    if (!is_bound || connect(fd.get(), reinterpret_cast<const sockaddr*>(&there), sizeof(there)) != 0) leave();
  }

  // Connects to the Unix socket at `path`.
  explicit EventClient(const std::string& path) : fd(unix_stream_socket()) {
    set(SO_RCVTIMEO, timeval{10, 0});
    if (unix_connect(fd.get(), path) != 0) leave();
  }

  bool is_connected() const { return fd.get() >= 0; }

  static std::string integer(int64_t value) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(value >> shift);
    return bytes;
  }
  static std::string subscription(const std::string& type_string) {
    return integer(static_cast<int64_t>(type_string.size()) + 9) + integer(0) + type_string + '\0';
  }

  void send_bytes(const std::string& bytes) { send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }

  // Waits until something has come; false after 10 s.
  bool is_sent_to() { return sock_wait_readable(fd.get(), 10000) == 1; }

  // Reads the next event. False at the end of the connection, and when nothing whole comes within 10 s.
  bool read(Event& event) {
    std::string bytes;
    if (!read_bytes(bytes, 12)) return false;
    const auto length = static_cast<size_t>(number(bytes, 0));
    event = {number(bytes, 4), number(bytes, 8), "", ""};
    if (length < 14 || length > 1 << 20) return false;
    if (!read_bytes(bytes, length - 12) || bytes.back() != '\0') return false;
    event.name = bytes.substr(0, bytes.find('\0'));
    event.info = bytes.substr(event.name.size() + 1);
    event.info.pop_back();
    return event.info.find('\0') == std::string::npos;
  }

  // The info of the next event, or "nothing".
  std::string read_info() {
    Event event;
    return read(event) ? event.info : "nothing";
  }

  // Reads on until the daemon has closed the connection; false when it has not after 10 s of silence.
  bool ended() {
    char rest[4096];
    ssize_t got = 1;
    while (got > 0) got = recv(fd.get(), rest, sizeof(rest), 0);
    return got == 0 || errno == ECONNRESET;
  }

  void stop_sending() { shutdown(fd.get(), SHUT_WR); }

  // Closes the connection; the daemon sees a reset instead of an end when `reset`.
  void leave(bool reset = false) {
    if (reset) set(SO_LINGER, linger{1, 0});
    fd.reset();
  }

 private:
  template <typename Value>
  void set(int option, const Value& value) {
    setsockopt(fd.get(), SOL_SOCKET, option, &value, sizeof(value));
  }

  static int32_t number(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = at + 4; i-- > at;) value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return static_cast<int32_t>(value);
  }

  bool read_bytes(std::string& bytes, size_t size) {
    bytes.resize(size);
    return recv(fd.get(), bytes.data(), size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }

  Descriptor fd;
};
