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

bool has_room(int fd, int wait_ms) {
  pollfd wanted{fd, POLLOUT, 0};
  return poll(&wanted, 1, wait_ms) > 0;
}

}  // namespace

bool write_fully(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written > 0) {
      data += written;
      size -= static_cast<size_t>(written);
    } else if (written < 0 && errno == EAGAIN) {
      if (!has_room(fd, 1000)) return false;
    } else if (written == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool QuietOutput::use(int fd) {
  *this = QuietOutput();
  output = fd;
  struct stat status {};
  if (fstat(fd, &status) != 0) return true;
  is_socket = S_ISSOCK(status.st_mode);
  raises_sigpipe = S_ISFIFO(status.st_mode);
  const bool is_terminal = isatty(fd) != 0;
  if (!raises_sigpipe && !is_terminal) return true;
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const int again = above_standard_streams(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  is_own = again >= 0;
  is_blocking = again < 0 && !is_terminal;
  if (!is_blocking) output = again;
  return output >= 0;
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
  if (!is_blocking) return write_once(data, size);
  size_t done = 0;
  while (done < size && has_room(output, 0)) {
    const ssize_t taken = write_once(data + done, std::min<size_t>(size - done, PIPE_BUF));
    if (taken <= 0) return done > 0 ? static_cast<ssize_t>(done) : taken;
    done += static_cast<size_t>(taken);
  }
  if (done > 0) return static_cast<ssize_t>(done);
  errno = EAGAIN;
  return -1;
}

ssize_t QuietOutput::write_once(const char* data, size_t size) const {
  return raises_sigpipe ? write_without_signal(output, data, size) : ::write(output, data, size);
}

bool write_quietly(int fd, std::string_view text, int wait_ms) {
  QuietOutput output;
  output.use(fd);
  bool may_wait = wait_ms > 0;
  while (!text.empty()) {
    const ssize_t written = output.write(text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<size_t>(written));
      may_wait = wait_ms > 0;
    } else if (written < 0 && errno == EAGAIN && may_wait && has_room(output.descriptor(), wait_ms)) {
      may_wait = false;  // a terminal may have room for a byte, but none for a line end, which it makes two
    } else if (written == 0 || errno != EINTR) {
      break;
    }
  }
  const int error = errno;
  output.close();
  errno = error;
  return text.empty();
}
