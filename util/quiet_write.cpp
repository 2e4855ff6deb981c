#include "util/quiet_write.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <string>

#include "util/descriptor.h"

namespace {

bool is_pending(int signal_number) {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, signal_number) == 1;
}

// As write(2). Takes away the SIGPIPE that it raises.
ssize_t write_without_signal(int fd, const char* data, size_t size) {
  sigset_t pipe_only;
  sigset_t before;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_only, &before);
  const bool pending_before = is_pending(SIGPIPE);  // somebody else's: it must stay
  const ssize_t written = write(fd, data, size);
  const int error = errno;
  if (written < 0 && error == EPIPE && !pending_before) {
    const timespec at_once{0, 0};
    while (sigtimedwait(&pipe_only, nullptr, &at_once) == -1 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return written;
}

bool has_room(int fd) {
  pollfd wanted{fd, POLLOUT, 0};
  return poll(&wanted, 1, 0) > 0;
}

}  // namespace

bool write_fully(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written > 0) {
      data += written;
      size -= static_cast<size_t>(written);
    } else if (written < 0 && errno == EAGAIN) {
      pollfd wait{fd, POLLOUT, 0};
      if (poll(&wait, 1, 1000) == 0) return false;
    } else if (written == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

void QuietOutput::use(int fd) {
  *this = QuietOutput();
  output = fd;
  struct stat status {};
  if (fstat(fd, &status) != 0) return;
  is_socket = S_ISSOCK(status.st_mode);
  raises_sigpipe = S_ISFIFO(status.st_mode);
  if (!raises_sigpipe && isatty(fd) == 0) return;
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const int again = above_standard_streams(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  asks_first = again < 0;
  if (asks_first) return;
  output = again;
  is_own = true;
}

void QuietOutput::own(int fd) {
  *this = QuietOutput();
  output = fd;
  is_own = true;
  struct stat status {};
  raises_sigpipe = fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

void QuietOutput::close() {
  if (is_own) ::close(output);
  *this = QuietOutput();
}

ssize_t QuietOutput::write(const char* data, size_t size) const {
  if (is_socket) return send(output, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (asks_first) {
    if (!has_room(output)) {
      errno = EAGAIN;
      return -1;
    }
    size = std::min<size_t>(size, PIPE_BUF);  // a pipe that has room takes as much as this
  }
  return raises_sigpipe ? write_without_signal(output, data, size) : ::write(output, data, size);
}

bool write_quietly(int fd, const char* data, size_t size) {
  QuietOutput output;
  output.use(fd);
  const ssize_t written = output.write(data, size);
  const int error = errno;
  output.close();
  errno = written < 0 ? error : EAGAIN;
  return written == static_cast<ssize_t>(size);
}
