#include "util/descriptor.h"

#include <fcntl.h>
#include <cerrno>

void Descriptor::reset(int owned) {
  if (fd >= 0) {
    const int error = errno;
    close(fd);
    errno = error;
  }
  fd = owned;
}

int above_standard_streams(int fd) {
  if (fd < 0 || fd > 2) return fd;
  const Descriptor low(fd);
  return fcntl(fd, F_DUPFD_CLOEXEC, 3);
}
