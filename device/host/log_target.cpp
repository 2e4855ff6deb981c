#include "device/host/log_target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

#include "device/last_lines.h"
#include "util/descriptor.h"
#include "util/quiet_write.h"
#include "util/safe_text.h"
#include "util/text.h"

namespace {

constexpr char kFilePrefix[] = "file:";

// Occupies those of the descriptors 0 to 2 that are free, so that syslog's socket does not become one of them.
class LowNumbersHeld {
 public:
  LowNumbersHeld() {
    Descriptor next(open("/dev/null", O_RDWR | O_CLOEXEC));
    while (next.get() >= 0 && next.get() <= STDERR_FILENO) {
      held[count++].reset(next.release());
      next.reset(open("/dev/null", O_RDWR | O_CLOEXEC));
    }
  }
  bool any() const { return count > 0; }

 private:
  Descriptor held[3];
  int count = 0;
};

std::string frame(int level, const char* program) {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  return sstr("%04d-%02d-%02d %02d:%02d:%02d.%03d %s[%d] <%d> ", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
              local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(now.tv_usec / 1000), program, getpid(),
              level);
}

void say_on_standard_error(const std::string& what) {
  const std::string line = "log: " + escaped(what) + "; using syslog\n";
  write_quietly(STDERR_FILENO, line.data(), line.size());
}

int syslog_priority(int level) {
  if (level <= 1) return LOG_NOTICE;  // errors, but also the notices of a good start and end
  return level == 2 ? LOG_INFO : LOG_DEBUG;
}

}  // namespace

void LogTarget::open(int facility, const char* name) {
  const MutexLock lock(mutex);
  open_held(facility, name);
}

void LogTarget::write(int level, bool framed, std::string_view lines) {
  const MutexLock lock(mutex);
  if (diverted != nullptr) return diverted(level, lines.data(), lines.size());
  if (!is_open) open_held(LOG_DAEMON >> 3, program_invocation_short_name);
  const bool taken = fd >= 0 && write_stream(level, framed, lines);
  if (to_syslog) write_syslog(level, lines);
  (taken || to_syslog ? written : lost).fetch_add(1, std::memory_order_relaxed);
  if (last_lines >= 0 && framed && level <= 1) keep_last(lines);
}

void LogTarget::divert(void (*take)(int level, const char* lines, size_t size)) {
  const MutexLock lock(mutex);
  diverted = take;
}

void LogTarget::open_held(int facility, const char* name) {
  if (fd > STDERR_FILENO) close(fd);
  fd = -1;
  is_regular_file = false;
  to_syslog = false;
  copy_text(program, sizeof(program), name);
  choose();
  if (!is_open) find_last_lines();
  if (to_syslog) {
    const LowNumbersHeld held;
    low_numbers_free = held.any();
    openlog(program, LOG_PID | LOG_NDELAY, facility << 3);
  }
  is_open = true;
}

void LogTarget::choose() {
  const char* target = secure_getenv("ELOG_TARGET");
  if (target == nullptr) {
    to_syslog = true;
    if (isatty(STDERR_FILENO) != 0) fd = STDERR_FILENO;
    return;
  }
  if (strcmp(target, "stderr") == 0) {
    fd = STDERR_FILENO;
    return;
  }
  to_syslog = true;
  if (strcmp(target, "syslog") == 0) return;
  std::string complaint;
  if (strncmp(target, kFilePrefix, strlen(kFilePrefix)) != 0) {
    complaint = sstr("ELOG_TARGET is '%s': expected stderr, file:PATH or syslog", target);
  } else if (open_file(target + strlen(kFilePrefix))) {
    to_syslog = false;
  } else {
    complaint = sstr("failed to open '%s' of ELOG_TARGET: %s", target + strlen(kFilePrefix), strerrordesc_np(errno));
  }
  if (!complaint.empty() && !complained) {
    complained = true;
    say_on_standard_error(complaint);
  }
}

// Programs that scripts start must not get at the file.
void LogTarget::find_last_lines() {
  const char* const number = secure_getenv(kLastLinesVariable);
  if (number == nullptr) return;
  const auto given = static_cast<int>(strtol(number, nullptr, 10));
  unsetenv(kLastLinesVariable);  // NOLINT(concurrency-mt-unsafe): no other thread reads the environment yet
  if (given > STDERR_FILENO && fcntl(given, F_SETFD, FD_CLOEXEC) == 0) last_lines = given;
}

// What cannot be written is missed by nobody but the supervisor's message.
void LogTarget::keep_last(std::string_view lines) {
  char slot[kLastLineSize];
  size_t size = sstr("%u ", ++last_number).copy(slot, sizeof(slot));
  size += lines.substr(0, lines.find('\n')).copy(slot + size, sizeof(slot) - size - 1);
  slot[size++] = '\n';
  const auto place = static_cast<off_t>(last_number % kLastLines * kLastLineSize);
  const ssize_t ignored = pwrite(last_lines, slot, size, place);
  (void)ignored;
}

bool LogTarget::open_file(const char* path) {
  // Without O_NONBLOCK a pipe that nobody reads would hold up the start for ever.
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY;
  fd = above_standard_streams(::open(path, flags | O_NONBLOCK, 0640));
  if (fd < 0) return false;
  fcntl(fd, F_SETFL, flags & ~O_CREAT);
  struct stat status {};
  is_regular_file = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  return true;
}

bool LogTarget::write_stream(int level, bool framed, std::string_view lines) {
  std::string text;
  if (framed) text = frame(level, program);
  text.append(lines);
  return (is_regular_file ? write_fully : write_quietly)(fd, text.data(), text.size());
}

void LogTarget::write_syslog(int level, std::string_view lines) const {
  std::optional<LowNumbersHeld> held;
  if (low_numbers_free) held.emplace();  // the C library makes a new socket when the syslog daemon was restarted
  while (!lines.empty()) {
    const std::string_view line = take_item(lines, '\n');
    syslog(syslog_priority(level), "%.*s", static_cast<int>(line.size()), line.data());
  }
}
