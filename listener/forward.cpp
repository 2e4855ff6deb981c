// Forwarding: from the script thread to the clients.
//
// A burst spends its time with one send per event and client. So while the event queue has more, packets are gathered,
// and leave together with the last one. A handler may run for long before the next event is forwarded; until then, the
// event_recv thread sends what is gathered, every 50 ms. It is woken once, by the first packet of a burst, and sleeps
// again a second after the last one.
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>

#include "device/event_queue.h"
#include "device/event_source.h"
#include "device/log.h"
#include "listener/client_protocol.h"
#include "listener/manager_listener.h"

namespace {

// A socket with little room is not writable to poll, and may yet take the rest: it is tried at least so often.
constexpr std::chrono::milliseconds kWaitSlice{50};

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
    if (more) note_burst();
    const ClientSet& asking = subscriptions.who_asks_for(event->type_name, clients);
    const EventPacket packet(*event);
    is_in_block = !asking.empty() && add_to_block(packet);
    for (size_t i = 0; i < ClientSet::words_of(clients.size()); ++i) {
      uint64_t concerned = asking.words[i] | (more ? 0 : gathered.words[i]);
      while (concerned != 0) {
        const size_t bit = take_lowest(concerned);
        ListenerClient& client = *clients[i * ClientSet::kWordBits + bit];
        if ((asking.words[i] >> bit & 1) != 0) {
          deliver(client, packet, more);
        } else {
          send_now(client);  // gathered from the events before
        }
        gathered.put(i * ClientSet::kWordBits + bit, client.output.is_due());
      }
    }
    if (!slow.empty()) wait_for_slow();
    if (!is_burst && !block->is_held()) {
      block->clear();
      block->tidy();
    }
  } catch (...) {
    elog(1, "mlistener: unknown error");  // no memory for a large packet
  }
}

// Puts the packet behind those that clients have ranges of. A full block is sent to all of them first; one that is held
// even so, by clients that have no memory for a copy, is left to them.
bool ManagerListener::add_to_block(const EventPacket& packet) {
  if (block->size() + packet.size() > PacketBlock::kMax && block->is_held()) {
    send_gathered();
    if (block->is_held()) {
      auto* const next = new PacketBlock(memory);
      block->leave();
      block = next;
    }
  }
  if (!block->is_held()) block->clear();
  return block->append(packet.data(), packet.size());
}

void ManagerListener::send_gathered() {
  for (size_t i = 0; i < ClientSet::words_of(clients.size()); ++i) {
    uint64_t due = gathered.words[i];
    while (due != 0) send_now(*clients[i * ClientSet::kWordBits + take_lowest(due)]);
  }
}

// The event_recv thread sends what is gathered, from now until the burst is over.
void ManagerListener::note_burst() {
  was_gathered = true;
  if (is_burst) return;
  is_burst = true;
  wake_receiver();
}

void ManagerListener::deliver(ListenerClient& client, const EventPacket& packet, bool more) {
  ClientOutput& output = client.output;
  if (output.owes() || output.waiting() + packet.size() > ClientOutput::kGatherMax) push(client);
  if (output.broken()) return;
  if (output.owes()) return skip(client);
  if (!gather(output, packet)) {  // no memory: what it has leaves first
    push(client);
    if (!output.empty()) owe(client);
    if (output.broken()) return;
    if (output.owes() || !gather(output, packet)) return skip(client);
  }
  if (!more || output.waiting() > ClientOutput::kGatherMax) send_now(client);
}

bool ManagerListener::gather(ClientOutput& output, const EventPacket& packet) {
  return is_in_block ? output.append(*block, block->size() - packet.size(), packet.size())
                     : output.append(packet.data(), packet.size());
}

void ManagerListener::send_now(ListenerClient& client) {
  push(client);
  if (client.output.is_due()) slow.push_back(&client);
}

// Sends what waits for the client, as far as its socket takes it.
void ManagerListener::push(ListenerClient& client) {
  ClientOutput& output = client.output;
  const ClientOutput::Pushed pushed = output.push(client.fd);
  if (!is_burst) output.tidy();
  if (output.gap_over() && !has_untold) {
    has_untold = true;
    wake_receiver();
  }
  if (pushed == ClientOutput::Pushed::ok) return;
  elog(1, "mlistener: failed to send data");
  if (pushed == ClientOutput::Pushed::failed) return wake_receiver();
  shutdown(client.fd, SHUT_RDWR);  // a part of a packet may have gone out; the event_recv thread will find it hung up
}

// Nobody waits for the client any longer; the event_recv thread sends the rest when there is room.
void ManagerListener::owe(ListenerClient& client) {
  client.output.owe();
  wake_receiver();
}

void ManagerListener::skip(ListenerClient& client) {
  if (!client.output.skip()) return;
  if (client.output.owes()) {
    if (const auto left_out = skip_limit.allow()) {
      elog(1, "mlistener: client %d (%s) stopped reading, its events are skipped%s", client.fd,
           PeerText(client.address).text, left_out->text);
    }
    return;
  }
  has_untold = true;
  wake_receiver();
  if (const auto left_out = memory_limit.allow()) {
    elog(1, "mlistener: the clients hold all of listener_memory, an event for client %d (%s) is skipped%s", client.fd,
         PeerText(client.address).text, left_out->text);
  }
}

// Waits for all the slow ones at once: those that read are through after a moment, however many others have stalled,
// and those that have stalled cost the loop one wait together. Without the lock: meanwhile clients come, subscribe and
// go, and the event_recv thread sends as well.
void ManagerListener::wait_for_slow() {
  const Clock::time_point start = Clock::now();
  for (Clock::time_point now = start;;) {
    const Clock::duration longest = settle(start, now);
    if (slow.empty()) return;
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

// Forgets the slow clients that have got all or have gone, and those that nobody waits for any longer at `now`. Returns
// how long the others may be waited for.
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

// The wait from `before` to `now` was for those that are slow.
void ManagerListener::charge(Clock::time_point before, Clock::time_point now) {
  bool strangers = false, known = false;
  for (const ListenerClient* client : slow) (client->is_known(before) ? known : strangers) = true;
  if (strangers) strangers_wait.spend(now - before, now);
  if (known) known_wait.spend(now - before, now);
}

// Sends what clients owe and, if `also_gathered`, what is gathered. Logs one gap that is over, the oldest one: in the
// end each has its turn.
void ManagerListener::send_waiting(bool also_gathered) {
  ListenerClient* again = nullptr;
  int gaps = 0;
  for (const std::unique_ptr<ListenerClient>& client : clients) {
    ClientOutput& output = client->output;
    if (output.owes() || also_gathered) push(*client);
    if (!output.gap_over()) continue;
    ++gaps;
    if (again == nullptr || output.gap_start() < again->output.gap_start()) again = client.get();
  }
  // A gap that cannot be logged yet is logged later, with what has been skipped until then: no event is left out.
  if (again != nullptr && again_limit.allow()) {
    --gaps;
    elog(1, "mlistener: client %d (%s) reads again, %d events skipped", again->fd, PeerText(again->address).text,
         again->output.take_gap());
  }
  has_untold = gaps > 0;
}
