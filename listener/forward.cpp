// Forwarding: from the script thread to the clients.
//
// In a burst, one send per event and client would take most of the time. So while the event queue has more, packets are
// gathered, and leave together with the last one. A handler may run for long before the next event is forwarded; until
// then, the event_recv thread sends what is gathered every 50 ms. The first packet of a burst wakes it, and it sleeps
// again a second after the last one.
#include <sys/socket.h>
#include <algorithm>
#include <utility>

#include "device/event_queue.h"
#include "device/event_source.h"
#include "device/log.h"
#include "listener/client_protocol.h"
#include "listener/manager_listener.h"

namespace {

// A socket with little room is not writable to poll, but may take a short rest: it is tried at least so often.
constexpr std::chrono::milliseconds kWaitSlice{50};
constexpr int kBurstTicks = 20;  // from the last packet gathered to the end of the burst, a tick every 50 ms

bool more_events_wait(const event_item& event) {
  return event.type != EVENT_TYPE_QUIT && event_pending != nullptr && event_pending() > 0;
}

}  // namespace

void ManagerListener::forward_event(const event_item* event) {
  try {
    const MutexLock lock(mutex);
    if (clients.empty()) return;
    slow.clear();
    const bool more = more_events_wait(*event);
    if (more && std::exchange(burst_ticks, kBurstTicks) == 0) wake_receiver();
    const ClientSet& asking = subscriptions.who_asks_for(event->type_name, clients);
    const EventPacket packet(*event);
    const bool in_block = !asking.empty() && add_to_block(packet);
    for (size_t i = 0; i < ClientSet::words_of(clients.size()); ++i) {
      uint64_t concerned = asking.words[i] | (more ? 0 : gathered.words[i]);
      while (concerned != 0) {
        const size_t bit = take_lowest(concerned);
        ListenerClient& client = *clients[i * ClientSet::kWordBits + bit];
        if ((asking.words[i] >> bit & 1) != 0) {
          deliver(client, packet, in_block, more);
        } else {
          send_now(client);  // gathered from the events before
        }
        gathered.put(i * ClientSet::kWordBits + bit, client.output.is_due());
      }
    }
    if (!slow.empty()) wait_for_slow();
    if (burst_ticks == 0) block->tidy();
  } catch (...) {
    elog(1, "mlistener: unknown error");  // no memory for a large packet
  }
}

// Puts the packet at the end of the block. A full block is sent first; if clients still hold ranges of it, since they
// have no memory for copies, it is left to them. Returns false when there is no memory for the packet.
bool ManagerListener::add_to_block(const EventPacket& packet) {
  if (block->size() + packet.size() > PacketBlock::kMax && block->is_held()) {
    send_gathered();
    if (block->is_held()) {
      auto* const next = new PacketBlock(block_memory);
      block->leave();
      block = next;
    }
  }
  block->clear();
  return block->append(packet.data(), packet.size());
}

void ManagerListener::send_gathered() {
  for (size_t i = 0; i < ClientSet::words_of(clients.size()); ++i) {
    uint64_t due = gathered.words[i];
    while (due != 0) send_now(*clients[i * ClientSet::kWordBits + take_lowest(due)]);
  }
}

// `in_block`: the packet is the last one of the block.
void ManagerListener::deliver(ListenerClient& client, const EventPacket& packet, bool in_block, bool more) {
  ClientOutput& output = client.output;
  const auto gather = [&output, &packet, shared = in_block ? block : nullptr] {
    return shared != nullptr ? output.append_last(*shared, packet.size()) : output.append(packet.data(), packet.size());
  };
  if (output.owes() || output.waiting() + packet.size() > ClientOutput::kGatherMax) push(client);
  if (output.broken()) return;
  if (output.owes()) return skip(client);
  if (!gather()) {  // no memory: what it has leaves first
    push(client);
    if (!output.empty()) owe(client);
    if (output.broken()) return;
    if (output.owes() || !gather()) return skip(client);
  }
  if (!more || output.waiting() > ClientOutput::kGatherMax) send_now(client);
}

void ManagerListener::send_now(ListenerClient& client) {
  push(client);
  if (client.output.is_due()) slow.push_back(&client);
}

// Sends what waits for the client, as far as its socket takes it.
void ManagerListener::push(ListenerClient& client) {
  const ClientOutput::Pushed pushed = client.output.push(client.fd);
  if (burst_ticks == 0) client.output.tidy();
  if (pushed == ClientOutput::Pushed::ok) return;
  wake_receiver();  // to log the gap, to send the rest, or to remove the client
  if (pushed == ClientOutput::Pushed::gap_over) return;
  elog(1, "mlistener: failed to send data");
  if (pushed == ClientOutput::Pushed::broken) shutdown(client.fd, SHUT_RDWR);  // part of a packet may have gone out
}

// The script thread no longer waits for the client; the event_recv thread sends the rest when there is room.
void ManagerListener::owe(ListenerClient& client) {
  client.output.owe();
  wake_receiver();
}

void ManagerListener::skip(ListenerClient& client) {
  if (!client.output.skip()) return;
  if (client.output.owes()) {
    if (const auto left_out = skip_limit.allow()) {
      elog(1, "mlistener: client %d (%s) stopped reading, its events are skipped%s", client.fd,
           PeerText(client.peer).text, left_out->text);
    }
    return;
  }
  wake_receiver();  // to log the gap
  if (const auto left_out = memory_limit.allow()) {
    elog(1, "mlistener: the clients hold all of listener_memory, an event for client %d (%s) is skipped%s", client.fd,
         PeerText(client.peer).text, left_out->text);
  }
}

// Waits for all slow clients at once: those that read are done after a moment, however many others have stalled, and
// those that have stalled cost the loop one wait together. Without the lock: meanwhile clients come, subscribe and go,
// and the event_recv thread sends as well.
void ManagerListener::wait_for_slow() {
  const Clock::time_point start = Clock::now();
  for (Clock::time_point now = start;;) {
    const Clock::duration longest = settle(start, now);
    if (slow.empty()) return;
    if (now == start) ++counted.waits;
    slow_fds.clear();
    for (const ListenerClient* client : slow) slow_fds.push_back({client->fd, POLLOUT, 0});
    slow_fds.push_back({stop_event.get(), POLLIN, 0});
    const auto slice = std::chrono::ceil<std::chrono::milliseconds>(std::min<Clock::duration>(longest, kWaitSlice));
    mutex.unlock();
    const int ready = poll(slow_fds.data(), slow_fds.size(), static_cast<int>(slice.count()));
    mutex.lock();
    const Clock::time_point before = now;
    now = Clock::now();
    charge(before, now);
    for (size_t i = 0; i < slow.size(); ++i) {
      if (ready == 0 || slow_fds[i].revents != 0) push(*slow[i]);
    }
  }
}

// Drops the slow clients that have got everything or have gone, and those that have no wait left at `now`. Returns how
// long to wait for the others.
ManagerListener::Clock::duration ManagerListener::settle(Clock::time_point start, Clock::time_point now) {
  Clock::duration longest = longest_wait - (now - start);
  size_t kept = 0;
  for (ListenerClient* const client : slow) {
    if (!client->output.is_due()) continue;
    const WaitBudget& budget = client->is_known(now) ? known_wait : strangers_wait;
    const Clock::duration left = std::min(budget.left(now), longest_wait - (now - start));
    if (!running || left <= Clock::duration::zero() || !client->output.deserves_wait(now)) {
      owe(*client);
      continue;
    }
    longest = std::min(longest, left);
    slow[kept++] = client;
  }
  slow.resize(kept);
  return longest;
}

// Counts the wait from `before` to `now`, also against the budgets of those that are slow.
void ManagerListener::charge(Clock::time_point before, Clock::time_point now) {
  waited += now - before;
  bool strangers = false;
  bool known = false;
  for (const ListenerClient* client : slow) (client->is_known(before) ? known : strangers) = true;
  if (strangers) strangers_wait.spend(now - before, now);
  if (known) known_wait.spend(now - before, now);
}

// Sends what clients owe and, if `also_gathered`, what is gathered. Logs the oldest gap that is over: in the end each
// has its turn.
void ManagerListener::send_waiting(bool also_gathered) {
  ListenerClient* again = nullptr;
  for (const std::unique_ptr<ListenerClient>& client : clients) {
    ClientOutput& output = client->output;
    if (output.owes() || also_gathered) push(*client);
    if (!output.gap_over()) continue;
    if (again == nullptr || output.gap_start() < again->output.gap_start()) again = client.get();
  }
  // A gap that cannot be logged yet is logged later, with what has been skipped until then: every skip is counted.
  if (again != nullptr && again_limit.allow()) {
    elog(1, "mlistener: client %d (%s) reads again, %d events skipped", again->fd, PeerText(again->peer).text,
         again->output.take_gap());
  }
}
