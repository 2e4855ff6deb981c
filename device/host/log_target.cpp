#include "device/host/log_target.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "device/last_lines.h"
#include "util/clock.h"
#include "util/quiet_write.h"
#include "util/safe_text.h"
#include "util/service_thread.h"
#include "util/text.h"

namespace {

constexpr char kFilePrefix[] = "file:";

std::string lost_text(uint64_t lines) {
  return sstr("log: %llu lines lost", static_cast<unsigned long long>(lines));
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
  if (repeats != nullptr && !is_finished && leaves_out(level, framed, lines)) return;
  (put(level, framed, lines) ? written : lost).fetch_add(1, std::memory_order_relaxed);
  if (last_lines >= 0 && framed && level <= 1) keep_last(lines);
}

void LogTarget::divert(void (*take)(int level, const char* lines, size_t size)) {
  const MutexLock lock(mutex);
  diverted = take;
}

void LogTarget::finish() {
  const MutexLock lock(mutex);
  is_finished = true;
  if (repeats != nullptr) sum_up(LogRepeats::kNever);
  told_stream_lost();
  told_syslog_lost();
}

void LogTarget::after_fork_in_child() {
  clock_ms = LogRepeats::kNever;
  if (repeats != nullptr) repeats->forget();
  after_fork();
}

log_counts LogTarget::counts() const {
  return {written.load(std::memory_order_relaxed), lost.load(std::memory_order_relaxed),
          repeated.load(std::memory_order_relaxed)};
}

void LogTarget::open_held(int facility, const char* name) {
  stream.close();
  syslog.close();
  stream_lost = syslog_lost = 0;
  copy_text(program, sizeof(program), name);
  choose(facility);
  if (!is_open) find_last_lines();
  if (repeats == nullptr) repeats = new (std::nothrow) LogRepeats;
  is_open = true;
}

void LogTarget::choose(int facility) {
  const char* target = secure_getenv("ELOG_TARGET");
  std::string complaint;
  if (target == nullptr ? isatty(STDERR_FILENO) != 0 : strcmp(target, "stderr") == 0) {
    const bool is_used = stream.use_standard_error();
    if (is_used && target != nullptr) return;
    if (!is_used) complaint = sstr("standard error is a terminal that cannot be opened: %s", strerrordesc_np(errno));
  } else if (target != nullptr && strncmp(target, kFilePrefix, strlen(kFilePrefix)) == 0) {
    const char* const path = target + strlen(kFilePrefix);
    if (stream.open(path)) return;
    complaint = sstr("failed to open '%s' of ELOG_TARGET: %s", path, strerrordesc_np(errno));
  } else if (target != nullptr && strcmp(target, "syslog") != 0) {
    complaint = sstr("ELOG_TARGET is '%s': expected stderr, file:PATH or syslog", target);
  }
  syslog.open(facility);
  if (!complaint.empty()) complain(complaint);
}

// Says once why syslog is used: there, too, when standard error takes nothing.
void LogTarget::complain(const std::string& what) {
  if (std::exchange(complained, true)) return;
  const std::string text = "log: " + escaped(what) + "; using syslog\n";
  if (!write_quietly(STDERR_FILENO, text)) put_in_syslog(1, text);
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

// Tells whether the lines are left out for now. If not, writes what must stand before them.
bool LogTarget::leaves_out(int level, bool framed, std::string_view lines) {
  const int64_t now_ms = steady_tick_ms();
  const bool is_one_line = framed && lines.find('\n') == lines.size() - 1;
  if (!is_one_line) {
    repeats->pass();
  } else if (repeats->leaves_out(level, lines, now_ms)) {
    set_clock();
    return true;
  }
  sum_up(now_ms);
  repeats->wrote();
  return false;
}

// Writes the summaries that are due. Without memory they are lost, and nothing else.
void LogTarget::sum_up(int64_t now_ms) {
  LogRepeats::Summary summary;
  while (repeats->take(now_ms, summary)) {
    try {
      say(summary);
    } catch (const std::exception&) {
      lost.fetch_add(summary.times, std::memory_order_relaxed);
    }
  }
}

// A line that is not the last one any more, or was lost, is repeated before.
void LogTarget::say(LogRepeats::Summary& summary) {
  if (!summary.is_last || stream_lost > 0 || syslog_lost > 0) {
    (put(summary.level, true, summary.line) ? written : lost).fetch_add(1, std::memory_order_relaxed);
    --summary.times;
  }
  if (summary.times == 0) return;
  const auto number = static_cast<unsigned long long>(summary.times);
  const std::string text = sstr("log: last line repeated %llu times\n", number);
  const bool is_taken = put(summary.level, true, text);
  (is_taken ? repeated : lost).fetch_add(summary.times, std::memory_order_relaxed);
}

// What stands in front of a line. A date is good for all lines of its second: the time zone costs as much as the rest.
std::string LogTarget::frame(int level) {
  timeval now{};
  gettimeofday(&now, nullptr);
  if (now.tv_sec != date_second) {
    tm local{};
    localtime_r(&now.tv_sec, &local);
    strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S", &local);
    date_second = now.tv_sec;
  }
  return sstr("%s.%03d %s[%d] <%d> ", date, static_cast<int>(now.tv_usec / 1000), program, getpid(), level);
}

bool LogTarget::put(int level, bool framed, std::string_view lines) {
  const bool in_stream = stream.is_open() && put_in_stream(level, framed, lines);
  const bool in_syslog = syslog.is_open() && put_in_syslog(level, lines);
  return in_stream || in_syslog;
}

// Says how many lines were lost. Returns false when that is still to be said.
bool LogTarget::told_stream_lost() {
  if (stream_lost > 0 && stream.write(frame(1) + lost_text(stream_lost) + '\n', patience)) stream_lost = 0;
  return stream_lost == 0;
}

bool LogTarget::told_syslog_lost() {
  if (syslog_lost > 0 && syslog.write(1, program, lost_text(syslog_lost), patience)) syslog_lost = 0;
  return syslog_lost == 0;
}

bool LogTarget::put_in_stream(int level, bool framed, std::string_view lines) {
  const bool is_told = told_stream_lost();
  std::string text;
  if (framed) text = frame(level);
  text.append(lines);
  if (is_told && stream.write(std::move(text), patience)) return true;
  ++stream_lost;
  return false;
}

bool LogTarget::put_in_syslog(int level, std::string_view lines) {
  bool is_taken = told_syslog_lost();
  while (is_taken && !lines.empty()) is_taken = syslog.write(level, program, take_item(lines, '\n'), patience);
  if (!is_taken) ++syslog_lost;
  return is_taken;
}

// While lines are left out, a thread waits until they are to be summed up: the next line may be hours away. Without it
// the next line does that.
void LogTarget::set_clock() {
  const int64_t due_ms = repeats->due_ms();
  if (due_ms >= clock_ms) return;
  if (clock_ms != LogRepeats::kNever) {
    sem_post(&sooner);
  } else {
    sem_init(&sooner, 0, 0);
    pthread_t thread{};
    if (start_service_thread(&thread, clock_main, this) != 0) return;
    pthread_detach(thread);
  }
  clock_ms = due_ms;
}

void* LogTarget::clock_main(void* target) {
  auto* const log = static_cast<LogTarget*>(target);
  int64_t due_ms = 0;
  while ((due_ms = log->tick()) != LogRepeats::kNever) {
    const timespec due{static_cast<time_t>(due_ms / 1000), static_cast<long>(due_ms % 1000 * 1000000)};
    sem_clockwait(&log->sooner, CLOCK_MONOTONIC, &due);
  }
  return nullptr;
}

// Returns when to call it again.
int64_t LogTarget::tick() {
  const MutexLock lock(mutex);
  sum_up(steady_ms());
  return clock_ms = repeats->due_ms();
}
