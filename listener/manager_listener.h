// The daemon's server of events: any program that connects to its port, or to its Unix socket, and says which event
// types it wants gets a packet for every such event from then on. docs/protocol.md describes the protocol for authors
// of such programs.
//
// Three threads meet here. The accept thread (accept_thread.cpp) adds clients; the event_recv thread
// (receive_thread.cpp) reads what they send, removes those that have gone, and sends what a running handler holds back;
// the script thread forwards events (forward.cpp). All of them sleep on descriptors; at rest none wakes.
//
// No thread holds the lock while it waits. So a record that the script thread waits for may serve another client
// afterwards; then nothing is due to it, since only the script thread adds to its output. While the threads run, only
// the event_recv thread closes a client's descriptor: it polls descriptor numbers, and a number that another thread
// closes could be a new client's by the time it reads.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "listener/client_set.h"
#include "listener/listen_socket.h"
#include "listener/listener_client.h"
#include "listener/listener_status.h"
#include "listener/subscription_cache.h"
#include "listener/wait_budget.h"
#include "util/descriptor.h"
#include "util/mutex.h"
#include "util/rate_limit.h"

struct event_item;
class EventPacket;
class SettingsFile;

class ManagerListener {
 public:
  // Reads the settings "listener_...", and logs what is wrong with them. Throws except_conf when the store file cannot
  // be opened. Main thread.
  ManagerListener();

  // Stops the threads and closes every connection. The script thread must have ended. Main thread.
  ~ManagerListener();

  ManagerListener(const ManagerListener&) = delete;
  ManagerListener& operator=(const ManagerListener&) = delete;

  // Opens the port or whatever listener_address names, and starts the two threads. Returns 1, or -1 when some of it
  // cannot be opened; logs that, and a thread that cannot be started. The accept thread tries again for a minute. Main
  // thread, once.
  int start();

  // Ends the threads and the waits of the script thread at once, sends what is held back as far as the clients take it
  // without a wait, and closes every connection. May be called again, and without start. Main thread.
  void stop();

  // Sends `event` to every client that has subscribed to its type name; while the event queue has more, it may be held
  // back for 50 ms. Waits for slow clients, all of them at once and without the lock, as long as their budgets allow.
  // Logs failures. Script thread.
  void forward_event(const event_item* event);

  // Copies of what is counted, for all clients together and for each one, in the order in which they were accepted. Any
  // thread, while the listener exists; the lock is held no longer than the copy takes.
  ListenerStatus status();
  std::vector<ClientStatus> client_list();

 private:
  using Clock = ClientOutput::Clock;

  struct PollSet;  // the event_recv thread's working arrays

  explicit ManagerListener(SettingsFile&& file);

  // manager_listener.cpp
  void say_who_may_connect() const;
  int wanted_port() const;
  void note_port();
  bool pause(int milliseconds) const;
  void wake_receiver() const;
  void end_client(ListenerClient& client) REQUIRES(mutex);

  // accept_thread.cpp
  void accept_loop();
  void accept_pass(std::vector<pollfd>& wanted);
  int fill(std::vector<pollfd>& wanted) const;
  void maintain(const std::vector<pollfd>& wanted);
  void admit_from(const ListenSocket& socket);
  bool may_connect(const Peer& peer) const;
  void turn_away(Descriptor fd, const Peer& peer);
  bool make_place(const Peer& newcomer);
  ListenerClient* find_victim(const Peer& newcomer) REQUIRES(mutex);
  void give_up(ListenerClient& victim, const PeerText& newcomer) REQUIRES(mutex);
  void bound_send_buffer(int fd, const Peer& peer) const REQUIRES(mutex);
  void add_client(int fd, const Peer& peer);

  // listener_status.cpp
  ListenerStatus counts();
  void add_endpoints(ListenerStatus& status) const;

  // receive_thread.cpp
  void receive_loop();
  void receive_pass(PollSet& set);
  void rest(int milliseconds) const;
  bool send_due(PollSet& set);
  int prepare(PollSet& set);
  bool receive(ListenerClient& client, int fd, int64_t tick);
  void take_packets(ListenerClient& client);
  void set_type_string(ListenerClient& client, const char* text);
  void remove_client(ListenerClient& client);

  // forward.cpp
  void send_gathered() REQUIRES(mutex);
  bool add_to_block(const EventPacket& packet) REQUIRES(mutex);
  void deliver(ListenerClient& client, const EventPacket& packet, bool in_block, bool more) REQUIRES(mutex);
  void skip(ListenerClient& client) REQUIRES(mutex);
  void send_now(ListenerClient& client) REQUIRES(mutex);
  void push(ListenerClient& client) REQUIRES(mutex);
  void owe(ListenerClient& client) REQUIRES(mutex);
  void wait_for_slow() REQUIRES(mutex);
  Clock::duration settle(Clock::time_point start, Clock::time_point now) REQUIRES(mutex);
  void charge(Clock::time_point before, Clock::time_point now) REQUIRES(mutex);
  void send_waiting(bool also_gathered) REQUIRES(mutex);

  // Set by the constructor.
  const int port;
  const std::optional<std::string> address;      // listener_address, as it is written
  const std::optional<AllowedNetworks> allowed;  // listener_allow
  const std::chrono::milliseconds longest_wait;
  ClientMemory memory;
  ClientMemory block_memory{PacketBlock::kMemory};

  Mutex mutex;
  ClientList clients GUARDED_BY(mutex);       // in the order in which they were accepted
  ClientList free_clients GUARDED_BY(mutex);  // a stack
  SubscriptionCache subscriptions GUARDED_BY(mutex);
  PacketBlock* block GUARDED_BY(mutex);         // the packets that clients have ranges of
  ClientSet gathered GUARDED_BY(mutex);         // who may have output that is due; a bit too many does no harm
  int burst_ticks GUARDED_BY(mutex) = 0;        // how often the event_recv thread will send what is gathered
  ListenerStatus counted GUARDED_BY(mutex);     // what is counted here, and the output of clients that have gone
  Clock::duration waited GUARDED_BY(mutex){};   // for slow clients
  WaitBudget strangers_wait GUARDED_BY(mutex);  // for clients younger than a minute
  WaitBudget known_wait GUARDED_BY(mutex);      // for the others
  RateLimit skip_limit GUARDED_BY(mutex);       // of "stopped reading" lines
  RateLimit memory_limit GUARDED_BY(mutex);     // of lines about memory
  RateLimit again_limit GUARDED_BY(mutex);      // of "reads again" lines

  // Script thread, during a wait.
  std::vector<ListenerClient*> slow;  // clients that did not take all at once,
  std::vector<pollfd> slow_fds;       // their descriptors, and stop_event

  // Main thread.
  pthread_t recv_thread = 0;    // 0 when not running
  pthread_t accept_thread = 0;  // likewise

  // Event descriptors, set by start.
  Descriptor stop_event;     // readable from the stop on
  Descriptor receive_event;  // readable when the event_recv thread has something to do,
  Descriptor leave_event;    // and when it is to do it before its next tick

  // Made by the constructor; used by the accept thread while it runs, else by the main thread.
  std::vector<std::unique_ptr<ListenSocket>> sockets;

  // Accept thread.
  RateLimit place_limit;      // of "too many clients" lines
  RateLimit turn_away_limit;  // of lines about listener_allow

  std::atomic<bool> running{false};  // the main thread writes it
  std::atomic<int> open_number{0};   // the port that is open, at one address or more; the user of `sockets` writes it
  std::atomic<uint64_t> denied{0};   // by listener_allow; the accept thread writes it
};

// How many clients there may be, by the descriptor limit. Any thread.
size_t listener_places();

// The one listener, or null: set by its constructor, cleared by its destructor. The main thread writes it; the script
// thread reads it, and ends before the listener does.
extern ManagerListener* g_listener;

// Connections taken since the process started. Accept thread only.
extern int g_accepted_total;
