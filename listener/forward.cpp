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

namespace {

using Clock = ClientOutput::Clock;
using std::chrono::milliseconds;

constexpr milliseconds kWaitMax{3000};  // all that one event may wait for clients
constexpr milliseconds kWaitSlice{50};  // how late a wait notices that the listener is stopping

bool more_events_wait(const event_item& event) {
  return event.type != EVENT_TYPE_QUIT && event_pending != nullptr && event_pending() > 0;
}

bool is_subscribed(const ListenerClient& client, const char* type_name) {
  return client.type_string && match_type_string(client.type_string.get(), type_name) > 0;
}

// Sends what waits for the client, as far as its socket takes it.
void push(ListenerClient& client) {
  if (client.output.push(client.fd)) return;
  elog(1, "mlistener: failed to send data");
  // A part of a packet may have gone out. The peer is gone anyway; the event_recv thread will find it hung up.
  shutdown(client.fd, SHUT_RDWR);
}

}  // namespace

void ManagerListener::forward_event(const event_item* event) {
  try {
    const Locked held(mutex);
    if (clients.empty()) return;
    const bool more = more_events_wait(*event);
    const EventPacket packet(*event);
    unfinished.clear();
    for (const std::unique_ptr<ListenerClient>& client : clients) {
      if (is_subscribed(*client, event->type_name)) {
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

void ManagerListener::deliver(ListenerClient& client, const EventPacket& packet, bool more, const Locked& held) {
  ClientOutput& output = client.output;
  if (output.owes()) push(client);
  if (output.owes()) {
    if (output.skip()) {
      elog(1, "mlistener: client %d (%s) stopped reading, its events are skipped", client.fd, client.address.text);
    }
    return;
  }
  if (output.waiting() + packet.size() > ClientOutput::kGatherMax) push(client);
  output.append(packet.data(), packet.size());
  if (!more || output.waiting() > ClientOutput::kGatherMax) send_now(client, held);
}

void ManagerListener::send_now(ListenerClient& client, const Locked&) {
  push(client);
  if (!client.output.empty() && !client.output.owes()) unfinished.push_back(&client);
}

// Waits for all the slow ones at once: those that read are through after a moment, however many others have stalled,
// and those that have stalled cost the loop one wait together.
void ManagerListener::wait_for_unfinished(const Locked&) {
  const auto deserves_none = [](ListenerClient* client) {
    if (client->output.deserves_wait()) return false;
    client->output.owe();
    return true;
  };
  unfinished.erase(std::remove_if(unfinished.begin(), unfinished.end(), deserves_none), unfinished.end());

  const Clock::time_point deadline = Clock::now() + kWaitMax;
  while (!unfinished.empty() && running) {
    const auto rest = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    if (rest <= milliseconds::zero()) break;
    unfinished_fds.clear();
    for (const ListenerClient* client : unfinished) unfinished_fds.push_back({client->fd, POLLOUT, 0});
    const int ready =
        poll(unfinished_fds.data(), unfinished_fds.size(), static_cast<int>(std::min(rest, kWaitSlice).count()));
    if (ready < 0 && errno != EINTR) break;
    size_t kept = 0;
    for (size_t i = 0; i < unfinished.size(); ++i) {
      ListenerClient& client = *unfinished[i];
      // A socket with little room is not writable to poll, and may yet take the rest.
      if (ready == 0 || unfinished_fds[i].revents != 0) push(client);
      if (!client.output.empty()) unfinished[kept++] = &client;
    }
    unfinished.resize(kept);
  }
  for (ListenerClient* client : unfinished) client->output.owe();
}

void ManagerListener::send_waiting(const Locked&) {
  for (const std::unique_ptr<ListenerClient>& client : clients) {
    if (!client->output.empty()) push(*client);
    const int skipped = client->output.row_over();
    if (skipped == 0) continue;
    elog(1, "mlistener: client %d (%s) reads again, %d events skipped", client->fd, client->address.text, skipped);
  }
}
