#include "listener/manager_listener.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <cerrno>

#include "device/settings.h"
#include "device/log.h"
#include "listener/client_protocol.h"
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

}  // namespace

ManagerListener::ManagerListener() : port(SettingsFile().number(settings::listener_port)) {
  // Room for all that there can ever be: moving a record from list to list never fails.
  clients.reserve(kClientMax);
  free_clients.reserve(kClientMax);
  unfinished.reserve(kClientMax);
  unfinished_fds.reserve(kClientMax);
  g_listener = this;
}

ManagerListener::~ManagerListener() {
  g_listener = nullptr;
  stop();
}

int ManagerListener::start() {
  elog(2, "mlistener: ManagerListener start...");
  elog(2, "mlistener: Listener listen port : %d", port);
  const int listening = sock_listen_tcp(port);
  if (listening < 1) {
    elog(1, "mlistener: Failed to create server socket(errno:%d)", errno);
    return -1;
  }
  server_fd = listening;
  if (port == 0) elog(2, "mlistener: listening on port %d", bound_port(server_fd));

  const auto receive_body = [](void* self) -> void* {
    static_cast<ManagerListener*>(self)->receive_loop();
    return nullptr;
  };
  const auto accept_body = [](void* self) -> void* {
    static_cast<ManagerListener*>(self)->accept_loop();
    return nullptr;
  };
  running = true;
  if (start_service_thread(&recv_thread, receive_body, this) != 0) {
    elog(1, "mlistener: failed to run event_recv thread");
  } else if (start_service_thread(&accept_thread, accept_body, this) != 0) {
    elog(1, "mlistener: failed to run accept thread");
  }
  return 1;
}

void ManagerListener::stop() {
  running = false;
  for (pthread_t* thread : {&accept_thread, &recv_thread}) {
    if (*thread != 0) pthread_join(*thread, nullptr);
    *thread = 0;
  }
  if (server_fd > 0) sock_close(server_fd);
  server_fd = 0;

  const Locked held(mutex);  // the script thread may still be forwarding an event
  send_waiting(held);
  for (std::unique_ptr<ListenerClient>& client : clients) {
    client->close();
    free_clients.push_back(std::move(client));
  }
  clients.clear();
}
