// File descriptors: their owner, the guard that keeps ours off the numbers of the standard streams, and wake-ups.
#pragma once

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

// Owns a descriptor, or none (-1). Closing keeps errno. Not thread-safe.
class Descriptor {
 public:
  explicit Descriptor(int owned = -1) : fd(owned) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : fd(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const { return fd; }
  int release() {
    const int released = fd;
    fd = -1;
    return released;
  }
  void reset(int owned = -1) {
    if (fd >= 0) {
      const int error = errno;
      close(fd);
      errno = error;
    }
    fd = owned;
  }

 private:
  int fd;
};

// Moves `fd` to a number of at least 3, close-on-exec, when it is below: a script's print must not go into a socket
// because the daemon was started with its standard streams closed. Returns the descriptor to use, or -1 with errno set
// (then `fd` is closed); -1 is passed through. Any thread.
inline int above_standard_streams(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  const Descriptor low(fd);
  return fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

// A new eventfd, non-blocking and close-on-exec, with which one thread wakes another. Holds -1, with errno set, when
// there is none to be had. Any thread.
inline Descriptor wake_up_descriptor() {
  return Descriptor(above_standard_streams(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
}
