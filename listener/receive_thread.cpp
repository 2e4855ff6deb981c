// The event_recv thread: reads from the clients, takes their subscriptions, and removes those that have gone.
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>

#include "device/log.h"
#include "listener/client_protocol.h"
#include "listener/manager_listener.h"

namespace {

constexpr int kPauseUs = 50 * 1000;  // caps what busy clients can make this thread do
constexpr int kPollMs = 300;
constexpr int kPieceSize = 512;  // bytes read from a client in a pass
constexpr size_t kFirstRoom = 100;

}  // namespace

// What a pass looks at, taken under the lock and used without: records are never freed, and descriptors are closed by
// this thread alone.
struct ManagerListener::PollSet {
  PollSet() {
    entries.reserve(kFirstRoom);
    records.reserve(kFirstRoom);
  }

  void fill(const std::vector<std::unique_ptr<ListenerClient>>& all, const Locked&) {
    entries.clear();
    records.clear();
    for (const std::unique_ptr<ListenerClient>& client : all) {
      const int events = client->output.empty() ? POLLIN : POLLIN | POLLOUT;  // room for the rest ends the poll early
      entries.push_back({client->fd, static_cast<short>(events), 0});
      records.push_back(client.get());
    }
  }

  std::vector<pollfd> entries;
  std::vector<ListenerClient*> records;  // the entries' clients
};

void ManagerListener::receive_loop() {
  PollSet set;
  while (running) {
    try {
      receive_pass(set);
    } catch (...) {
      elog(1, "mlistener: unknown error");
    }
  }
}

void ManagerListener::receive_pass(PollSet& set) {
  usleep(kPauseUs);
  {
    const Locked held(mutex);
    if (clients.empty()) return;
    send_waiting(held);
    set.fill(clients, held);
  }
  const int ready = poll(set.entries.data(), set.entries.size(), kPollMs);
  if (ready < 0) elog(1, "mlistener: poll function failed");
  if (ready <= 0) return;
  for (size_t i = 0; i < set.entries.size(); ++i) {
    const pollfd& entry = set.entries[i];
    ListenerClient& client = *set.records[i];
    const bool closed = (entry.revents & POLLIN) != 0 && !receive(client, entry.fd);
    if ((entry.revents & POLLERR) != 0) elog(1, "mlistener: poll err");
    if (closed || (entry.revents & POLLHUP) != 0) remove_client(client);
  }
}

// Returns false when the peer has closed its end.
bool ManagerListener::receive(ListenerClient& client, int fd) {
  client.make_room(kPieceSize);
  // Poll has seen bytes, or an end; should they be gone again, this thread must not hang here.
  const ssize_t size = recv(fd, client.recv_buf.get() + client.recv_len, kPieceSize, MSG_DONTWAIT);
  if (size <= 0) return size < 0;
  client.recv_len += static_cast<int>(size);
  take_packets(client);
  return true;
}

void ManagerListener::take_packets(ListenerClient& client) {
  for (;;) {
    const ClientPacket packet = next_packet(client.recv_buf.get(), client.recv_len);
    switch (packet.kind) {
      case PacketKind::incomplete:
        return;
      case PacketKind::reset:
        client.recv_len = 0;
        return;
      case PacketKind::bad_end:
        elog(4, "mlistener: recv packet : %d bytes", packet.length);
        [[fallthrough]];
      case PacketKind::bad_length:
        elog(1, "mlistener: broken packet is recevied");
        client.recv_len = 0;
        return;
      case PacketKind::subscription:
        elog(4, "mlistener: recv packet : %d bytes", packet.length);
        set_type_string(client, packet.type_string);
        client.consume(packet.length);
    }
  }
}

void ManagerListener::set_type_string(ListenerClient& client, const char* text) {
  elog(2, "mlistener: type string is set as [%s]", text);
  const size_t size = strlen(text) + 1;
  std::unique_ptr<char[]> copy(new char[size]);
  memcpy(copy.get(), text, size);
  const Locked held(mutex);
  client.subscription.swap(copy);
}

void ManagerListener::remove_client(ListenerClient& client) {
  const Locked held(mutex);
  elog(2, "mlistener: delete client : %d", client.fd);
  const auto found =
      std::find_if(clients.begin(), clients.end(), [&](const auto& item) { return item.get() == &client; });
  client.close();
  free_clients.push_back(std::move(*found));
  clients.erase(found);
}
