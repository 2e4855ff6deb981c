#include "util/quiet_write.h"

#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace {

bool is_pending(int signal_number) {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, signal_number) == 1;
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

bool write_quietly(int fd, const char* data, size_t size) {
  sigset_t pipe_only;
  sigset_t before;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_only, &before);
  const bool pending_before = is_pending(SIGPIPE);  // somebody else's: it must stay
  const bool done = write_fully(fd, data, size);
  const int error = errno;
  if (!done && error == EPIPE && !pending_before) {
    const timespec at_once{0, 0};
    while (sigtimedwait(&pipe_only, nullptr, &at_once) == -1 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return done;
}
