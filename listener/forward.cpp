// Forwarding: from the script thread to the clients.
//
// A send per event and client is what a burst spends its time with. So while the event queue has more at hand, packets
// are gathered, and leave together with the last one of the row. A handler may run for long before the next event comes
// round; what is held back until then, the event_recv thread sends.
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>

#include "device/event_queue.h"
#include "device/event_source.h"
#include "device/log.h"
#include "listener/client_protocol.h"
#include "listener/manager_listener.h"
#include "util/clock.h"

namespace {

using Clock = ClientOutput::Clock;

constexpr int kWaitSliceMs = 50;  // how late a wait notices that the listener is stopping

bool more_events_wait(const event_item& event) {
  return event.type != EVENT_TYPE_QUIT && event_pending != nullptr && event_pending() > 0;
}

// Sends what waits for the client, as far as its socket takes it.
void push(ListenerClient& client) {
  const ClientOutput::Pushed pushed = client.output.push(client.fd);
  if (pushed == ClientOutput::Pushed::ok) return;
  elog(1, "mlistener: failed to send data");
  // A part of a packet may have gone out. The peer is gone anyway; the event_recv thread will find it hung up.
  if (pushed == ClientOutput::Pushed::broken) shutdown(client.fd, SHUT_RDWR);
}

}  // namespace

void ManagerListener::forward_event(const event_item* event) {
  try {
    const Locked held(mutex);
    if (clients.empty()) return;
    const bool more = more_events_wait(*event);
    const EventPacket packet(*event);
    const uint64_t bit = bit_of(event->type_name, held);
    unfinished.clear();
    for (const std::unique_ptr<ListenerClient>& client : clients) {
      if (client->subscription.asks_for(event->type_name, bit)) {
        deliver(*client, packet, more, held);
      } else if (!more && !client->output.empty()) {
        send_now(*client, held);  // gathered from the events before
      }
    }
    if (!unfinished.empty()) wait_for_unfinished(held);
  } catch (...) {
    elog(1, "mlistener: unknown error");  // no memory for a large packet
  }
}

uint64_t ManagerListener::bit_of(const char* type_name, const Locked&) {
  const TypeTable::Entry type = types.find(type_name);
  if (type.fresh) {
    for (const std::unique_ptr<ListenerClient>& client : clients) client->subscription.forget(type.bit);
  }
  return type.bit;
}

void ManagerListener::deliver(ListenerClient& client, const EventPacket& packet, bool more, const Locked& held) {
  ClientOutput& output = client.output;
  if (output.owes() || output.waiting() + packet.size() > ClientOutput::kGatherMax) push(client);
  if (output.broken()) return;
  if (output.owes()) return skip(client);
  output.append(packet.data(), packet.size());
  if (!more || output.waiting() > ClientOutput::kGatherMax) send_now(client, held);
}

void ManagerListener::skip(ListenerClient& client) {
  if (!client.output.skip()) return;
  if (const auto left_out = skip_limit.allow()) {
    elog(1, "mlistener: client %d (%s) stopped reading, its events are skipped%s", client.fd, client.address.text,
         left_out->text);
  }
}

void ManagerListener::send_now(ListenerClient& client, const Locked&) {
  push(client);
  if (!client.output.empty() && !client.output.owes()) unfinished.push_back(&client);
}

// Waits for all the slow ones at once: those that read are through after a moment, however many others have stalled,
// and those that have stalled cost the loop one wait together.
void ManagerListener::wait_for_unfinished(const Locked&) {
  Clock::time_point now = Clock::now();
  const auto is_settled = [&now](ListenerClient* client) {
    ClientOutput& output = client->output;
    if (!output.empty() && !output.deserves_wait(now)) output.owe();
    return output.empty() || output.owes();
  };
  for (;;) {
    unfinished.erase(std::remove_if(unfinished.begin(), unfinished.end(), is_settled), unfinished.end());
    if (unfinished.empty() || !running) break;
    unfinished_fds.clear();
    for (const ListenerClient* client : unfinished) unfinished_fds.push_back({client->fd, POLLOUT, 0});
    const int ready = poll(unfinished_fds.data(), unfinished_fds.size(), kWaitSliceMs);
    if (ready < 0 && errno != EINTR) break;
    for (size_t i = 0; i < unfinished.size(); ++i) {
      // A socket with little room is not writable to poll, and may yet take the rest.
      if (ready == 0 || unfinished_fds[i].revents != 0) push(*unfinished[i]);
    }
    const Clock::time_point before = now;
    now = Clock::now();
    for (ListenerClient* client : unfinished) client->output.waited(now - before, now);
  }
  for (ListenerClient* client : unfinished) client->output.owe();
}

void ManagerListener::send_waiting(const Locked&) {
  ListenerClient* again = nullptr;  // whose row is the oldest: in the end each has its turn
  for (const std::unique_ptr<ListenerClient>& client : clients) {
    push(*client);
    if (!client->output.row_over()) continue;
    if (again == nullptr || client->output.row_start() < again->output.row_start()) again = client.get();
  }
  if (again != nullptr) say_reads_again(*again);
}

// A row that cannot be told yet is told by a later pass, with what has been skipped until then: no event is left out.
void ManagerListener::say_reads_again(ListenerClient& client) {
  if (!again_limit.allow()) return;
  elog(1, "mlistener: client %d (%s) reads again, %d events skipped", client.fd, client.address.text,
       client.output.take_row());
}
