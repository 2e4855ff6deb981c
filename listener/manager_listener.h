// The TCP server of the daemon: any program that connects to its port and says which event types it wants gets a packet
// for every such event from then on. docs/protocol.md is the page for those who write such programs.
//
// Three threads meet here. The accept thread (accept_thread.cpp) adds clients; the event_recv thread
// (receive_thread.cpp) reads what they send, removes those that have gone, and sends what a running handler holds back;
// the script thread forwards events (forward.cpp). While they run, only the event_recv thread closes a client's
// descriptor: it polls numbers, and a number that is closed elsewhere could be another client's by the time it reads.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <atomic>
#include <memory>
#include <vector>

#include "listener/listener_client.h"
#include "listener/lock.h"
#include "listener/type_table.h"
#include "util/rate_limit.h"

struct event_item;
class EventPacket;

class ManagerListener {
 public:
  // Reads "listener_port". Throws except_conf when the store file cannot be opened.
  ManagerListener();

  // Stops the threads and closes every connection. The script thread must have ended.
  ~ManagerListener();

  ManagerListener(const ManagerListener&) = delete;
  ManagerListener& operator=(const ManagerListener&) = delete;

  // Opens the port and starts the two threads. Returns 1 (a thread that cannot be started is only logged), or -1 when
  // the port cannot be opened; both are logged here. Main thread.
  int start();

  // Ends the threads, sends what was held back and takes no wait for it, closes every connection: within 3.5 s, also
  // while the script thread is forwarding. May be called again, and without start. Main thread.
  void stop();

  // Sends `event` to every client that has subscribed to its type name; while the event queue has more, it may be held
  // back for the event_recv thread's pass of at most some 350 ms. Waits for clients that are slow in taking it, all of
  // them at once, and for each of them 3000 ms a minute at most. Failures are logged. Script thread.
  void forward_event(const event_item* event);

 private:
  static constexpr int kClientMax = 1000;

  struct PollSet;  // the event_recv thread's working arrays

  // accept_thread.cpp
  void accept_loop();
  void accept_pass();
  bool is_full();
  void say_refused(const PeerText& peer);
  void add_client(int fd, const PeerText& peer);

  // receive_thread.cpp
  void receive_loop();
  void receive_pass(PollSet& set);
  bool receive(ListenerClient& client, int fd);
  void take_packets(ListenerClient& client);
  void set_type_string(ListenerClient& client, const char* text);
  void remove_client(ListenerClient& client);

  // forward.cpp
  uint64_t bit_of(const char* type_name, const Locked& held);
  void deliver(ListenerClient& client, const EventPacket& packet, bool more, const Locked& held);
  void send_now(ListenerClient& client, const Locked& held);
  void wait_for_unfinished(const Locked& held);
  void skip(ListenerClient& client);
  void send_waiting(const Locked& held);
  void say_reads_again(ListenerClient& client);

  // Under mutex.
  ListenerMutex mutex;
  std::vector<std::unique_ptr<ListenerClient>> clients;       // in the order in which they were accepted
  std::vector<std::unique_ptr<ListenerClient>> free_clients;  // a stack
  std::vector<ListenerClient*> unfinished;                    // forward_event's: sends that came back short,
  std::vector<pollfd> unfinished_fds;                         // and their descriptors
  TypeTable types;                                            // forward_event's
  RateLimit skip_limit;                                       // the "stopped reading" lines'
  RateLimit again_limit;                                      // the "reads again" lines'

  // Main thread only.
  pthread_t recv_thread = 0;    // 0 when not running
  pthread_t accept_thread = 0;  // likewise

  // Set while no thread runs, constant while they do.
  int port;
  int server_fd = 0;  // 0 when none

  // The main thread writes, the others read.
  std::atomic<bool> running{false};

  // Accept thread only.
  RateLimit refusal_limit;
};

// The one listener, or null: set by its constructor, cleared first in its destructor. Main thread writes; the script
// thread reads it and ends before the listener does.
extern ManagerListener* g_listener;

// Connections taken since the process started. Accept thread only.
extern int g_accepted_total;
