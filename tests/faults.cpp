// System calls that fail on demand: linked into a second daemon with the linker's --wrap, which sends the calls of its
// own objects here. The environment variable FAULT says "CALL ERRNO SKIP COUNT": while the file $FAULT_ARMED is there,
// the first SKIP calls of CALL succeed, and the next COUNT fail with ERRNO. The FAULT "clock" has the wall clock set
// back by 30 hours for as long as the file is there.
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

struct Fault {
  Fault() { sscanf(getenv("FAULT"), "%31s %d %d %d", call, &error, &skip, &count); }
  char call[32] = "";
  int error = 0, skip = 0, count = 0;
  std::atomic<int> calls{0};
};

Fault fault;

bool is_armed(const char* call) {
  if (strcmp(fault.call, call) != 0) return false;
  const int error = errno;
  const char* const file = getenv("FAULT_ARMED");
  const bool armed = file != nullptr && access(file, F_OK) == 0;
  errno = error;
  return armed;
}

bool fails(const char* call) {
  if (!is_armed(call)) return false;
  const int number = fault.calls++;
  if (number < fault.skip || number - fault.skip >= fault.count) return false;
  errno = fault.error;
  return true;
}

}  // namespace

#define FALLIBLE(result, name, parameters, arguments)   \
  extern "C" result __real_##name parameters;           \
  extern "C" result __wrap_##name parameters {          \
    return fails(#name) ? -1 : __real_##name arguments; \
  }

FALLIBLE(pid_t, fork, (), ())
FALLIBLE(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
FALLIBLE(int, bind, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
FALLIBLE(int, listen, (int fd, int backlog), (fd, backlog))
FALLIBLE(int, accept4, (int fd, sockaddr* address, socklen_t* size, int flags), (fd, address, size, flags))
FALLIBLE(ssize_t, send, (int fd, const void* bytes, size_t size, int flags), (fd, bytes, size, flags))
FALLIBLE(ssize_t, recv, (int fd, void* bytes, size_t size, int flags), (fd, bytes, size, flags))
FALLIBLE(int, poll, (pollfd * fds, nfds_t count, int timeout_ms), (fds, count, timeout_ms))
FALLIBLE(int, eventfd, (unsigned count, int flags), (count, flags))
FALLIBLE(int, epoll_create1, (int flags), (flags))
FALLIBLE(int, epoll_wait, (int fd, epoll_event* events, int max, int timeout_ms), (fd, events, max, timeout_ms))

extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                                     void* argument) {
  return fails("pthread_create") ? errno : __real_pthread_create(thread, attributes, body, argument);
}

extern "C" {
int __real_clock_gettime(clockid_t, timespec*);

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  const int result = __real_clock_gettime(clock, now);
  if (clock == CLOCK_REALTIME && is_armed("clock")) now->tv_sec -= 108000;
  return result;
}

int __wrap_gettimeofday(timeval* now, void*) {
  timespec precise{};
  const int result = __wrap_clock_gettime(CLOCK_REALTIME, &precise);
  *now = {precise.tv_sec, precise.tv_nsec / 1000};
  return result;
}

time_t __wrap_time(time_t*) {
  timespec precise{};
  __wrap_clock_gettime(CLOCK_REALTIME, &precise);
  return precise.tv_sec;
}
}
