// TCP sockets as the daemon uses them. A result of zero or more is success (a descriptor, a byte count, a flag), a
// negative one is one of the codes below, with the system's reason in errno. Nothing here logs or keeps state; every
// function may be called from any thread. Descriptors made here are close-on-exec and never below 3.
#pragma once

#include <netinet/in.h>

#include <cstdint>

constexpr int SOCK_ERR_SOCKET = -20001;   // creating the socket failed
constexpr int SOCK_ERR_SEND = -20003;     // sending failed; the connection is of no use any more
constexpr int SOCK_ERR_ACCEPT = -20005;   // accepting a connection failed
constexpr int SOCK_ERR_BIND = -20006;     // binding the address failed, or the port is out of range
constexpr int SOCK_ERR_LISTEN = -20007;   // switching the socket to listening failed
constexpr int SOCK_ERR_SELECT = -20008;   // waiting on the descriptor failed
constexpr int SOCK_ERR_SOCKOPT = -20009;  // setting a socket option failed

// Start and end of the layer in the daemon's life: there is nothing to prepare and nothing to release. sock_init
// returns 1.
int sock_init();
void sock_exit();

// Milliseconds of the wall clock in 32 bits. Elapsed time is the unsigned difference of two readings.
uint32_t sock_now_ms();

// Class of the calling thread's errno: -11 EAGAIN, -10 EINPROGRESS, -1 anything else.
int sock_errno_class();

// A TCP socket that listens on `port` (0 lets the kernel choose) of every IPv4 address, or of `address` alone, which is
// in network byte order and may come up later (IP_FREEBIND); with SO_REUSEADDR and the longest backlog that the system
// allows: a client that finds it full tries again only after a second. Returns the descriptor, which the caller closes
// with sock_close, or a code; a port outside 0 to 65535 is SOCK_ERR_BIND with EINVAL.
int sock_listen_tcp(int port, in_addr_t address = INADDR_ANY);

// Waits at most timeout_ms (negative counts as 0) until `fd` can be read. Returns 1 readable, 0 timed out, or
// SOCK_ERR_SELECT.
int sock_wait_readable(int fd, int timeout_ms);

// Accepts a connection that arrives at listening socket `fd` within timeout_ms. Returns its descriptor, which the
// caller closes with sock_close, 0 when none came, or a code. `peer`, unless null, receives the other end's address.
int sock_accept(int fd, sockaddr_in* peer, int timeout_ms);

// Sends `len` bytes, waiting at most timeout_ms in all for a peer that takes them slowly. Returns the number of bytes
// sent, less than `len` when time ran out (with a time-out of 0 nothing is sent), or SOCK_ERR_SEND. A peer that is gone
// raises SIGPIPE as well.
int sock_send_all(int fd, const char* buf, int len, uint32_t timeout_ms);

// Sends what the socket takes without waiting. Returns the number of bytes sent, 0 to `len`, or SOCK_ERR_SEND when none
// were: the next call reports a failure that follows some bytes. A peer that is gone raises SIGPIPE as well.
int sock_send_ready(int fd, const char* buf, int len);

// Closes `fd`.
void sock_close(int fd);
