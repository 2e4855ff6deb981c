#include "bench/siege/attacks.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <vector>

#include "bench/clients.h"
#include "bench/measure.h"
#include "util/unix_socket.h"

const char kAttackScript[] = R"(
local function handler(body) return { list_func = { { "siege", body } } } end
es_trivial = handler(function() end)
es_work = handler(function() local till = os.clock() + 0.0002 repeat until os.clock() >= till end)
es_slow = handler(function() sleep(evt_field_int("ms")) end)
es_circle = handler(function() event_post(1, "circle") end)
)";

namespace {

constexpr char kAddress[] = "127.0.0.2";
constexpr int kSmallBuffer = 4096;
constexpr useconds_t kConnectPauseUs = 300;  // as in bench/clients.cpp
constexpr double kReconnectS = 7;
constexpr double kTrickleS = 4;

// Waits for a whole number of ms; the attackers need no better clock.
void wait_ms(double ms) {
  poll(nullptr, 0, std::max(1, static_cast<int>(ms)));
}

double up_to(double limit, std::mt19937& random) {
  return std::uniform_real_distribution<double>(0, limit)(random);
}

Descriptor client_of(const Target& target, const std::string& type_string) {
  usleep(kConnectPauseUs);
  Descriptor client = try_connect(target.port, kAddress, kSmallBuffer);
  if (client.get() >= 0 && !type_string.empty()) send_subscription(client.get(), type_string);
  return client;
}

// A connection to the event socket that never waits; -1 when there is none.
Descriptor poster_of(const Target& target) {
  Descriptor poster(unix_stream_socket());
  const timeval patience{0, 50000};
  setsockopt(poster.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  if (unix_connect(poster.get(), target.event_socket) != 0) poster.reset();
  return poster;
}

void send_now(const Descriptor& to, const std::string& bytes) {
  send(to.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool has_ended(const Descriptor& connection) {
  char byte = 0;
  const ssize_t got = recv(connection.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return connection.get() < 0 || got == 0 || (got < 0 && errno != EAGAIN);
}

void reconnect(const Target& target, std::mt19937& random, size_t count) {
  struct Client {
    Descriptor fd;
    double leaves_at;
  };
  std::vector<Client> clients;
  for (size_t i = 0; i < count; ++i) clients.push_back({client_of(target, "good"), up_to(kReconnectS, random)});
  const Stopwatch watch;
  for (;; wait_ms(20)) {
    for (Client& client : clients) {
      if (watch.seconds() < client.leaves_at) continue;
      client.fd.reset();
      client.fd = client_of(target, "good");
      client.leaves_at += kReconnectS;
    }
  }
}

// Keeps `count` posters' sockets full of short lines.
void flood(const Target& target, size_t count, const std::string& line) {
  std::string lines;
  while (lines.size() < 4096) lines += line;
  struct Poster {
    Descriptor fd;
    size_t next;  // where in `lines` its next byte stands
  };
  std::vector<Poster> posters;
  std::vector<pollfd> waiting;
  while (posters.size() < count) {
    posters.push_back({poster_of(target), 0});
    waiting.push_back({posters.back().fd.get(), POLLOUT, 0});
  }
  for (;;) {
    poll(waiting.data(), waiting.size(), 1000);
    for (size_t i = 0; i < count; ++i) {
      Poster& poster = posters[i];
      const size_t left = lines.size() - poster.next;
      const ssize_t taken = send(poster.fd.get(), lines.data() + poster.next, left, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (taken > 0) poster.next = (poster.next + static_cast<size_t>(taken)) % lines.size();
    }
  }
}

}  // namespace

void reconnect_one(const Target& target, std::mt19937& random) {
  reconnect(target, random, 1);
}

void reconnect_fifty(const Target& target, std::mt19937& random) {
  reconnect(target, random, 50);
}

void stall_for_ever(const Target& target, std::mt19937&) {
  std::vector<Descriptor> clients;
  while (clients.size() < 25) clients.push_back(client_of(target, "good"));
  for (;;) pause();
}

void read_slowly(const Target& target, std::mt19937& random) {
  std::vector<Descriptor> clients;
  while (clients.size() < 20) clients.push_back(client_of(target, "good"));
  static char bytes[8192];
  for (;; wait_ms(up_to(100, random))) {
    for (const Descriptor& client : clients) {
      if (recv(client.get(), bytes, sizeof(bytes), MSG_DONTWAIT) > 0) continue;
    }
  }
}

void stay_silent(const Target& target, std::mt19937&) {
  std::vector<Descriptor> clients(1000);
  for (;; wait_ms(50)) {
    for (Descriptor& client : clients) {
      if (has_ended(client)) client = client_of(target, "");
    }
  }
}

// Names that only differ at their beginnings, and none that is posted is subscribed: the worst for a search of texts.
void subscribe_much(const Target& target, std::mt19937& random) {
  const std::string stem(110, 'a');
  std::string names;
  for (int i = 0; names.size() < 64800; ++i) names += "b" + std::to_string(i) + stem + ",";
  names += "good";
  std::vector<Descriptor> clients;
  while (clients.size() < 900) {
    clients.push_back(client_of(target, ""));
    const int whole_packet = 256 * 1024;
    setsockopt(clients.back().get(), SOL_SOCKET, SO_SNDBUF, &whole_packet, sizeof(whole_packet));
    send_now(clients.back(), subscription(names));
  }
  const Descriptor poster = poster_of(target);
  static char bytes[65536];
  for (;; wait_ms(10)) {
    send_now(poster, "1 c" + std::to_string(random() % 100) + stem + "\n");
    for (const Descriptor& client : clients) {
      while (recv(client.get(), bytes, sizeof(bytes), MSG_DONTWAIT) == sizeof(bytes)) {
      }
    }
  }
}

void flood_eight(const Target& target, std::mt19937&) {
  flood(target, 8, "1 work\n");
}

void flood_many(const Target& target, std::mt19937&) {
  flood(target, 255, "1 trivial\n");
}

void trickle(const Target& target, std::mt19937& random) {
  struct Poster {
    Descriptor fd;
    double speaks_at;
  };
  std::vector<Poster> posters;
  for (int i = 0; i < 256; ++i) posters.push_back({poster_of(target), up_to(kTrickleS, random)});
  const Stopwatch watch;
  for (;; wait_ms(20)) {
    for (Poster& poster : posters) {
      if (has_ended(poster.fd)) poster.fd = poster_of(target);
      if (watch.seconds() < poster.speaks_at) continue;
      send_now(poster.fd, "1 trivial\n1 tri");
      send_now(poster.fd, "vial\n1 trivial\n");
      poster.speaks_at += kTrickleS;
    }
  }
}

void hold_the_loop(const Target& target, std::mt19937&) {
  const double ms = std::min(3000.0, target.seconds * 1000 / 2);
  const Descriptor poster = poster_of(target);
  for (;; wait_ms(ms * 2)) send_now(poster, "1 slow ms=" + std::to_string(static_cast<int>(ms)) + "\n");
}

void start_a_circle(const Target& target, std::mt19937&) {
  const Descriptor poster = poster_of(target);
  for (int i = 0; i < 10; ++i) send_now(poster, "1 circle\n");
  for (;;) pause();
}

void send_rubbish(const Target& target, std::mt19937& random) {
  for (;; wait_ms(1)) {
    std::string bytes(random() % 4000, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random() % 3 == 0 ? random() : random() % 2 * 10);
    send_now(poster_of(target), bytes);
    const Descriptor client = client_of(target, "");
    send_now(client, bytes);
    if (random() % 4 == 0) wait_ms(20);
  }
}

void remove_socket(const Target& target, std::mt19937&) {
  for (;; wait_ms(std::max(1000.0, target.seconds * 1000 / 3))) unlink(target.event_socket.c_str());
}

void reload_and_flood(const Target& target, std::mt19937& random) {
  if (fork() == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    flood(target, 8, "1 trivial\n");
  }
  for (;; wait_ms(up_to(400, random))) kill(target.daemon, SIGHUP);
}
