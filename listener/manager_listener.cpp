#include "listener/manager_listener.h"

#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <cerrno>

#include "device/log.h"
#include "device/settings.h"
#include "util/service_thread.h"
#include "util/socket.h"

ManagerListener* g_listener = nullptr;
int g_accepted_total = 0;

namespace {

int bound_port(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

void set_option(int fd, int level, int option, int value) {
  setsockopt(fd, level, option, &value, sizeof(value));  // a failure does no harm: clients are served without it
}

// Clients' connections inherit these from the listening socket: small packets leave at once, and the kernel hangs up a
// peer that is dead, or takes nothing for two minutes while data waits for it.
void set_client_options(int fd) {
  set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, 20);
  set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 120 * 1000);
}

template <void (ManagerListener::*loop)()>
void* thread_body(void* self) {
  (static_cast<ManagerListener*>(self)->*loop)();
  return nullptr;
}

}  // namespace

ManagerListener::ManagerListener() : ManagerListener(SettingsFile()) {}

ManagerListener::ManagerListener(SettingsFile&& file)
    : port(file.number(settings::listener_port)),
      longest_wait(file.number(settings::listener_wait_ms)),
      memory(static_cast<size_t>(file.number(settings::listener_memory)) * 1024),
      block(new PacketBlock(block_memory)),
      strangers_wait(longest_wait),
      known_wait(longest_wait) {
  // Room for all clients that there can be: moving a record from list to list never fails.
  clients.reserve(kPositionMax);
  free_clients.reserve(kPositionMax);
  slow.reserve(kPositionMax);
  slow_fds.reserve(kPositionMax + 1);
  g_listener = this;
}

ManagerListener::~ManagerListener() {
  g_listener = nullptr;
  stop();
  block->leave();
}

int ManagerListener::start() {
  elog(2, "mlistener: ManagerListener start...");
  elog(2, "mlistener: Listener listen port : %d", port);
  stop_event = wake_up_descriptor();
  if (stop_event.get() >= 0) receive_event = wake_up_descriptor();
  const bool is_open = receive_event.get() >= 0 && open_port();
  if (!is_open) {
    const int error = errno;
    elog(1, "mlistener: Failed to create server socket(errno:%d)", error);
    if (error != EADDRINUSE) return -1;
    elog(1, "mlistener: port %d is in use, trying again for a minute", port);
  }
  running = true;
  if (start_service_thread(&recv_thread, thread_body<&ManagerListener::receive_loop>, this) != 0) {
    elog(1, "mlistener: failed to run event_recv thread");
  } else if (start_service_thread(&accept_thread, thread_body<&ManagerListener::accept_loop>, this) != 0) {
    elog(1, "mlistener: failed to run accept thread");
  }
  return is_open ? 1 : -1;
}

// Returns false, with errno set, when it fails.
bool ManagerListener::open_port() {
  const int listening = sock_listen_tcp(port);
  if (listening < 1) return false;
  set_client_options(listening);
  server_fd = listening;
  open_number = bound_port(server_fd);
  if (port == 0) elog(2, "mlistener: listening on port %d", open_number.load());
  return true;
}

void ManagerListener::stop() {
  running = false;
  if (stop_event.get() >= 0) eventfd_write(stop_event.get(), 1);
  for (pthread_t* thread : {&accept_thread, &recv_thread}) {
    if (*thread != 0) pthread_join(*thread, nullptr);
    *thread = 0;
  }
  if (server_fd > 0) sock_close(server_fd);
  server_fd = 0;
  open_number = 0;

  const MutexLock lock(mutex);  // the script thread may still be forwarding an event
  send_waiting(true);
  for (size_t i = clients.size(); i > 0; --i) subscriptions.remove(i - 1);
  for (std::unique_ptr<ListenerClient>& client : clients) {
    end_client(*client);
    free_clients.push_back(std::move(client));
  }
  clients.clear();
}

void ManagerListener::end_client(ListenerClient& client) {
  counted.add(client.output.counts());
  client.close();
}

// Waits until the stop, at most so long. Returns whether the listener still runs. Accept and event_recv threads.
bool ManagerListener::pause(int milliseconds) const {
  sock_wait_readable(stop_event.get(), milliseconds);
  return running;
}

void ManagerListener::wake_receiver() const {
  eventfd_write(receive_event.get(), 1);
}
