// The TCP server of the daemon: any program that connects to its port and says which event types it wants gets a packet
// for every such event from then on. docs/protocol.md is the page for those who write such programs.
//
// Three threads meet here. The accept thread (accept_thread.cpp) adds clients; the event_recv thread
// (receive_thread.cpp) reads what they send, removes those that have gone, and sends what a running handler holds back;
// the script thread forwards events (forward.cpp). All of them sleep on descriptors; at rest none wakes.
//
// Nobody holds the lock while he waits. So a record that the script thread waits for may serve another client
// afterwards; then nothing is due to it, since only the script thread adds to what waits. While the threads run, only
// the event_recv thread closes a client's descriptor: it polls numbers, and a number that is closed elsewhere could be
// another client's by the time it reads.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "listener/client_set.h"
#include "listener/listener_client.h"
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
  // Reads "listener_port", "listener_wait_ms" and "listener_memory". Throws except_conf when the store file cannot be
  // opened. Main thread.
  ManagerListener();

  // Stops the threads and closes every connection. The script thread must have ended. Main thread.
  ~ManagerListener();

  ManagerListener(const ManagerListener&) = delete;
  ManagerListener& operator=(const ManagerListener&) = delete;

  // Opens the port and starts the two threads. Returns 1 (a thread that cannot be started is only logged), or -1 when
  // the port cannot be opened; both are logged here. A port that is in use is tried again for a minute, by the accept
  // thread. Main thread, once.
  int start();

  // Ends the threads and the waits of the script thread at once, sends what was held back as far as the clients take
  // it, closes every connection. May be called again, and without start. Main thread.
  void stop();

  // Sends `event` to every client that has subscribed to its type name; while the event queue has more, it may be held
  // back for 50 ms. Waits for clients that are slow in taking it, all of them at once and without the lock, as long as
  // the budgets allow. Failures are logged. Script thread.
  void forward_event(const event_item* event);

 private:
  using Clock = ClientOutput::Clock;

  struct PollSet;  // the event_recv thread's working arrays

  explicit ManagerListener(SettingsFile&& file);

  // manager_listener.cpp
  bool open_port();
  bool pause(int milliseconds) const;
  void wake_receiver() const;

  // accept_thread.cpp
  void accept_loop();
  void listen_again();
  void accept_pass();
  bool make_place(const PeerText& newcomer);
  bool is_full() REQUIRES(mutex);
  ListenerClient* find_victim() REQUIRES(mutex);
  void give_up(ListenerClient& victim, const PeerText& newcomer) REQUIRES(mutex);
  void add_client(int fd, const sockaddr_in& peer);

  // receive_thread.cpp
  void receive_loop();
  void receive_pass(PollSet& set);
  int prepare(PollSet& set);
  void end_burst() REQUIRES(mutex);
  bool receive(ListenerClient& client, int fd, int64_t tick);
  void take_packets(ListenerClient& client);
  void set_type_string(ListenerClient& client, const char* text);
  void remove_client(ListenerClient& client);

  // forward.cpp
  void send_gathered() REQUIRES(mutex);
  bool add_to_block(const EventPacket& packet) REQUIRES(mutex);
  void deliver(ListenerClient& client, const EventPacket& packet, bool more) REQUIRES(mutex);
  bool gather(ClientOutput& output, const EventPacket& packet) REQUIRES(mutex);
  void skip(ListenerClient& client) REQUIRES(mutex);
  void send_now(ListenerClient& client) REQUIRES(mutex);
  void push(ListenerClient& client) REQUIRES(mutex);
  void owe(ListenerClient& client) REQUIRES(mutex);
  void note_burst() REQUIRES(mutex);
  void wait_for_slow() REQUIRES(mutex);
  Clock::duration settle(Clock::time_point start, Clock::time_point now) REQUIRES(mutex);
  void charge(Clock::time_point before, Clock::time_point now) REQUIRES(mutex);
  void send_waiting(bool also_gathered) REQUIRES(mutex);

  // Set by the constructor.
  const int port;
  const std::chrono::milliseconds longest_wait;
  ClientMemory memory;

  Mutex mutex;
  ClientList clients GUARDED_BY(mutex);       // in the order in which they were accepted
  ClientList free_clients GUARDED_BY(mutex);  // a stack
  size_t leaving GUARDED_BY(mutex) = 0;       // clients that have been given up and not yet removed
  SubscriptionCache subscriptions GUARDED_BY(mutex);
  PacketBlock* block GUARDED_BY(mutex);         // the packets of now, ended by the one that is being delivered
  bool is_in_block GUARDED_BY(mutex) = false;   // which there may have been no memory for
  ClientSet gathered GUARDED_BY(mutex);         // who may have output that is due; a bit too many does no harm
  bool is_burst GUARDED_BY(mutex) = false;      // the event_recv thread sends what is gathered every 50 ms
  bool was_gathered GUARDED_BY(mutex) = false;  // since it did so last
  bool has_untold GUARDED_BY(mutex) = false;    // there are "reads again" lines to write
  WaitBudget strangers_wait GUARDED_BY(mutex);  // of clients younger than a minute
  WaitBudget known_wait GUARDED_BY(mutex);      // of the others
  RateLimit skip_limit GUARDED_BY(mutex);       // the "stopped reading" lines'
  RateLimit memory_limit GUARDED_BY(mutex);     // the lines' about memory
  RateLimit again_limit GUARDED_BY(mutex);      // the "reads again" lines'
  RateLimit place_limit GUARDED_BY(mutex);      // the "too many clients" lines'

  // The script thread's, during a wait.
  std::vector<ListenerClient*> slow;  // clients that did not take all at once,
  std::vector<pollfd> slow_fds;       // their descriptors, and stop_event

  // Main thread only.
  pthread_t recv_thread = 0;    // 0 when not running
  pthread_t accept_thread = 0;  // likewise

  // Set by start. Event descriptors: the first one is readable from the stop on, the second one when the event_recv
  // thread has something to look at.
  Descriptor stop_event;
  Descriptor receive_event;

  // The accept thread's while it runs, else the main thread's.
  int server_fd = 0;    // 0 when none
  int tries_left = 60;  // to open the port, one a second

  // The main thread writes, the others read.
  std::atomic<bool> running{false};
};

// The one listener, or null: set by its constructor, cleared first in its destructor. Main thread writes; the script
// thread reads it and ends before the listener does.
extern ManagerListener* g_listener;

// Connections taken since the process started. Accept thread only.
extern int g_accepted_total;
