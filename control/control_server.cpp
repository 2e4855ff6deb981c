#include "control/control_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <map>

#include "control/event_ring.h"
#include "device/log.h"
#include "util/clock.h"
#include "util/control_paths.h"
#include "util/service_thread.h"
#include "util/text.h"

namespace {

constexpr int kAcceptRetryMs = 300;
constexpr int kFollowMs = 5;   // how long events gather for followers while they come
constexpr int kHoldMs = 2000;  // a client that asks once a second keeps its place

constexpr OwnedSocket::Names kControlSocket{kControlSocketPath, kControlLockPath,
                                            "control: %s: zelvctl cannot ask this daemon",
                                            "control: %s is made: zelvctl can ask this daemon", elog};

}  // namespace

ControlServer::ControlServer(EventRing& the_ring, std::vector<ControlCommand> the_commands)
    : ring(the_ring), commands(std::move(the_commands)), socket(kControlSocket) {
  given_up.reserve(2 * kClientsMost);  // it takes part in the way out of memory trouble
}

void ControlServer::start() {
  wake_up = wake_up_descriptor();
  if (wake_up.get() < 0) {
    elog(1, "control: no descriptor (%s): zelvctl cannot ask this daemon", strerrordesc_np(errno));
    return;
  }
  socket.open();
  const std::string reason = socket.why_replaceable();  // the event socket stands in the same folder
  if (!reason.empty()) elog(1, "control: %s: others can put their own sockets in place of ours", reason.c_str());
  is_stopping = false;
  const int error = start_service_thread(&thread, main, this);
  if (error == 0) return;
  elog(1, "control: no thread to answer requests (%s): zelvctl cannot ask this daemon", strerrordesc_np(error));
  socket.close();
}

void ControlServer::stop() {
  if (thread == 0) return;
  is_stopping = true;
  wake();
  pthread_join(thread, nullptr);
  thread = 0;
}

void ControlServer::wake() const {
  eventfd_write(wake_up.get(), 1);
}

void* ControlServer::main(void* instance) {
  static_cast<ControlServer*>(instance)->run();
  return nullptr;
}

void ControlServer::run() {
  while (!is_stopping) {
    try {
      round();
    } catch (const std::bad_alloc&) {  // everybody may ask again
      for (auto& client : clients) drop(client);
      clients.clear();
    }
  }
  for (auto& client : clients) drop(client);
  clients.clear();
  given_up.clear();
  ring.set_followed(false);
  socket.close();
}

// One sleep, and what is to be done after it.
void ControlServer::round() {
  const int timeout_ms = sleep_ms(steady_ms());
  std::vector<pollfd> set = {{wake_up.get(), POLLIN, 0},
                             {socket.change_descriptor(), POLLIN, 0},
                             {ring.wake_descriptor(), POLLIN, 0},
                             {steady_ms() < accept_not_before ? -1 : socket.descriptor(), POLLIN, 0}};
  const size_t fixed = set.size();
  for (const auto& client : clients) set.push_back({client->descriptor(), client->wanted_events(), 0});
  if (poll(set.data(), set.size(), timeout_ms) < 0) return;
  const int64_t now = steady_ms();
  eventfd_t ignored = 0;
  if (set[0].revents != 0) eventfd_read(wake_up.get(), &ignored);
  if (set[2].revents != 0) eventfd_read(ring.wake_descriptor(), &ignored);
  if ((set[1].revents != 0 && socket.take_change()) || socket.number() == 0) socket.make_again(now);
  for (size_t i = 0; i < clients.size(); ++i) {
    if (!serve(*clients[i], set[fixed + i].revents, now)) drop(clients[i]);
  }
  clients.erase(std::remove(clients.begin(), clients.end(), nullptr), clients.end());
  if (set[3].revents != 0) accept_waiting(now);
  given_up.erase(std::remove_if(given_up.begin(), given_up.end(), [](const auto& call) { return call->is_done(); }),
                 given_up.end());
  count();
}

void ControlServer::count() {
  const auto is_following = [](const auto& client) { return client->is_following(); };
  const auto followers = std::count_if(clients.begin(), clients.end(), is_following);
  clients_now.set(clients.size());
  followers_now.set(static_cast<uint64_t>(followers));
  ring.set_followed(followers > 0);
}

// How long the next round may sleep, in ms; -1: until something happens.
int ControlServer::sleep_ms(int64_t now) {
  int64_t sleep = followers_sleep_ms();
  const auto not_after = [&](int64_t ms) {
    if (ms >= 0 && (sleep < 0 || ms < sleep)) sleep = ms;
  };
  not_after(socket.next_try_ms(now));
  if (accept_not_before > now) not_after(accept_not_before - now);
  for (const auto& client : clients) {
    if (client->has_turn()) not_after(0);
    if (const auto deadline = client->deadline()) not_after(std::max<int64_t>(*deadline - now, 0));
  }
  return static_cast<int>(std::min<int64_t>(sleep, INT_MAX));
}

// While events come, they are looked for now and then: the event loop is to wake this thread only after a silence.
int ControlServer::followers_sleep_ms() {
  uint64_t wanted = UINT64_MAX;
  for (const auto& client : clients) wanted = std::min(wanted, client->waits_for().value_or(UINT64_MAX));
  if (wanted == UINT64_MAX) return -1;
  const uint64_t last = ring.last();
  if (wanted <= last) return 0;
  const bool events_come = last != last_seen;
  last_seen = last;
  if (events_come) return kFollowMs;
  return ring.ask_to_be_woken(wanted) ? -1 : 0;
}

void ControlServer::accept_waiting(int64_t now) {
  for (size_t i = 0; i < kClientsMost; ++i) {
    const int fd = above_standard_streams(accept4(socket.descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (fd >= 0) {
      admit(std::make_unique<ControlConnection>(fd, now), now);
    } else if (errno != EINTR && errno != ECONNABORTED) {
      if (errno == EAGAIN) return;
      accept_not_before = now + kAcceptRetryMs;
      if (const auto left_out = accept_limit.allow()) {
        elog(1, "control: cannot accept a client: %s%s", strerrordesc_np(errno), left_out->text);
      }
      return;
    }
  }
}

void ControlServer::admit(std::unique_ptr<ControlConnection> client, int64_t now) {
  if (clients.size() < kClientsMost || make_place(*client, now)) return clients.push_back(std::move(client));
  if (const auto left_out = refused_limit.allow()) {
    elog(1, "control: refused process %d of user %u, since 16 clients are connected%s", client->process(),
         client->user(), left_out->text);
  }
  client->owe("error: 16 clients are connected already\n\n", now);
  client->send_owed(now);
}

// Drops the client that has been idle longest or, when none has been idle for long, the oldest one of the user with
// most connections. Returns false when nobody has two more than the newcomer's user.
bool ControlServer::make_place(const ControlConnection& newcomer, int64_t now) {
  const auto idle_since = [](const auto& client) { return client->idle_since().value_or(INT64_MAX); };
  const auto longest = std::min_element(clients.begin(), clients.end(), [&](const auto& one, const auto& other) {
    return idle_since(one) < idle_since(other);
  });
  if (idle_since(*longest) <= now - kHoldMs) {
    const auto idle_s = static_cast<long long>((now - idle_since(*longest)) / 1000);
    close_for(newcomer, longest, sstr("idle for %lld s", idle_s));
    return true;
  }
  std::map<uid_t, size_t> connections;
  for (const auto& client : clients) ++connections[client->user()];
  const auto most = std::max_element(clients.begin(), clients.end(), [&](const auto& one, const auto& other) {
    return connections[one->user()] < connections[other->user()];
  });
  const size_t number = connections[(*most)->user()];
  if (number < connections[newcomer.user()] + 2) return false;
  close_for(newcomer, most, sstr("which has %zu", number));
  return true;
}

void ControlServer::close_for(const ControlConnection& newcomer, Clients::iterator victim, const std::string& why) {
  if (const auto left_out = closed_limit.allow()) {
    elog(1, "control: closed the connection of process %d of user %u, %s, for process %d%s", (*victim)->process(),
         (*victim)->user(), why.c_str(), newcomer.process(), left_out->text);
  }
  drop(*victim);
  clients.erase(victim);
}

// Returns false when the client is to be dropped. One request of each client is answered in a round.
bool ControlServer::serve(ControlConnection& client, short happened, int64_t now) {
  if ((happened & (POLLHUP | POLLERR | POLLNVAL)) != 0) return false;
  if ((happened & POLLIN) != 0 && !client.receive(now)) return false;
  if (client.call != nullptr && client.call->is_done()) {
    client.owe(client.call->result().take_lines() + '\n', now);
    client.call.reset();
  }
  if (client.has_turn()) answer_next(client, now);
  if (client.is_following()) serve_follower(client, now);
  if (!client.send_owed(now) || client.is_finished()) return false;
  return now < client.deadline().value_or(INT64_MAX);
}

void ControlServer::serve_follower(ControlConnection& client, int64_t now) {
  const bool has_ended = ring.has_ended();  // before the look for events, so that none is passed over
  client.owe_events(ring, now);
  if (!has_ended || client.waits_for().value_or(0) <= ring.last()) return;
  Answer answer;
  answer.fail(kLoopHasEnded);
  client.end_following(answer.take_lines() + '\n', now);
}

void ControlServer::drop(std::unique_ptr<ControlConnection>& client) {
  if (client != nullptr && client->call != nullptr) {
    client->call->give_up();
    given_up.push_back(std::move(client->call));
  }
  client.reset();
}

void ControlServer::answer_next(ControlConnection& client, int64_t now) {
  std::string line;
  Answer answer;
  switch (client.next_line(line)) {
    case RequestLines::Next::nothing:
      return;
    case RequestLines::Next::too_long:
      answer.fail(sstr("the request is longer than %zu bytes", kRequestMost));
      break;
    case RequestLines::Next::line:
      requests.add();
      ControlRequest request;
      request.process = client.process();
      request.user = client.user();
      const std::string problem = parse_request(line, request);
      if (!problem.empty()) {
        answer.fail(problem);
      } else if (request.name == "follow") {
        if (follow(client, request, answer, now)) return;
      } else if (!carry_out(client, request, answer)) {
        return;
      }
  }
  client.owe(answer.take_lines() + '\n', now);
}

// Returns false when the answer has to be waited for.
bool ControlServer::carry_out(ControlConnection& client, const ControlRequest& request, Answer& answer) {
  const auto has_name = [&](const ControlCommand& command) { return command.name == request.name; };
  const auto command = std::find_if(commands.begin(), commands.end(), has_name);
  if (command == commands.end()) {
    std::string names;
    for (const ControlCommand& known : commands) names += (names.empty() ? "" : ", ") + known.name;
    answer.fail("unknown request '" + request.name.substr(0, 40) + "': expected " + names + " or follow");
    return true;
  }
  try {
    if (command->at_once != nullptr && command->at_once(request, answer)) return true;
  } catch (const std::exception& error) {
    answer.fail(error.what());
    return true;
  }
  if (given_up.size() < kClientsMost) {
    client.call = WaitingCall::start(command->waiting, request, [this] { wake(); });
    if (client.call != nullptr) return false;
  }
  answer.fail("no thread to answer with");
  return true;
}

// Returns false when there is an error, which is in `answer`.
bool ControlServer::follow(ControlConnection& client, const ControlRequest& request, Answer& answer, int64_t now) {
  ring.set_followed(true);
  last_seen = UINT64_MAX;  // the event loop may not have seen that yet: the next sleep is a short one
  FollowRequest wanted;
  std::string problem = parse_follow(request.arguments, wanted);
  const bool has_id = !wanted.run.empty();
  const bool is_this_run = wanted.run == ring.run();
  if (!ring.keeps_events()) problem = "no events are kept: event_memory is 0";
  if (problem.empty() && is_this_run && wanted.sequence > ring.last()) problem = "from: that event has not come yet";
  if (!problem.empty()) {
    answer.fail(problem);
    return false;
  }
  const uint64_t first = !has_id ? ring.last() + 1 : is_this_run ? wanted.sequence + 1 : ring.oldest();
  answer.line("following").key("run", ring.run()).key("next", first);
  if (has_id && !is_this_run) {
    answer.line("lost").key("n", "unknown").key("last", ring.run() + ("-" + std::to_string(first - 1)));
  }
  client.owe(answer.take_lines(), now);
  client.begin_to_follow(std::move(wanted), first);
  return true;
}
