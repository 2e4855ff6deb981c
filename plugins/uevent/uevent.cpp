// libesuevent.so: the kernel's messages about its devices, as events.
//
//   g++ -std=c++17 -O2 -fPIC -shared -pthread -Wl,-z,now -o libesuevent.so uevent.cpp -ludev
//
// Each kernel device event becomes one event of type 7001 named "uevent":
//
//   action=add&subsystem=block&devpath=/devices/...&name=sda1&devtype=partition&devname=/dev/sda1&major=8&minor=1&...
//
// The first four fields are always there, the others when the kernel sends them. In values, "%", "&" and control
// characters are written as "%" and two hexadecimal digits.
//
// One thread does everything between init and cleanup, so nothing here is locked.

#include <fcntl.h>
#include <libudev.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <zelvind/plugin.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <exception>
#include <string>

namespace {

constexpr int kEventType = 7001;
constexpr int kRetryMs = 100;
constexpr int kReceiveBytes = 4 * 1024 * 1024;  // what the kernel buffers while the daemon's queue is full

struct Property {
  const char* field;
  const char* key;
};

constexpr Property kProperties[] = {
    {"devtype", "DEVTYPE"}, {"devname", "DEVNAME"},     {"major", "MAJOR"},   {"minor", "MINOR"},
    {"driver", "DRIVER"},   {"interface", "INTERFACE"}, {"seqnum", "SEQNUM"},
};

// Set by esource_init before the thread starts, released by esource_cleanup after it has ended. Plain variables: a
// static object with a destructor would be destroyed while the thread runs when the process ends without a clean-up.
udev* g_udev = nullptr;
udev_monitor* g_monitor = nullptr;
int g_stop = -1;  // readable when the thread is to end
pthread_t g_thread;
bool g_thread_started = false;

void append_value(std::string& info, const char* value) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  for (; *value != '\0'; ++value) {
    const auto byte = static_cast<unsigned char>(*value);
    if (byte < 0x20 || byte == 0x7f || byte == '%' || byte == '&') {
      info += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    } else {
      info += *value;
    }
  }
}

void append_field(std::string& info, const char* field, const char* value) {
  if (!info.empty()) info += '&';
  info += field;
  info += '=';
  if (value != nullptr) append_value(info, value);
}

std::string event_info(udev_device* device) {
  std::string info;
  append_field(info, "action", udev_device_get_action(device));
  append_field(info, "subsystem", udev_device_get_subsystem(device));
  append_field(info, "devpath", udev_device_get_devpath(device));
  append_field(info, "name", udev_device_get_sysname(device));
  for (const Property& property : kProperties) {
    const char* const value = udev_device_get_property_value(device, property.key);
    if (value != nullptr) append_field(info, property.field, value);
  }
  return info;
}

// Sleeps until the thread is to end, a message has come (with `monitor_too`) or timeout_ms is over (negative: no
// limit). Returns false when the thread is to end.
bool wait_for(bool monitor_too, int timeout_ms) {
  pollfd fds[2] = {{g_stop, POLLIN, 0}, {monitor_too ? udev_monitor_get_fd(g_monitor) : -1, POLLIN, 0}};
  while (poll(fds, 2, timeout_ms) < 0 && errno == EINTR) {
  }
  return fds[0].revents == 0;
}

// Waits while the queue is full: the kernel buffers what comes meanwhile. Returns false when the thread is to end.
bool post(const std::string& info) {
  while (event_post(kEventType, "uevent", info.c_str()) == -2) {
    if (!wait_for(false, kRetryMs)) return false;
  }
  return true;
}

// The kernel reports that it has dropped events, but not how many. At most one line a second.
void log_loss() {
  static time_t last = -1;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  if (now.tv_sec != last) elog(1, "uevent: kernel events came too fast, some are lost");
  last = now.tv_sec;
}

// Returns false when the thread is to end.
bool pass_on_next() {
  errno = 0;
  udev_device* const device = udev_monitor_receive_device(g_monitor);
  if (device == nullptr) {
    if (errno == ENOBUFS) log_loss();
    return true;
  }
  bool go_on = true;
  try {
    go_on = post(event_info(device));
  } catch (const std::exception& error) {
    elog(1, "uevent: an event is lost - %s", error.what());
  }
  udev_device_unref(device);
  return go_on;
}

void* thread_main(void*) {
  while (wait_for(true, -1) && pass_on_next()) {
  }
  return nullptr;
}

// Moves a descriptor off the numbers of the standard streams, so that what scripts print does not go into it. The
// daemon and the process plug-in repeat these few lines: a plug-in uses nothing of the daemon but its header.
int above_standard_streams(int fd) {
  if (fd < 0 || fd > 2) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  close(fd);
  return moved;
}

// With all signals blocked: the daemon's belong to its main thread. Returns false with errno set.
bool start_thread() {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  errno = pthread_create(&g_thread, nullptr, thread_main, nullptr);
  g_thread_started = errno == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return g_thread_started;
}

// libudev opens the monitor's socket itself. In a daemon that was started without standard streams, their numbers are
// occupied meanwhile, so that the socket gets a higher one.
udev_monitor* new_monitor() {
  int held[3];
  int count = 0;
  while (count < 3) {
    const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd < 0) break;
    held[count++] = fd;
    if (fd > 2) break;
  }
  udev_monitor* const monitor = udev_monitor_new_from_netlink(g_udev, "kernel");
  const int error = errno;
  while (count > 0) close(held[--count]);
  errno = error;
  return monitor;
}

// Listens to the kernel's own messages, which also come on devices without a udev daemon. Returns false on failure.
bool start_monitor() {
  g_udev = udev_new();
  if (g_udev == nullptr) return false;
  g_monitor = new_monitor();
  if (g_monitor == nullptr) return false;
  udev_monitor_set_receive_buffer_size(g_monitor, kReceiveBytes);
  return udev_monitor_enable_receiving(g_monitor) >= 0;
}

}  // namespace

int esource_init() {
  if (event_post == nullptr) {
    elog(1, "uevent: this device's event queue takes no events from plug-ins");
    return -1;
  }
  g_stop = above_standard_streams(eventfd(0, EFD_CLOEXEC));
  if (g_stop >= 0 && start_monitor() && start_thread()) return 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the texts of known error numbers are constants
  elog(1, "uevent: failed to listen to the kernel - %s", strerror(errno));
  return -1;
}

void esource_cleanup() {
  if (g_thread_started) {
    const uint64_t one = 1;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the texts of known error numbers are constants
    if (write(g_stop, &one, sizeof(one)) < 0) elog(1, "uevent: failed to end the thread - %s", strerror(errno));
    pthread_join(g_thread, nullptr);
  }
  udev_monitor_unref(g_monitor);
  udev_unref(g_udev);
  if (g_stop >= 0) close(g_stop);
}
