// The accept thread: admits clients, and when there are too many, decides which one gives up its place.
#include <sys/resource.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <unordered_map>

#include "device/log.h"
#include "listener/manager_listener.h"
#include "util/descriptor.h"
#include "util/socket.h"

namespace {

constexpr int kRetryPortMs = 1000;
constexpr int kNoDescriptorMs = 300;  // before the next try when descriptors have run out
constexpr int kNoPlaceMs = 10;        // before it is checked again whether a client that was given up has left
constexpr int kDescriptorsForOthers = 320;

// Whether the next accept is likely to fail as well, at once and for the same reason.
bool lasts(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM || error == EBADF;
}

// How many clients there may be.
size_t places() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const size_t for_clients = std::max<rlim_t>(descriptors.rlim_cur, kDescriptorsForOthers) - kDescriptorsForOthers;
  return std::min(for_clients, kClientMax);
}

}  // namespace

void ManagerListener::accept_loop() {
  while (running && (server_fd > 0 || tries_left > 0)) {
    try {
      if (server_fd > 0) {
        accept_pass();
      } else {
        listen_again();
      }
    } catch (...) {
      elog(1, "mlistener: unknown error");
    }
  }
}

void ManagerListener::listen_again() {
  if (!pause(kRetryPortMs)) return;
  if (open_port()) {
    elog(1, "mlistener: port %d is open now", port);
  } else if (--tries_left == 0) {
    elog(1, "mlistener: port %d cannot be opened (%s): no client can connect until a restart", port,
         strerrordesc_np(errno));
  }
}

void ManagerListener::accept_pass() {
  pollfd wanted[] = {{server_fd, POLLIN, 0}, {stop_event.get(), POLLIN, 0}};
  poll(wanted, 2, -1);
  if (!running) return;
  sockaddr_in from{};
  const int accepted = sock_accept(server_fd, &from, 1);
  if (accepted <= 0) {
    if (accepted < 0 && lasts(errno)) pause(kNoDescriptorMs);
    return;
  }
  Descriptor fd(accepted);
  if (!make_place(PeerText(from))) return;
  elog(2, "mlistener: new client : %d - tot:%d", fd.get(), g_accepted_total);
  ++g_accepted_total;
  add_client(fd.get(), from);
  fd.release();
  wake_receiver();
}

// Returns false when every client keeps its place, and at the stop.
bool ManagerListener::make_place(const PeerText& newcomer) {
  const size_t most = places();
  do {
    {
      const MutexLock lock(mutex);
      if (clients.size() < most) return true;
      const auto is_leaving = [](const auto& client) { return client->is_leaving; };
      const auto leaving = static_cast<size_t>(std::count_if(clients.begin(), clients.end(), is_leaving));
      if (clients.size() - leaving < most) return true;
      if (leaving < kLeavingMax) {
        ListenerClient* const victim = find_victim();
        if (victim != nullptr) {
          give_up(*victim, newcomer);
          return true;
        }
        ++counted.refused;
        if (const auto left_out = place_limit.allow()) {
          elog(1, "mlistener: too many clients, %s is refused%s", newcomer.text, left_out->text);
        }
        return false;
      }
    }
  } while (pause(kNoPlaceMs));
  return false;
}

// Of the address with most connections: the oldest one that has not subscribed, else the one that has owed for longest.
// Null when all of them read what they have asked for.
ListenerClient* ManagerListener::find_victim() {
  std::unordered_map<in_addr_t, size_t> connections_of;
  size_t most = 0;
  for (const auto& client : clients) {
    if (!client->is_leaving) most = std::max(most, ++connections_of[client->address.sin_addr.s_addr]);
  }
  ListenerClient* longest = nullptr;
  for (const auto& client : clients) {
    if (client->is_leaving || connections_of[client->address.sin_addr.s_addr] < most) continue;
    if (!client->type_string) return client.get();
    if (!client->output.owes()) continue;
    if (longest == nullptr || client->output.owes_since() < longest->output.owes_since()) longest = client.get();
  }
  return longest;
}

// Hangs the victim up; the event_recv thread notices that and removes it.
void ManagerListener::give_up(ListenerClient& victim, const PeerText& newcomer) {
  if (const auto left_out = place_limit.allow()) {
    elog(1, "mlistener: too many clients, client %d (%s) is closed for %s%s", victim.fd, PeerText(victim.address).text,
         newcomer.text, left_out->text);
  }
  ++counted.given_up;
  victim.is_leaving = true;
  victim.output.give_up();
  shutdown(victim.fd, SHUT_RDWR);
}

void ManagerListener::add_client(int fd, const sockaddr_in& peer) {
  const MutexLock lock(mutex);
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
