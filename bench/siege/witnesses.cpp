#include "bench/siege/witnesses.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>
#include <ctime>
#include <stdexcept>

#include "bench/clients.h"
#include "bench/measure.h"
#include "bench/peer_process.h"
#include "util/unix_socket.h"

const char kWitnessScript[] = R"(
es_good = { list_func = { { "siege", function() report("line " .. evt_field_str("n")) end } } }
if not ticking then
  ticking = true
  tmr_add(function() report("tick") end, 1, os.time(), nil)
end
)";

namespace {

constexpr char kName[] = "good";
constexpr int64_t kPaceNs = 10000000;
constexpr int64_t kNewcomerPaceUs = 250000;
constexpr double kNewcomerPatienceS = 5;
constexpr double kHeldMs = 100;
constexpr int kLookMs = 20;
constexpr timeval kPosterPatience{0, 200000};

int64_t clock_ns(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

int64_t now_ns() {
  return clock_ns(CLOCK_MONOTONIC);
}

bool is_readable(int fd, int timeout_ms) {
  pollfd waiting{fd, POLLIN, 0};
  return poll(&waiting, 1, timeout_ms) > 0;
}

double ms_between(int64_t from_ns, int64_t to_ns) {
  return static_cast<double>(to_ns - from_ns) / 1e6;
}

template <typename Samples>
std::vector<double> of_phase(const Samples& samples, int wanted) {
  std::vector<double> values;
  for (const auto& sample : samples) {
    if (sample.phase == wanted) values.push_back(sample.ms);
  }
  return values;
}

}  // namespace

Witnesses::Witnesses(DaemonProcess& watched, const WitnessPlan& the_plan, double longest_s)
    : daemon(watched), plan(the_plan), lines(static_cast<size_t>(longest_s * 1e9 / kPaceNs)) {
  client = try_connect(daemon.port());
  if (client.get() < 0) throw std::runtime_error("the good client failed to connect");
  send_subscription(client.get(), kName);
  poster = daemon.connect_poster();
  do {
    send_whole(poster.get(), "1 good n=-1\n", 12);
  } while (!is_readable(client.get(), kLookMs));
  reading_threads.emplace_back([this] { read_reports(); });
  reading_threads.emplace_back([this] { read_events(); });
  posting_threads.emplace_back([this] { post_lines(); });
  posting_threads.emplace_back([this] { send_newcomers(); });
}

Witnesses::~Witnesses() {
  is_posting = is_reading = false;
  for (std::thread& thread : posting_threads) thread.join();
  for (std::thread& thread : reading_threads) thread.join();
}

void Witnesses::next_phase() {
  ++phase;
}

void Witnesses::finish(double patience_s) {
  is_posting = false;
  for (std::thread& thread : posting_threads) thread.join();
  posting_threads.clear();
  const Stopwatch watch;
  while (!all_done() && watch.seconds() < patience_s) usleep(kLookMs * 1000);
  is_reading = false;
  for (std::thread& thread : reading_threads) thread.join();
  reading_threads.clear();
}

bool Witnesses::all_done() const {
  for (size_t i = 0; i < sent; ++i) {
    if (lines[i].sent_us != 0 && (lines[i].handled_ns == 0 || lines[i].received_ns == 0)) return false;
  }
  return true;
}

Seen Witnesses::seen(int wanted) const {
  Seen seen;
  int64_t handled_before = 0;
  for (size_t i = 0; i < sent; ++i) {
    const Line& line = lines[i];
    if (line.phase != wanted) continue;
    if (line.handled_ns == 0) ++seen.unhandled;
    if (line.handled_ns != 0 && line.received_ns == 0) ++seen.lost;
    if (line.received_ns != 0) {
      seen.client.push_back(ms_between(line.planned_ns, line.received_ns));
      seen.stamp.push_back(static_cast<double>(line.stamp_us - line.sent_us) / 1e3);
    }
    if (line.handled_ns == 0) continue;
    seen.handled.push_back(ms_between(line.planned_ns, line.handled_ns));
    const double pause_ms = handled_before == 0 ? 0 : ms_between(handled_before, line.handled_ns);
    if (pause_ms > kHeldMs) seen.held_ms += pause_ms;
    handled_before = line.handled_ns;
  }
  seen.tick = of_phase(ticks, wanted);
  for (const double ms : of_phase(newcomers, wanted)) {
    if (ms < 0) ++seen.newcomers_failed;
    if (ms >= 0) seen.newcomer.push_back(ms);
  }
  return seen;
}

// Sends lines by the clock; one that is late because the one before waited keeps its planned time.
void Witnesses::post_lines() {
  const int64_t start_ns = now_ns();
  for (size_t number = 0; is_posting && number < lines.size(); ++number) {
    Line& line = lines[number];
    line.planned_ns = start_ns + static_cast<int64_t>(number) * kPaceNs;
    const timespec until{line.planned_ns / 1000000000, line.planned_ns % 1000000000};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    line.phase = phase;
    sent = number + 1;
    while (!send_line(line, number)) {
      if (!is_posting) return;
      usleep(kLookMs * 1000);
    }
  }
}

// False when the daemon cannot be reached.
bool Witnesses::send_line(Line& line, size_t number) {
  if (plan.fresh_posters) {
    poster.reset(unix_stream_socket());
    setsockopt(poster.get(), SOL_SOCKET, SO_SNDTIMEO, &kPosterPatience, sizeof(kPosterPatience));
    if (unix_connect(poster.get(), daemon.event_socket()) != 0) return false;
  }
  const std::string text =
      "1 good n=" + std::to_string(number) + "&pad=" + std::string(static_cast<size_t>(plan.pad), '.') + "\n";
  line.sent_us = clock_ns(CLOCK_REALTIME) / 1000;
  for (size_t done = 0; done < text.size();) {
    const ssize_t taken = send(poster.get(), text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (taken > 0) done += static_cast<size_t>(taken);
    if (taken <= 0 && (errno != EAGAIN || !is_posting)) return false;
  }
  return true;
}

void Witnesses::read_reports() {
  std::string reported;
  while (is_reading) {
    if (!is_readable(daemon.reports(), kLookMs)) continue;
    char piece[4096];
    const ssize_t got = read(daemon.reports(), piece, sizeof(piece));
    if (got > 0) reported.append(piece, static_cast<size_t>(got));
    for (size_t end = 0; (end = reported.find('\n')) != std::string::npos; reported.erase(0, end + 1)) {
      take_report(reported.substr(0, end));
    }
  }
}

void Witnesses::take_report(const std::string& report) {
  int number = -1;
  if (report == "tick") {
    const int64_t now = now_ns();
    if (last_tick_ns != 0) ticks.push_back({phase, ms_between(last_tick_ns, now) - 1000});
    last_tick_ns = now;
  } else if (sscanf(report.c_str(), "line %d", &number) == 1 && number >= 0) {
    lines.at(static_cast<size_t>(number)).handled_ns = now_ns();
  }
}

void Witnesses::read_events() {
  std::string bytes;
  while (is_reading) {
    if (!is_readable(client.get(), kLookMs)) continue;
    static char piece[256 * 1024];
    const ssize_t got = recv(client.get(), piece, sizeof(piece), 0);
    if (got <= 0) return;  // turned out: what it does not get is lost
    bytes.append(piece, static_cast<size_t>(got));
    take_events(bytes);
  }
}

// Takes whole packets from the front.
void Witnesses::take_events(std::string& bytes) {
  const int64_t now = now_ns();
  size_t at = 0;
  uint32_t head[3];  // length, seconds, microseconds
  while (bytes.size() - at > sizeof(head)) {
    memcpy(head, bytes.data() + at, sizeof(head));
    if (bytes.size() - at < head[0]) break;
    const char* const name = bytes.data() + at + sizeof(head);
    int number = -1;
    if (sscanf(name + strlen(name) + 1, "n=%d", &number) == 1 && number >= 0) {
      Line& line = lines.at(static_cast<size_t>(number));
      line.stamp_us = int64_t{head[1]} * 1000000 + head[2];
      line.received_ns = now;
    }
    at += head[0];
  }
  bytes.erase(0, at);
}

void Witnesses::send_newcomers() {
  while (is_posting) {
    const int started_in = phase;
    const Stopwatch watch;
    const Descriptor newcomer = try_connect(daemon.port());
    bool has_event = false;
    if (newcomer.get() >= 0) {
      send_subscription(newcomer.get(), kName);
      while (!has_event && is_posting && watch.seconds() < kNewcomerPatienceS) {
        has_event = is_readable(newcomer.get(), kLookMs);
      }
      char byte = 0;
      has_event = has_event && recv(newcomer.get(), &byte, 1, 0) == 1;
    }
    if (is_posting || has_event) newcomers.push_back({started_in, has_event ? watch.seconds() * 1e3 : -1});
    usleep(kNewcomerPaceUs);
  }
}
