#include "device/host/log_syslog.h"

#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include <cerrno>
#include <ctime>
#include <string>

#include "util/descriptor.h"
#include "util/text.h"
#include "util/unix_socket.h"

namespace {

int priority(int level) {
  if (level <= 1) return LOG_NOTICE;  // errors, but also the notices of a good start and end
  return level == 2 ? LOG_INFO : LOG_DEBUG;
}

// What a record begins with, as the C library writes it.
std::string record_head(int priority_bits, const char* program) {
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  return sstr("<%d>%s %2d %02d:%02d:%02d %s[%d]: ", priority_bits, kMonths[local.tm_mon], local.tm_mday, local.tm_hour,
              local.tm_min, local.tm_sec, program, getpid());
}

}  // namespace

void LogSyslog::open(int facility) {
  is_wanted = true;
  facility_bits = facility << 3;
  connect();
}

void LogSyslog::close() {
  disconnect();
  *this = LogSyslog();
}

void LogSyslog::disconnect() {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

bool LogSyslog::connect() {
  for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
    fd = above_standard_streams(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd < 0) return false;
    is_stream = type == SOCK_STREAM;
    if (unix_connect(fd, _PATH_LOG) == 0) return true;
    const int error = errno;
    disconnect();
    if (error != EPROTOTYPE) return false;
  }
  return false;
}

bool LogSyslog::write(int level, const char* program, std::string_view line, LogPatience& patience) {
  std::string record = record_head(facility_bits | priority(level), program).append(line);
  if (fd < 0 && !connect()) return false;
  if (is_stream) record += '\0';
  if (send_record(record, patience)) return true;
  if (fd >= 0 || !connect()) return false;
  if (is_stream != (record.back() == '\0')) return false;  // another kind of log daemon: the next line is right
  return send_record(record, patience);
}

// Disconnects when the log daemon is gone, or when it has a record without its end.
bool LogSyslog::send_record(std::string_view record, LogPatience& patience) {
  bool is_begun = false;
  while (!record.empty()) {
    const ssize_t taken = send(fd, record.data(), record.size(), MSG_NOSIGNAL);
    if (taken >= 0) {
      record.remove_prefix(static_cast<size_t>(taken));
      is_begun = true;
      continue;
    }
    const int error = errno;
    if (error == EINTR) continue;
    if (error == EAGAIN && !is_stalled && patience.wait_for(fd)) continue;
    is_stalled = error == EAGAIN;
    const bool is_refused = error == EAGAIN || error == EMSGSIZE || error == ENOBUFS || error == ENOMEM;
    if (is_begun || !is_refused) disconnect();
    return false;
  }
  is_stalled = false;
  return true;
}
