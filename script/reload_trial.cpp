#include "script/reload_trial.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <new>
#include <string_view>

#include "control/loop_stats.h"
#include "device/log.h"
#include "script/manager_script.h"
#include "script/trial_child.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/service_thread.h"
#include "util/text.h"

namespace {

constexpr size_t kLogMost = size_t{64} * 1024;    // bytes of the copy's log lines that are passed on
constexpr size_t kFaultMost = size_t{16} * 1024;  // bytes of what went wrong
constexpr int kGraceMs = 1000;                    // behind the time of the scripts: for the copy to tell how they ended

// What the copy has reported.
class Report {
 public:
  void add(std::string_view bytes) {
    held.append(bytes);
    size_t used = 0;
    TrialRecord head{};
    while (held.size() - used >= sizeof(head)) {
      memcpy(&head, held.data() + used, sizeof(head));
      if (held.size() - used < sizeof(head) + head.size) break;
      take(head, std::string_view(held).substr(used + sizeof(head), head.size));
      used += sizeof(head) + head.size;
    }
    held.erase(0, used);
  }

  bool is_complete() const { return has_passed || has_failed; }

  bool has_passed = false;
  bool has_failed = false;
  std::string fault;
  std::string place;

 private:
  void take(const TrialRecord& head, std::string_view text) {
    switch (head.kind) {
      case TrialRecord::Kind::log:
        return pass_on(head.level, text);
      case TrialRecord::Kind::place:
        place = text;
        return;
      case TrialRecord::Kind::fault:
        fault += text.substr(0, kFaultMost - std::min(kFaultMost, fault.size()));
        return;
      case TrialRecord::Kind::failed:
        has_failed = true;
        return;
      case TrialRecord::Kind::passed:
        has_passed = true;
        return;
    }
  }

  void pass_on(int level, std::string_view lines) {
    if (logged > kLogMost) return;
    logged += lines.size();
    while (!lines.empty()) {
      elog(std::max(level, 2), "mscript: trial: %s", std::string(take_item(lines, '\n')).c_str());
    }
    if (logged > kLogMost) elog(2, "mscript: trial: (further lines are left out)");
  }

  std::string held;  // the beginning of a record
  size_t logged = 0;
};

enum class Ended { by_itself, late, stopped };

// Reads what the copy reports until it ends, its time is over, or the daemon is to end. The run signals are blocked
// outside the wait, so that none falls between the look at the flag and the wait.
Ended read_report(Report& report, int pipe, const ScriptStop& stop, const sigset_t& mask, int64_t until) {
  char bytes[16384];
  for (;;) {
    if (stop.wanted()) return Ended::stopped;
    const int64_t left = until - steady_ms();
    if (left <= 0) return Ended::late;
    pollfd wanted{pipe, POLLIN, 0};
    const int64_t wait_ms = std::min<int64_t>(left, watch_meanwhile());
    const timespec limit{wait_ms / 1000, wait_ms % 1000 * 1000000};
    if (ppoll(&wanted, 1, &limit, &mask) <= 0) continue;
    const ssize_t got = read(pipe, bytes, sizeof(bytes));
    if (got < 0 && errno == EINTR) continue;
    if (got > 0) report.add({bytes, static_cast<size_t>(got)});
    if (got <= 0 || report.is_complete()) return Ended::by_itself;
  }
}

// The copy's process, which does not outlive this object.
class Copy {
 public:
  Copy() = default;
  Copy(const Copy&) = delete;
  Copy& operator=(const Copy&) = delete;
  ~Copy() { end(); }

  // Ends the copy and whatever it may have started. Returns its wait status.
  int end() {
    int status = 0;
    if (process < 0) return status;
    kill(-process, SIGKILL);
    kill(process, SIGKILL);
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    process = -1;
    return status;
  }

  pid_t process = -1;    // -1: there is none
  int64_t began_ns = 0;  // steady_ns
  int64_t held_us = 0;
};

std::string late_text(const Report& report, int limit_ms) {
  const std::string text = sstr("did not return within %g s", limit_ms / 1000.0);
  if (!report.fault.empty()) return text + ": " + report.fault;
  return report.place.empty() ? text : text + ": " + report.place;
}

// An end without a verdict.
std::string end_text(int status) {
  if (WIFSIGNALED(status)) return sstr("the copy that tried it was ended by signal %d", WTERMSIG(status));
  return sstr("the copy that tried it ended with status %d", WEXITSTATUS(status));
}

std::string fault_text(Ended ended, const Report& report, int status, int limit_ms) {
  if (ended == Ended::stopped) return "the daemon is to end";
  if (ended == Ended::late) return late_text(report, limit_ms);
  return report.has_failed ? report.fault : end_text(status);
}

struct Pipe {
  Descriptor reading, writing;
  bool open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    reading.reset(above_standard_streams(ends[0]));
    writing.reset(above_standard_streams(ends[1]));
    return reading.get() >= 0 && writing.get() >= 0;
  }
};

// The device's library does this for its own locks.
void keep_counts_usable_in_copy() {
  const auto before = [] { g_loop_stats.before_fork(); };
  const auto after = [] { g_loop_stats.after_fork(); };
  static const int registered = pthread_atfork(before, after, after);
  (void)registered;
}

// Forks between two passes of the loop. Without a copy, errno is set.
void fork_copy(ManagerScript& script, const Trial& trial, Copy& copy) {
  keep_counts_usable_in_copy();
  script.stop.begin_to_watch();  // as in a reload: a script that never returns keeps the state
  const LuaTurn turn(script.gate, watch_meanwhile);
  const StopsWhenWanted limited(script.stop);
  copy.began_ns = steady_ns();
  copy.process = fork();
  if (copy.process == 0) run_trial(script, trial);
  copy.held_us = (steady_ns() - copy.began_ns) / 1000;
}

void find_verdict(TrialVerdict& verdict, ManagerScript& script, const char* script_path, const char* external_path,
                  int limit_ms) {
  const RunSignalsBlocked blocked;
  Pipe pipe;
  Copy copy;
  if (pipe.open()) {
    fork_copy(script, {script_path, external_path, limit_ms, getpid(), pipe.writing.get()}, copy);
  }
  if (copy.process < 0) {
    verdict.text = sstr("cannot make a copy of the daemon: %s", strerrordesc_np(errno));
    return;
  }
  setpgid(copy.process, copy.process);  // the copy does it too: whichever comes first
  pipe.writing.reset();
  Report report;
  const int64_t over_at = copy.began_ns / 1000000 + limit_ms;
  Ended ended = read_report(report, pipe.reading.get(), script.stop, blocked.mask_before(), over_at + kGraceMs);
  const int status = copy.end();
  const bool is_late = !report.place.empty() || (!report.has_passed && steady_ms() >= over_at);
  if (ended == Ended::by_itself && is_late) ended = Ended::late;
  elog(2, "mscript: the trial of the reload held up events for %.1f ms", static_cast<double>(copy.held_us) / 1000);
  verdict.held_us = copy.held_us;
  verdict.passed = ended == Ended::by_itself && report.has_passed;
  if (!verdict.passed) verdict.text = fault_text(ended, report, status, limit_ms);
}

}  // namespace

TrialVerdict try_reload(ManagerScript& script, const char* script_path, const char* external_path, int limit_ms) {
  TrialVerdict verdict;
  try {
    find_verdict(verdict, script, script_path, external_path, limit_ms);
  } catch (const std::bad_alloc&) {
    verdict.passed = false;
    verdict.text = "no memory";  // short enough to need none
  }
  return verdict;
}
