// The accept thread: admits clients, and when there are too many, decides which one gives up its place.
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <unordered_map>
#include <utility>

#include "device/log.h"
#include "listener/manager_listener.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/socket.h"

namespace {

constexpr int kNoDescriptorMs = 300;  // before the next try when descriptors have run out
constexpr int kNoPlaceMs = 1;         // before it is checked again whether a client that was given up has left
constexpr int kDescriptorsForOthers = 320;
constexpr size_t kFewClients = 32;
constexpr int kCrowdSendBuffer = 128 * 1024;  // bytes of packets; the kernel takes twice as much memory

// Whether a client, which was accepted after `other`, gives up its place before that one does.
bool goes_before(const ListenerClient& client, const ListenerClient& other) {
  if (!client.type_string || !other.type_string) return other.type_string.has_value();
  return client.output.owes_since() < other.output.owes_since();
}

// Whether the next accept is likely to fail as well, at once and for the same reason.
bool lasts(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM || error == EBADF;
}

}  // namespace

size_t listener_places() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const size_t for_clients = std::max<rlim_t>(descriptors.rlim_cur, kDescriptorsForOthers) - kDescriptorsForOthers;
  return std::min(for_clients, kClientMax);
}

void ManagerListener::accept_loop() {
  std::vector<pollfd> wanted;
  while (running) {
    try {
      accept_pass(wanted);
    } catch (...) {
      elog(1, "mlistener: unknown error");
    }
  }
}

void ManagerListener::accept_pass(std::vector<pollfd>& wanted) {
  const int timeout_ms = fill(wanted);
  if (poll(wanted.data(), wanted.size(), timeout_ms) < 0) pause(kNoDescriptorMs);
  if (!running) return;
  for (size_t i = 0; i < sockets.size(); ++i) {
    if (wanted[2 * i].revents != 0) admit_from(*sockets[i]);
  }
  maintain(wanted);
}

// Fills in two entries for each socket, and one for the stop. Returns how long poll may wait.
int ManagerListener::fill(std::vector<pollfd>& wanted) const {
  wanted.clear();
  int64_t next = -1;
  for (const auto& socket : sockets) {
    wanted.push_back(socket->clients_entry());
    wanted.push_back(socket->changes_entry());
    const int64_t next_of_this = socket->next_try();
    if (next_of_this >= 0 && (next < 0 || next_of_this < next)) next = next_of_this;
  }
  wanted.push_back({stop_event.get(), POLLIN, 0});
  return next < 0 ? -1 : static_cast<int>(std::max<int64_t>(next - steady_ms(), 0));
}

void ManagerListener::maintain(const std::vector<pollfd>& wanted) {
  const int64_t now = steady_ms();
  for (size_t i = 0; i < sockets.size(); ++i) {
    ListenSocket& socket = *sockets[i];
    if (wanted[2 * i + 1].revents == 0 && socket.next_try() < 0) continue;
    socket.maintain(wanted_port(), now);
    note_port();
  }
}

void ManagerListener::admit_from(const ListenSocket& socket) {
  Peer peer;
  const int accepted = socket.accept(peer);
  if (accepted <= 0) {
    if (accepted < 0 && lasts(errno)) pause(kNoDescriptorMs);
    return;
  }
  Descriptor fd(accepted);
  if (!may_connect(peer)) return turn_away(std::move(fd), peer);
  if (!make_place(peer)) return;
  elog(2, "mlistener: new client : %d - tot:%d", fd.get(), g_accepted_total);
  ++g_accepted_total;
  add_client(fd.get(), peer);
  fd.release();
  wake_receiver();
}

// The mode of a Unix socket decides who may use it.
bool ManagerListener::may_connect(const Peer& peer) const {
  return !allowed || peer.is_process || allowed->has(peer.owner);
}

// Resets the connection: the kernel remembers a closed one for a minute, and strangers may come in great numbers.
void ManagerListener::turn_away(Descriptor fd, const Peer& peer) {
  const linger reset{1, 0};
  setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  fd.reset();
  ++denied;
  if (const auto left_out = turn_away_limit.allow()) {
    elog(1, "mlistener: %s is not in listener_allow and is closed%s", PeerText(peer).text, left_out->text);
  }
}

// Returns false when every client keeps its place, and at the stop.
bool ManagerListener::make_place(const Peer& newcomer) {
  const size_t most = listener_places();
  do {
    {
      const MutexLock lock(mutex);
      if (clients.size() < most) return true;
      const auto is_leaving = [](const auto& client) { return client->is_leaving; };
      const auto leaving = static_cast<size_t>(std::count_if(clients.begin(), clients.end(), is_leaving));
      if (clients.size() - leaving < most) return true;
      if (leaving < kLeavingMax) {
        ListenerClient* const victim = find_victim(newcomer);
        if (victim != nullptr) {
          give_up(*victim, PeerText(newcomer));
          return true;
        }
        ++counted.refused;
        if (const auto left_out = place_limit.allow()) {
          elog(1, "mlistener: too many clients, %s is refused%s", PeerText(newcomer).text, left_out->text);
        }
        return false;
      }
    }
    eventfd_write(leave_event.get(), 1);
  } while (pause(kNoPlaceMs));
  return false;
}

// Of those that have not subscribed or do not read: one of the address, or the user of this machine, with most
// connections, the oldest one that has not subscribed first, then the one that has owed for longest. Null when there is
// none whose address has at least as many connections as the newcomer's: whoever takes up most places gets no more.
ListenerClient* ManagerListener::find_victim(const Peer& newcomer) {
  std::unordered_map<uint64_t, size_t> connections_of;
  for (const auto& client : clients) {
    if (!client->is_leaving) ++connections_of[client->peer.source()];
  }
  ListenerClient* victim = nullptr;
  size_t most = connections_of[newcomer.source()];
  for (const auto& client : clients) {
    const bool is_idle = !client->type_string || client->output.owes();
    const size_t connections = is_idle && !client->is_leaving ? connections_of[client->peer.source()] : 0;
    if (connections < std::max<size_t>(most, 1)) continue;
    if (victim == nullptr || connections > most || goes_before(*client, *victim)) victim = client.get();
    most = connections;
  }
  return victim;
}

// Hangs the victim up; the event_recv thread notices that and removes it.
void ManagerListener::give_up(ListenerClient& victim, const PeerText& newcomer) {
  if (const auto left_out = place_limit.allow()) {
    elog(1, "mlistener: too many clients, client %d (%s) is closed for %s%s", victim.fd, PeerText(victim.peer).text,
         newcomer.text, left_out->text);
  }
  ++counted.given_up;
  victim.is_leaving = true;
  victim.output.give_up();
  shutdown(victim.fd, SHUT_RDWR);
}

// The kernel lets the data for a client that does not read grow to megabytes. That helps one that pauses, but for a
// crowd it comes to more than a gigabyte, and filling that delays events: where many are connected, the next ones get
// little. More does not make bursts faster.
void ManagerListener::bound_send_buffer(int fd, const Peer& peer) const {
  if (peer.is_process || clients.size() < kFewClients) return;
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kCrowdSendBuffer, sizeof(kCrowdSendBuffer));  // failed: served without it
}

void ManagerListener::add_client(int fd, const Peer& peer) {
  const MutexLock lock(mutex);
  bound_send_buffer(fd, peer);
  std::unique_ptr<ListenerClient> client;
  if (free_clients.empty()) {
    client = std::make_unique<ListenerClient>(memory);
  } else {
    client = std::move(free_clients.back());
    free_clients.pop_back();
  }
  client->open(fd, peer);
  client->position = clients.size();
  clients.push_back(std::move(client));
  ++counted.accepted;
}
