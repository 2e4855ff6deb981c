#include "device/host/log_stream.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

#include "util/descriptor.h"

bool LogStream::open(const char* path) {
  // Non-blocking, or a FIFO that nobody reads would hold up the start for ever.
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const int fd = above_standard_streams(::open(path, flags, 0640));
  if (fd < 0) return false;
  output.own(fd);
  return true;
}

bool LogStream::use_standard_error() {
  return output.use(STDERR_FILENO);
}

void LogStream::close() {
  output.close();
  *this = LogStream();
}

bool LogStream::write(std::string text, LogPatience& patience) {
  if (is_torn) text.insert(0, 1, '\n');
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t taken = output.write(text.data() + done, text.size() - done);
    if (taken > 0) {
      done += static_cast<size_t>(taken);
      continue;
    }
    if (taken < 0 && errno == EINTR) continue;
    const bool is_full = taken < 0 && errno == EAGAIN;
    if (is_full && !is_stalled && patience.wait_for(output.descriptor())) continue;
    is_stalled = is_full;
    if (done > 0) is_torn = text[done - 1] != '\n';
    return false;
  }
  is_torn = is_stalled = false;
  return true;
}
