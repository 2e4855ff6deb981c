#include "ctl/output.h"

#include <poll.h>
#include <cerrno>

#include "ctl/failure.h"

void write_now(FILE* out, const std::string& text) {
  if (fwrite(text.data(), 1, text.size(), out) != text.size() || fflush(out) != 0) {
    fail("failed to write the output: " + error_text(errno));
  }
}

bool wait_to_read(int fd, FILE* out, int wait_ms) {
  pollfd entries[] = {{fd, POLLIN, 0}, {fileno(out), 0, 0}};
  if (poll(entries, 2, wait_ms) < 0 && errno != EINTR) fail("failed to wait for the daemon: " + error_text(errno));
  if (entries[1].revents != 0) fail("failed to write the output: its reader has gone");
  return entries[0].revents != 0;
}
