#include "device/service.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "device/host/notify_socket.h"
#include "device/log.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/device_root.h"
#include "util/file_trust.h"
#include "util/mutex.h"
#include "util/quiet_write.h"

namespace {

constexpr char kWatchdogVariable[] = "WATCHDOG_USEC";

enum class State { starting, ready, reloading, ended, stopping };
constexpr const char* kStateNames[] = {"starting", "ready", "reloading", "ended", "stopping"};

struct Service {
  NotifySocket manager;            // opened before the script thread starts, constant afterwards
  int64_t alive_ms = 0;            // likewise: between two messages that the daemon is alive; 0: none is wanted
  int (*owns_socket)() = nullptr;  // likewise; null: no state is kept
  bool is_awake = false;           // script thread: the first SERVICE_ALIVE has come
  int64_t next_alive = 0;          // script thread: in steady_ms

  Mutex mutex;
  State state GUARDED_BY(mutex) = State::starting;
  bool has_ended GUARDED_BY(mutex) = false;  // the event loop; a reload does not bring it back
  long long reloads GUARDED_BY(mutex) = 0;
  bool said_file GUARDED_BY(mutex) = false;
  std::atomic<int> kept_for{0};  // written under mutex: the socket for which the state file is kept; 0: none is
  std::atomic<bool> said_manager{false};  // any thread
};

Service& service() {
  static auto* const the_service = new Service;  // the loop may outlive the static objects of a process that ends
  return *the_service;
}

void tell_manager(Service& s, const char* text) {
  if (!s.manager.is_open() || s.manager.send(text) || s.said_manager.exchange(true)) return;
  elog(1, "service: cannot tell the service manager %s: %s", text, strerrordesc_np(errno));
}

// Everybody may read it, whatever the umask.
bool write_new(const std::string& path, const char* text, size_t size) {
  const Descriptor file(make_fresh_file(AT_FDCWD, path.c_str(), 0644));
  return file.get() >= 0 && fchmod(file.get(), 0644) == 0 && write_fully(file.get(), text, size);
}

// Only the owner of the event socket keeps the state.
void write_state(Service& s) REQUIRES(s.mutex) {
  s.kept_for = s.owns_socket != nullptr ? s.owns_socket() : 0;
  std::string path;
  if (s.kept_for == 0 || !under_device_root(kServiceStatePath, path)) return;
  char text[64];
  const int size =
      snprintf(text, sizeof(text), "%d %s %lld\n", getpid(), kStateNames[static_cast<int>(s.state)], s.reloads);
  const std::string fresh = path + ".new";
  const bool is_written = write_new(fresh, text, static_cast<size_t>(size));
  if (is_written && rename(fresh.c_str(), path.c_str()) == 0) return;
  const int error = errno;
  unlink(path.c_str());  // no state is better than an old one
  if (s.said_file) return;
  s.said_file = true;
  elog(1, "service: cannot write %s (%s): zelvctl cannot tell how a reload ends",
       is_written ? path.c_str() : fresh.c_str(), strerrordesc_np(error));
}

// The manager is told first: a program that waits for the file may ask the manager next.
void change(Service& s, State state, const char* text) REQUIRES(s.mutex) {
  s.state = state;
  tell_manager(s, text);
  write_state(s);
}

void wake_up(Service& s) {
  s.is_awake = true;
  s.next_alive = steady_ms() + s.alive_ms;
  const MutexLock lock(s.mutex);
  if (s.state == State::starting) change(s, State::ready, "READY=1");
}

void begin_start(Service& s) {
  const MutexLock lock(s.mutex);
  write_state(s);
}

void say_alive(Service& s) {
  if (s.owns_socket != nullptr && s.owns_socket() != s.kept_for.load(std::memory_order_relaxed)) {
    const MutexLock lock(s.mutex);
    write_state(s);
  }
  if (s.alive_ms == 0) return;
  const int64_t now = steady_ms();
  if (now < s.next_alive) return;
  s.next_alive = now + s.alive_ms;
  tell_manager(s, "WATCHDOG=1");
}

void begin_reload(Service& s) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  char text[64];
  snprintf(text, sizeof(text), "RELOADING=1\nMONOTONIC_USEC=%lld",
           static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000);
  const MutexLock lock(s.mutex);
  change(s, State::reloading, text);
}

// `text` begins with READY=1: it ends the reload for the manager, also when no event will be handled any more.
void end_reload(Service& s, bool is_done, const char* text) {
  const MutexLock lock(s.mutex);
  if (is_done) ++s.reloads;
  change(s, s.has_ended ? State::ended : State::ready, s.has_ended ? "READY=1\nSTATUS=The event loop has ended" : text);
}

void end_loop(Service& s) {
  const MutexLock lock(s.mutex);
  s.has_ended = true;
  if (s.state == State::ready) change(s, State::ended, "STATUS=The event loop has ended");
}

void begin_stop(Service& s) {
  const MutexLock lock(s.mutex);
  change(s, State::stopping, "STOPPING=1");
}

}  // namespace

extern "C" void service_open(int (*owns_socket)()) {
  Service& s = service();
  s.owns_socket = owns_socket;
  s.manager.open();
  // WATCHDOG_PID does not count: it names the process that the manager started, and the daemon is a child of that.
  if (const char* microseconds = secure_getenv(kWatchdogVariable)) {
    if (s.manager.is_open()) s.alive_ms = strtoll(microseconds, nullptr, 10) / 1000 / 2;
    unsetenv(kWatchdogVariable);  // NOLINT(concurrency-mt-unsafe): no other thread reads the environment yet
  }
}

extern "C" void service_state(int state) {
  Service& s = service();
  switch (state) {
    case SERVICE_ALIVE:
      return s.is_awake ? say_alive(s) : wake_up(s);
    case SERVICE_STARTING:
      return begin_start(s);
    case SERVICE_RELOADING:
      return begin_reload(s);
    case SERVICE_RELOADED:
      return end_reload(s, true, "READY=1\nSTATUS=");
    case SERVICE_RELOAD_FAILED:
      return end_reload(s, false, "READY=1\nSTATUS=The last reload has failed and changed nothing");
    case SERVICE_STOPPING:
      return begin_stop(s);
    case SERVICE_ENDED:
      return end_loop(s);
    default:
      return;
  }
}
