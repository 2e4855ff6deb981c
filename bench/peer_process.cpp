#include "bench/peer_process.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <system_error>

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

struct Pair {
  int ends[2];
  Pair() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) fail("socketpair");
  }
};

}  // namespace

void Channel::signal() {
  send_whole(descriptor.get(), "", 1);
}

void Channel::wait() {
  char byte = 0;
  receive_whole(descriptor.get(), &byte, 1);
}

bool Channel::wait_for(int timeout_ms) {
  pollfd waiting{descriptor.get(), POLLIN, 0};
  if (poll(&waiting, 1, timeout_ms) == 0) return false;
  wait();
  return true;
}

void Channel::give(const std::vector<double>& values) {
  const size_t count = values.size();
  send_whole(descriptor.get(), &count, sizeof(count));
  send_whole(descriptor.get(), values.data(), count * sizeof(double));
}

std::vector<double> Channel::receive() {
  size_t count = 0;
  receive_whole(descriptor.get(), &count, sizeof(count));
  std::vector<double> values(count);
  receive_whole(descriptor.get(), values.data(), count * sizeof(double));
  return values;
}

PeerProcess::PeerProcess(const std::function<void(Channel&)>& body) {
  const Pair pair;
  own_end = Channel(pair.ends[0]);
  Channel other_end(pair.ends[1]);
  fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child > 0) {
    pid = child;
    return;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    own_end = Channel();
    body(other_end);
    _exit(0);
  } catch (const std::exception& error) {
    fprintf(stderr, "bench: another process failed: %s\n", error.what());
    _exit(1);
  }
}

PeerProcess::~PeerProcess() {
  if (std::uncaught_exceptions() > 0) end();
  if (pid > 0) waitpid(pid, nullptr, 0);
}

void PeerProcess::end() {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  pid = 0;
}

void send_whole(int fd, const void* bytes, size_t size) {
  const char* next = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t sent = send(fd, next, size, 0);
    if (sent < 0) fail("send");
    next += sent;
    size -= static_cast<size_t>(sent);
  }
}

void receive_whole(int fd, void* bytes, size_t size) {
  if (size == 0) return;
  const ssize_t got = recv(fd, bytes, size, MSG_WAITALL);
  if (got != static_cast<ssize_t>(size)) fail("the other process has ended");
}
