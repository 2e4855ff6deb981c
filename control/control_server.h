// The control socket: other processes ask what the daemon does, and get lines of text (docs/control.md).
//
// A thread of its own serves all clients and never waits for one of them, nor for the event loop: requests that have to
// wait are answered by threads that live as long as that takes. What the requests are is the business of `run`, which
// passes them as functions; only `follow` is known here, since it has no end. At rest the thread sleeps in poll(2).
#pragma once

#include <pthread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "control/control_connection.h"
#include "control/control_request.h"
#include "control/counter.h"
#include "control/waiting_call.h"
#include "util/descriptor.h"
#include "util/owned_socket.h"
#include "util/rate_limit.h"

class EventRing;

// A request. Either function may throw: what() is then the error that the client gets.
struct ControlCommand {
  std::string name;
  // Answers on the control thread, without waiting. Returns false when that cannot be; null counts as false.
  std::function<bool(const ControlRequest& request, Answer& answer)> at_once;
  // Answers on a thread of its own, and may wait; but once given_up() is true it has to return soon.
  WaitingCall::Function waiting;
};

class ControlServer {
 public:
  static constexpr size_t kClientsMost = 16;

  // `the_ring` must live longer.
  ControlServer(EventRing& the_ring, std::vector<ControlCommand> the_commands);
  // Stops.
  ~ControlServer() { stop(); }
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Makes the socket and starts the thread; what fails is logged, and the daemon runs without. Main thread.
  void start();

  // Ends all requests and connections, and removes the socket. Main thread.
  void stop();

  struct Counts {
    uint64_t clients;
    uint64_t requests;  // so far
    uint64_t followers;
  };
  // Any thread.
  Counts counts() const { return {clients_now.get(), requests.get(), followers_now.get()}; }

 private:
  using Clients = std::vector<std::unique_ptr<ControlConnection>>;

  static void* main(void* instance);
  void run();
  void round();
  void count();
  int sleep_ms(int64_t now);
  int followers_sleep_ms();
  void accept_waiting(int64_t now);
  void admit(std::unique_ptr<ControlConnection> client, int64_t now);
  bool make_place(const ControlConnection& newcomer, int64_t now);
  void close_for(const ControlConnection& newcomer, Clients::iterator victim, const std::string& why);
  bool serve(ControlConnection& client, short happened, int64_t now);
  void serve_follower(ControlConnection& client, int64_t now);
  void drop(std::unique_ptr<ControlConnection>& client);
  void answer_next(ControlConnection& client, int64_t now);
  bool carry_out(ControlConnection& client, const ControlRequest& request, Answer& answer);
  bool follow(ControlConnection& client, const ControlRequest& request, Answer& answer, int64_t now);
  void wake() const;

  EventRing& ring;
  const std::vector<ControlCommand> commands;
  OwnedSocket socket;
  Descriptor wake_up;  // an eventfd: stop, or a waiting call is done
  pthread_t thread = 0;
  std::atomic<bool> is_stopping{false};
  Counter clients_now;
  Counter requests;
  Counter followers_now;

  // The control thread's own.
  Clients clients;                                     // in the order in which they came
  std::vector<std::unique_ptr<WaitingCall>> given_up;  // whose clients have gone
  int64_t accept_not_before = 0;                       // steady_ms
  uint64_t last_seen = 0;                              // the newest event at the last look for followers
  RateLimit refused_limit;
  RateLimit closed_limit;
  RateLimit accept_limit;
};
