// growth/WHAT/SIZE/SETTINGS: what an event costs when there is more of something: clients, Lua tables, timers,
// coroutines, handlers. docs/performance/ draws them.

#include <cstring>
#include <map>
#include <optional>

#include "bench/benchmarks.h"
#include "bench/clients.h"
#include "bench/daemon_process.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "bench/peer_process.h"
#include "bench/posters.h"
#include "util/text.h"

namespace {

constexpr int kBatch = 64;
constexpr double kPostS = 0.3;
constexpr char kMarkLine[] = "1 mark\n";

struct Growth {
  const char* what;
  std::vector<int> sizes;
  std::string (*script)(int size);
};

std::string one_handler(int) {
  return handler_of(kEventName, "");
}

std::string heap(int megabytes) {
  return one_handler(0) + sstr(
                              "ballast = {} while collectgarbage('count') < %d do for i = 1, 100 do "
                              "ballast[#ballast + 1] = { i } end end",
                              megabytes * 1024);
}

std::string timers(int count) {
  return one_handler(0) + sstr("for i = 1, %d do tmr_add(function() end, 1000000, os.time(), nil) end", count);
}

std::string coroutines(int count) {
  return one_handler(0) + sstr("for i = 1, %d do cr_add(function() cr_yield(1000000000) end, 0, nil) end", count);
}

std::string handlers(int count) {
  return sstr(
      "es_bench = { list_func = {} } for i = 1, %d do "
      "es_bench.list_func[i] = { 'bench', function() end } end",
      count);
}

const Growth kGrowths[] = {
    {"clients", {0, 1, 3, 10, 30, 100}, one_handler}, {"heap", {0, 1, 3, 10}, heap},
    {"timers", {0, 1000, 10000, 60000}, timers},      {"coroutines", {0, 1000, 10000, 60000}, coroutines},
    {"handlers", {1, 3, 10, 30, 100}, handlers},
};

// Waits until all that was posted before is handled.
void pass_mark(DaemonProcess& daemon, int poster) {
  send_whole(poster, kMarkLine, strlen(kMarkLine));
  daemon.next_report();
}

// Reads for `count` clients until the parent signals.
void read_events(const DaemonProcess& daemon, int count, Channel& parent) {
  Clients clients(daemon.port(), count);
  clients.subscribe_now(kEventName, kEventName, daemon.connect_poster().get());
  parent.signal();
  clients.read_on();
}

// Posts for a while, and measures until the last event is handled.
void measure_events(const std::string& program, Figures& figures, const std::string& script, bool packaged,
                    int clients) {
  DaemonProcess daemon({program, packaged, script + "\n" + handler_of("mark", "report('mark')")});
  daemon.start();
  std::optional<PeerProcess> readers;
  if (clients > 0) {
    readers.emplace([&](Channel& parent) { read_events(daemon, clients, parent); });
    readers->channel().wait();
  }
  const Descriptor poster = daemon.connect_poster();
  pass_mark(daemon, poster.get());
  usleep(200000);  // coroutines have their first turn when there is no event
  const double cpu_before = daemon.cpu_ns();
  const Stopwatch watch;
  int events = 0;
  for (; watch.seconds() < kPostS; events += kBatch) post_lines(poster.get(), kBatch, kBatch);
  pass_mark(daemon, poster.get());
  figures["events_per_s"] = events / watch.seconds();
  figures["cpu_ns"] = (daemon.cpu_ns() - cpu_before) / events;
  if (readers) readers->end();
}

// The CPU time of an event compared with that at the first size; by program, growth and settings.
double to_first(const std::string& key, bool is_first, double cpu_ns) {
  static std::map<std::string, double> firsts;
  if (is_first) firsts[key] = cpu_ns;
  return firsts.count(key) != 0 ? cpu_ns / firsts[key] : 0;
}

void add_growth(const Growth& growth, int size, bool packaged) {
  const std::string settings = packaged ? "packaged" : "absent";
  const std::string name = sstr("growth/%s/%d/%s", growth.what, size, settings.c_str());
  add_benchmark(name, 3, [=](Figures& figures) {
    measure_daemons(figures, [&](const std::string& program, Figures& measured) {
      const bool of_clients = std::string("clients") == growth.what;
      measure_events(program, measured, growth.script(size), packaged, of_clients ? size : 0);
      measured["to_first"] =
          to_first(program + growth.what + settings, size == growth.sizes.front(), measured["cpu_ns"]);
    });
  });
}

}  // namespace

void add_growth_benchmarks() {
  for (const Growth& growth : kGrowths) {
    for (const bool packaged : {false, true}) {
      for (const int size : growth.sizes) add_growth(growth, size, packaged);
    }
  }
}
