#include "ctl/listen.h"

#include <fnmatch.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>

#include "ctl/client_packet.h"
#include "ctl/configuration.h"
#include "ctl/daemon_socket.h"
#include "ctl/event_text.h"
#include "ctl/failure.h"
#include "ctl/human_text.h"
#include "ctl/inspect/answers.h"
#include "ctl/live/follow.h"
#include "ctl/output.h"
#include "device/event_line.h"
#include "device/listener_access.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/safe_text.h"
#include "util/text.h"
#include "util/unix_socket.h"

namespace {

constexpr int kSendLimitS = 10;
constexpr int kRetryMs = 500;
constexpr int kAskMs = 1000;               // for answers that are of use only
constexpr char kOtherNames[] = "(other)";  // the daemon's entry for all event names that it does not count one by one
constexpr size_t kReceiveSize = size_t{64} * 1024;

// The daemon cannot be reached or went away: it may come back.
struct Gone : Failure {
  using Failure::Failure;
};

[[noreturn]] void fail_gone(const std::string& sentence) {
  throw Gone(Exit::unreachable, sentence);
}

// Returns a connected socket, or none with errno set.
Descriptor connect_to(const addrinfo& address) {
  Descriptor fd(
      above_standard_streams(socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC, address.ai_protocol)));
  if (fd.get() < 0) return fd;
  const timeval send_limit{kSendLimitS, 0};  // holds for the connect too
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &send_limit, sizeof(send_limit));
  // A machine that has lost its power closes nothing: the kernel probes the connection after a minute of silence.
  const struct {
    int level, option, value;
  } keep_alive[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                    {IPPROTO_TCP, TCP_KEEPIDLE, 60},
                    {IPPROTO_TCP, TCP_KEEPINTVL, 20},
                    {IPPROTO_TCP, TCP_KEEPCNT, 3}};
  for (const auto& row : keep_alive) setsockopt(fd.get(), row.level, row.option, &row.value, sizeof(row.value));
  if (connect(fd.get(), address.ai_addr, address.ai_addrlen) < 0) {
    if (errno == EINPROGRESS) errno = ETIMEDOUT;
    fd.reset();
  }
  return fd;
}

Descriptor connect_to(const std::string& host, int port) {
  addrinfo wanted{};
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &wanted, &found);
  if (error != 0) fail_gone("failed to find host " + host + ": " + gai_strerror(error));
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, freeaddrinfo);
  if (port == 0) throw Failure(Exit::usage, "listener_port is 0 in the settings; give the daemon's port with --port");
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
    Descriptor fd = connect_to(*address);
    if (fd.get() >= 0) return fd;
  }
  fail_gone(sstr("no daemon at %s:%d: %s", host.c_str(), port, error_text(errno).c_str()));
}

void send_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
    } else if (errno != EINTR) {
      fail_gone("failed to send the subscription: " + error_text(errno));
    }
  }
}

// Waits and appends to `held` what the daemon sends.
void receive(int fd, FILE* out, std::string& held) {
  wait_to_read(fd, out, -1);
  char bytes[kReceiveSize];
  const ssize_t received = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
  if (received == 0) fail_gone("the daemon closed the connection");
  if (received < 0 && errno != EAGAIN && errno != EINTR) fail_gone("the daemon went away: " + error_text(errno));
  if (received > 0) held.append(bytes, static_cast<size_t>(received));
}

bool is_pattern(const std::string& name) {
  return name.find_first_of("*?") != std::string::npos;
}

// Warns of names that no script of this machine's daemon handles and that have not come since its start. A daemon that
// does not tell is no reason to complain.
void warn_of_unknown(const ListenRequest& request) try {
  ControlClient client(request.root, kAskMs);
  std::set<std::string> known;
  add_event_names(client.ask("stats", kAskMs), known);
  add_event_names(client.ask("scripts", kAskMs), known);
  if (known.count(kOtherNames) != 0) return;
  for (const std::string& name : request.names) {
    const auto fits = [&](const std::string& each) { return fnmatch(name.c_str(), each.c_str(), FNM_NOESCAPE) == 0; };
    if (std::any_of(known.begin(), known.end(), fits)) continue;
    fprintf(stderr, "zelvctl: warning: no script handles '%s', and no such event has come since the daemon started\n",
            escaped(name).c_str());
  }
} catch (const Failure&) {
}

// Where to subscribe: at a host's port, or at a socket of this machine.
struct Target {
  std::string host;
  int port = 0;
  std::string socket;
  std::optional<uid_t> user = {};  // of the socket's daemon, when that has named the socket
};

// The best of the daemon's endpoints: a port that this machine surely reaches, else another address, else a socket.
const ListenEndpoint* best_of(const std::vector<ListenEndpoint>& endpoints, bool has_port) {
  const auto rank = [has_port](const ListenEndpoint& endpoint) {
    if (!endpoint.path.empty()) return 1;
    return !has_port ? 0 : endpoint.is_local() || endpoint.address == INADDR_ANY ? 3 : 2;
  };
  const auto is_worse = [&rank](const ListenEndpoint& one, const ListenEndpoint& other) {
    return rank(one) < rank(other);
  };
  const auto best = std::max_element(endpoints.begin(), endpoints.end(), is_worse);
  return best == endpoints.end() || rank(*best) == 0 ? nullptr : &*best;
}

// A running daemon knows its port even where the kernel has chosen it.
Target target_here(const std::string& root) {
  int port = configured_port();
  std::string address = configured_address();
  std::string unanswered;
  std::optional<uid_t> user;
  try {
    ControlClient client(root, kAskMs);
    const auto stats = client.ask("stats", kAskMs);
    user = client.user();
    const AnswerLine& listener = line_of(stats, "listener");
    if (listener.count("port") != 0) port = static_cast<int>(listener.count("port"));
    address = listener.text("address", address.c_str());
  } catch (const Failure& failure) {  // it has no control socket, or does not let us in
    unanswered = failure.what();
  }
  const std::vector<ListenEndpoint> endpoints = parse_listener_address(address).value_or(std::vector<ListenEndpoint>());
  if (endpoints.empty()) fail_gone("the daemon lets no client connect: see listener_address in its settings");
  const ListenEndpoint* const best = best_of(endpoints, port != 0);
  if (best == nullptr) fail_gone(unanswered.empty() ? "the daemon has not opened a port for clients" : unanswered);
  if (!best->path.empty()) return {"", 0, root + best->path, user};
  return {best->address == INADDR_ANY ? "127.0.0.1" : best->text(), port, ""};
}

// The port of another machine, which we cannot know, is taken to be the one of this machine.
Target target_of(const ListenRequest& request) {
  if (!request.socket.empty()) return {"", 0, request.socket};
  if (request.host.empty() && request.port == 0) return target_here(request.root);
  return {request.host.empty() ? "127.0.0.1" : request.host, request.port != 0 ? request.port : configured_port(), ""};
}

Descriptor connect_to(const Target& target) {
  if (target.socket.empty()) return connect_to(target.host, target.port);
  try {
    Descriptor fd = connect_to_daemon(target.socket, kSendLimitS * 1000);
    const uid_t user = unix_peer(fd.get()).uid;
    if (target.user.value_or(user) == user) return fd;
    fail(sstr("the daemon of user %u names %s, where user %u listens", *target.user, target.socket.c_str(), user));
  } catch (const Failure& failure) {
    fail_gone(failure.what());
  }
}

class Listener {
 public:
  Listener(const ListenRequest& what, FILE* output) : request(what), out(output) {}

  // Over the control socket, which tells of events when they have been handled.
  void follow() {
    follow_events(
        {request.root, request.names, "", request.reconnect}, out,
        [this](const AnswerLine& line) {
          const std::string name = line.text("name");
          const std::string info = line.text("info");
          const std::string time = line.text("time");
          const size_t point = time.find('.');
          const auto number = [](const std::string& text) {
            return static_cast<uint32_t>(strtoul(text.c_str(), nullptr, 10));
          };
          const auto microseconds =
              static_cast<int32_t>(point == std::string::npos ? 0 : number(time.substr(point + 1)));
          return write({0, number(time), microseconds, name, info});
        },
        [](const std::string&) {});
  }

  // Over the listener's port. `packet` subscribes to the names.
  void subscribe(const std::string& packet) {
    const std::set<std::string, std::less<>> names(request.names.begin(), request.names.end());
    while (!subscribe_once(names, packet)) wait_to_read(-1, out, kRetryMs);
  }

 private:
  // Returns true after the last event that is wanted, false when the daemon has gone and we are to try again.
  bool subscribe_once(const std::set<std::string, std::less<>>& names, const std::string& packet) try {
    const Descriptor fd = connect_to(target_of(request));
    send_all(fd.get(), packet);
    if (gone_since != 0) {
      const std::string gone_for = duration_text(static_cast<uint64_t>(steady_ms() - gone_since) * 1000);
      fprintf(stderr, "zelvctl: connected after %s; events of that time are missing\n", gone_for.c_str());
    }
    gone_since = 0;
    for (std::string held;;) {
      receive(fd.get(), out, held);
      size_t used = 0;
      while (const auto event = first_packet(std::string_view(held).substr(used))) {
        used += event->size;
        if (names.find(event->name) != names.end() && !write(*event)) return true;
      }
      held.erase(0, used);
    }
  } catch (const Gone& gone) {
    if (!request.reconnect) throw;
    if (gone_since == 0) {
      fprintf(stderr, "zelvctl: %s; waiting for the daemon\n", gone.what());
      gone_since = steady_ms();
    }
    return false;
  }

  // Returns false after the last event that is wanted.
  bool write(const ReceivedEvent& event) {
    write_now(out, request.json ? json_text(event) : plain_text(event));
    return ++written != request.count;
  }

  const ListenRequest& request;
  FILE* const out;
  long written = 0;
  int64_t gone_since = 0;  // steady_ms; 0: connected
};

}  // namespace

void print_events(const ListenRequest& request, FILE* out) {
  const bool needs_control =
      request.names.empty() || std::any_of(request.names.begin(), request.names.end(), is_pattern);
  const bool is_here = request.host.empty() && request.port == 0 && request.socket.empty();
  if (needs_control && !is_here)
    throw Failure(
        Exit::usage,
        "--all and patterns of names are for the daemon of this machine: leave out --host, --port and --socket");
  for (const std::string& name : request.names) {
    if (const char* error = check_event_name(name)) throw Failure(Exit::usage, "NAME '" + name + "': " + error);
  }
  const std::string packet = needs_control ? "" : subscription_packet(request.names);
  if (is_here) warn_of_unknown(request);
  Listener listener(request, out);
  needs_control ? listener.follow() : listener.subscribe(packet);
}
