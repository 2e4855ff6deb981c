#include "listener/manager_listener.h"

#include <sys/eventfd.h>
#include <algorithm>
#include <cerrno>
#include <utility>

#include "device/log.h"
#include "device/settings.h"
#include "util/service_thread.h"
#include "util/socket.h"

ManagerListener* g_listener = nullptr;
int g_accepted_total = 0;

namespace {

// The sockets that listener_address names; none when it is wrong.
std::vector<std::unique_ptr<ListenSocket>> sockets_at(const std::optional<std::string>& address) {
  std::vector<std::unique_ptr<ListenSocket>> sockets;
  auto endpoints = address ? parse_listener_address(*address) : std::vector<ListenEndpoint>(1);
  if (!endpoints) return sockets;
  for (ListenEndpoint& endpoint : *endpoints) sockets.push_back(std::make_unique<ListenSocket>(std::move(endpoint)));
  return sockets;
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
      address(file.written(settings::listener_address)),
      allowed(file.written(settings::listener_allow)),
      longest_wait(file.number(settings::listener_wait_ms)),
      memory(static_cast<size_t>(file.number(settings::listener_memory)) * 1024),
      block(new PacketBlock(block_memory)),
      strangers_wait(longest_wait),
      known_wait(longest_wait),
      sockets(sockets_at(address)) {
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
  say_who_may_connect();
  if (sockets.empty()) return parse_listener_address(*address) ? 1 : -1;
  stop_event = wake_up_descriptor();
  if (stop_event.get() >= 0) receive_event = wake_up_descriptor();
  if (receive_event.get() >= 0) leave_event = wake_up_descriptor();
  if (leave_event.get() < 0) {
    elog(1, "mlistener: Failed to create server socket(errno:%d)", errno);
    return -1;
  }
  bool all_open = true;
  bool is_of_use = false;
  for (const auto& socket : sockets) {
    all_open = socket->open(wanted_port()) && all_open;
    is_of_use = is_of_use || socket->is_open() || socket->next_try() >= 0;
    note_port();
  }
  if (!is_of_use) return -1;
  running = true;
  if (start_service_thread(&recv_thread, thread_body<&ManagerListener::receive_loop>, this) != 0) {
    elog(1, "mlistener: failed to run event_recv thread");
  } else if (start_service_thread(&accept_thread, thread_body<&ManagerListener::accept_loop>, this) != 0) {
    elog(1, "mlistener: failed to run accept thread");
  }
  return all_open ? 1 : -1;
}

void ManagerListener::say_who_may_connect() const {
  if (sockets.empty()) return elog(1, "mlistener: nobody may connect (listener_address)");
  const auto is_local = [](const auto& socket) { return socket->endpoint.is_local(); };
  if (std::all_of(sockets.begin(), sockets.end(), is_local)) {
    elog(1, "mlistener: only this machine may connect (listener_address)");
  }
  if (listener_places() == 0) elog(1, "mlistener: the descriptor limit is too low: no client can connect");
}

// The port at which a socket is to listen: where the kernel chooses, it chooses once for all addresses.
int ManagerListener::wanted_port() const {
  return port != 0 ? port : open_number.load();
}

// To be called when a socket may have been opened.
void ManagerListener::note_port() {
  if (open_number != 0) return;
  for (const auto& socket : sockets) {
    open_number = socket->port();
    if (open_number == 0) continue;
    if (port == 0) elog(2, "mlistener: listening on port %d", open_number.load());
    return;
  }
}

void ManagerListener::stop() {
  running = false;
  if (stop_event.get() >= 0) eventfd_write(stop_event.get(), 1);
  for (pthread_t* thread : {&accept_thread, &recv_thread}) {
    if (*thread != 0) pthread_join(*thread, nullptr);
    *thread = 0;
  }
  for (const auto& socket : sockets) socket->close();
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
