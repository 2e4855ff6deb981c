#include "listener/listener_status.h"

#include "listener/manager_listener.h"

namespace {

enum class State { fresh, subscribed, owing, leaving };
constexpr const char* kStateNames[] = {"new", "subscribed", "owing", "leaving"};

State state_of(const ListenerClient& client) {
  if (client.is_leaving || client.output.broken()) return State::leaving;
  if (client.output.owes()) return State::owing;
  return client.type_string ? State::subscribed : State::fresh;
}

int64_t whole_seconds(std::chrono::steady_clock::duration duration) {
  return std::chrono::duration_cast<std::chrono::seconds>(duration).count();
}

}  // namespace

ListenerStatus ManagerListener::status() {
  ListenerStatus now = counts();
  add_endpoints(now);
  now.port = open_number;
  now.wanted_port = port;
  now.places = listener_places();
  now.denied = denied;
  return now;
}

ListenerStatus ManagerListener::counts() {
  const MutexLock lock(mutex);
  ListenerStatus now = counted;
  now.clients = clients.size();
  for (const auto& client : clients) {
    now.add(client->output.counts());
    const State state = state_of(*client);
    now.subscribed += state == State::subscribed ? 1 : 0;
    now.owing += state == State::owing ? 1 : 0;
    now.leaving += state == State::leaving ? 1 : 0;
  }
  now.waited_us = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(waited).count());
  now.memory = memory.held();
  now.memory_limit = memory.limit;
  return now;
}

void ManagerListener::add_endpoints(ListenerStatus& status) const {
  if (sockets.empty() && parse_listener_address(*address)) status.address = "none";
  for (const auto& socket : sockets) {
    const std::string endpoint = socket->endpoint.text();
    status.address += (status.address.empty() ? "" : ",") + endpoint;
    if (!socket->is_open()) status.not_open += (status.not_open.empty() ? "" : ",") + endpoint;
  }
}

std::vector<ClientStatus> ManagerListener::client_list() {
  std::vector<ClientStatus> list;
  std::vector<Peer> peers;  // made into texts without the lock
  list.reserve(kPositionMax);
  peers.reserve(kPositionMax);
  const auto now = Clock::now();
  {
    const MutexLock lock(mutex);
    for (const auto& client : clients) {
      ClientStatus& copy = list.emplace_back();
      static_cast<OutputCounts&>(copy) = client->output.counts();
      copy.fd = client->fd;
      copy.state = kStateNames[static_cast<int>(state_of(*client))];
      if (client->type_string) copy.subscription = client->type_string->substr(0, ClientStatus::kSubscriptionShown);
      copy.connected_s = whole_seconds(now - client->since);
      copy.bytes_waiting = client->output.waiting();
      if (copy.skips > 0) copy.last_skip_s = whole_seconds(now - client->output.skipped_last());
      peers.push_back(client->peer);
    }
  }
  for (size_t i = 0; i < list.size(); ++i) list[i].address = PeerText(peers[i]).text;
  return list;
}
