// The event_recv thread: reads from the clients, takes their subscriptions, removes those that have gone, and sends
// what the script thread holds back or slow clients owe.
//
// It sleeps until there is something to do. A quiet client is read at once; a client that has just been read waits for
// the next tick, and on average clients cause one pass a tick. So each busy client is read one piece a tick, and no
// number of busy clients makes the thread do more.
#include <linux/sockios.h>
#include <malloc.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <algorithm>

#include "device/log.h"
#include "listener/client_protocol.h"
#include "listener/manager_listener.h"
#include "util/clock.h"

namespace {

constexpr int kTickMs = 50;
constexpr int kPassesSaved = 20;       // passes in a row after a silence
constexpr int kRetryMs = 1000;         // before a "reads again" line over the limit, or memory refused, is tried again
constexpr size_t kPieceSize = 512;     // bytes read from a client in a pass
constexpr int kUnreadMax = 64 * 1024;  // bytes that the system keeps for a client that is gone,
constexpr int kUnreadMs = 5000;        // and for how long when it takes none of them

// Bounds what the system keeps after the close of `fd` for a client that does not read and comes again and again:
// where much waits for it, the connection is reset, else kept for a few seconds instead of two minutes.
void bound_unread(int fd) {
  int unread = 0;
  const linger reset{1, 0};
  setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &kUnreadMs, sizeof(kUnreadMs));  // a failure of these: it is kept
  if (ioctl(fd, SIOCOUTQ, &unread) != 0 || unread <= kUnreadMax) return;
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
}

}  // namespace

// What a pass works on: filled under the lock, used without it. Records are never freed, and only this thread closes
// descriptors.
struct ManagerListener::PollSet {
  std::vector<pollfd> entries;           // the stop, the event of this thread, the clients
  std::vector<ListenerClient*> records;  // the clients of the third entry on
  int64_t tick = 0;                      // of this pass
  int64_t sent_tick = 0;                 // at which gathered output was sent last
  int64_t paid_until_ms = 0;             // the time that the passes so far are worth, at one a tick

  // Accounts for a pass. Returns the milliseconds to wait before the next one.
  int pay() {
    const int64_t now = steady_ms();
    // No more than one tick ahead: passes for clients that give up their places cost the others nothing.
    paid_until_ms = std::clamp(paid_until_ms, now - int64_t{kPassesSaved} * kTickMs, now) + kTickMs;
    return static_cast<int>(std::max<int64_t>(paid_until_ms - now, 0));
  }

  void add(int fd, int events) { entries.push_back({fd, static_cast<short>(events), 0}); }
};

void ManagerListener::receive_loop() {
  PollSet set;
  while (running) {
    try {
      receive_pass(set);
    } catch (...) {
      elog(1, "mlistener: unknown error");
      pause(kTickMs);
    }
  }
}

void ManagerListener::receive_pass(PollSet& set) {
  if (send_due(set)) malloc_trim(0);
  const int timeout_ms = prepare(set);
  const int ready = poll(set.entries.data(), set.entries.size(), timeout_ms);
  if (ready == 0 || !running) return;
  if (ready < 0) elog(1, "mlistener: poll function failed");
  eventfd_t ignored = 0;
  if (ready > 0 && set.entries[1].revents != 0) eventfd_read(receive_event.get(), &ignored);
  for (size_t i = 0; ready > 0 && i < set.records.size(); ++i) {
    const pollfd& entry = set.entries[i + 2];
    ListenerClient& client = *set.records[i];
    const bool closed = (entry.revents & POLLIN) != 0 && !receive(client, entry.fd, set.tick);
    if ((entry.revents & POLLERR) != 0) elog(1, "mlistener: poll err");
    if (closed || (entry.revents & (POLLHUP | POLLRDHUP)) != 0) remove_client(client);
  }
  if (const int wait_ms = set.pay()) rest(wait_ms);
}

// Waits until the stop, or until newcomers wait for the places of clients that were given up; at most so long.
void ManagerListener::rest(int milliseconds) const {
  pollfd wanted[] = {{stop_event.get(), POLLIN, 0}, {leave_event.get(), POLLIN, 0}};
  poll(wanted, std::size(wanted), milliseconds);
  eventfd_t ignored = 0;
  if (wanted[1].revents != 0) eventfd_read(leave_event.get(), &ignored);
}

// Sends what clients owe and, once a tick during a burst, what is gathered. Returns true when the burst is over:
// nothing has been gathered for a while, and the memory that it took can go back.
bool ManagerListener::send_due(PollSet& set) {
  set.tick = steady_ms() / kTickMs;
  const MutexLock lock(mutex);
  const bool is_flush = burst_ticks > 0 && set.tick != set.sent_tick;
  send_waiting(is_flush);
  if (!is_flush) return false;
  set.sent_tick = set.tick;
  if (--burst_ticks > 0) return false;
  for (const auto& client : clients) {
    if (client->output.is_due()) burst_ticks = 1;  // a handler runs on, and the client does not read
    client->output.tidy();
  }
  if (burst_ticks == 0) block->tidy();
  return burst_ticks == 0;
}

// Fills the set. Returns how long the pass may sleep: the milliseconds for poll, -1 for ever.
int ManagerListener::prepare(PollSet& set) {
  const MutexLock lock(mutex);
  set.entries.clear();
  set.records.clear();
  set.add(stop_event.get(), POLLIN);
  set.add(receive_event.get(), POLLIN);
  bool needs_tick = burst_ticks > 0;
  bool needs_retry = false;
  for (const auto& client : clients) {
    const int64_t ticks = set.tick - client->read_tick;
    const bool was_read = client->is_held_off ? ticks * kTickMs < kRetryMs : ticks == 0;
    needs_retry = needs_retry || client->is_held_off;
    needs_tick = needs_tick || (was_read && !client->is_held_off);
    int events = was_read ? 0 : POLLIN;
    if (client->is_held_off) events |= POLLRDHUP;  // the end would be found behind what is not read
    if (client->output.owes()) events |= POLLOUT;
    needs_retry = needs_retry || client->output.gap_over();
    set.add(client->fd, events);
    set.records.push_back(client.get());
  }
  if (needs_tick) return static_cast<int>(std::max<int64_t>((set.tick + 1) * kTickMs - steady_ms(), 0));
  return needs_retry ? kRetryMs : -1;
}

// Returns false when the peer has closed its end.
bool ManagerListener::receive(ListenerClient& client, int fd, int64_t tick) {
  client.read_tick = tick;
  // Room for the whole packet or none: many half packets would leave no memory to complete any of them.
  size_t room = kPieceSize;
  if (!client.recv_buf.reserve(client.awaited + room)) room = std::min(room, client.awaited);
  client.is_held_off = room == 0 || !client.recv_buf.reserve(client.awaited);
  if (client.is_held_off) return true;
  char piece[kPieceSize];
  // Without a wait, although poll has reported bytes: this thread must not block, should they be gone again.
  const ssize_t size = recv(fd, piece, room, MSG_DONTWAIT);
  if (size <= 0) return size < 0;
  client.recv_buf.append(piece, static_cast<size_t>(size));
  take_packets(client);
  client.recv_buf.tidy();
  return true;
}

void ManagerListener::take_packets(ListenerClient& client) {
  ClientBuffer& held = client.recv_buf;
  client.awaited = 0;
  for (;;) {
    const ClientPacket packet = next_packet(held.data(), held.size());
    switch (packet.kind) {
      case PacketKind::incomplete:
        if (packet.length > 0) client.awaited = static_cast<size_t>(packet.length) - held.size();
        return;
      case PacketKind::reset:
        return held.clear();
      case PacketKind::bad_end:
        elog(4, "mlistener: recv packet : %d bytes", packet.length);
        [[fallthrough]];
      case PacketKind::bad_length:
        elog(1, "mlistener: broken packet is recevied");
        return held.clear();
      case PacketKind::subscription:
        elog(4, "mlistener: recv packet : %d bytes", packet.length);
        set_type_string(client, packet.type_string);
        held.consume(static_cast<size_t>(packet.length));
    }
  }
}

void ManagerListener::set_type_string(ListenerClient& client, const char* text) {
  elog(2, "mlistener: type string is set as [%s]", text);
  std::string copy(text);
  const MutexLock lock(mutex);
  if (client.type_string == copy) return;
  client.set_type_string(std::move(copy));
  subscriptions.forget(client.position);
}

void ManagerListener::remove_client(ListenerClient& client) {
  const MutexLock lock(mutex);
  if (!client.peer.is_process) bound_unread(client.fd);
  elog(2, "mlistener: delete client : %d", client.fd);
  shutdown(client.fd, SHUT_RDWR);  // ends the script thread's wait for it, which would keep the connection open
  const size_t position = client.position;
  end_client(client);
  subscriptions.remove(position);
  gathered.remove(position);
  const auto found = clients.begin() + static_cast<std::ptrdiff_t>(position);
  free_clients.push_back(std::move(*found));
  clients.erase(found);
  for (size_t i = position; i < clients.size(); ++i) clients[i]->position = i;
}
