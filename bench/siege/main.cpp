// The siege: attackers beside good clients, posters and Lua, one scene after the other, each with a daemon of its own.
// dev/siege starts it and lists its options; docs/performance.md explains the table.

#include <getopt.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "bench/daemon_process.h"
#include "bench/measure.h"
#include "bench/siege/scene.h"
#include "util/text.h"

namespace {

[[noreturn]] void refuse(const std::string& what) {
  fprintf(stderr, "dev/siege: %s; see dev/siege --help\n", what.c_str());
  exit(2);
}

double number_of(const char* text) {
  char* end = nullptr;
  const double number = strtod(text, &end);
  if (end == text || *end != '\0' || number <= 0) refuse(sstr("'%s' is not a number above 0", text));
  return number;
}

const Scene& scene_of(const char* name) {
  const auto found =
      std::find_if(kScenes.begin(), kScenes.end(), [&](const Scene& scene) { return strcmp(scene.name, name) == 0; });
  if (found == kScenes.end()) refuse(sstr("there is no scene '%s'", name));
  return *found;
}

[[noreturn]] void list_scenes() {
  for (const Scene& scene : kScenes) printf("%-16s %s\n", scene.name, scene.what);
  exit(0);
}

struct Orders {
  SiegePlan plan;
  std::vector<Scene> scenes;
};

Orders orders_of(int argc, char** argv) {
  Orders orders;
  orders.plan.program = daemon_program();
  orders.plan.seed = static_cast<unsigned>(time(nullptr)) % 1000000;
  const option options[] = {{"packaged", no_argument, nullptr, 'p'},
                            {"daemon", required_argument, nullptr, 'd'},
                            {"seed", required_argument, nullptr, 's'},
                            {"list", no_argument, nullptr, 'l'},
                            {}};
  for (int letter = 0; (letter = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    if (letter == 'p') orders.plan.packaged = true;
    if (letter == 'd') orders.plan.program = optarg;
    if (letter == 's') orders.plan.seed = static_cast<unsigned>(number_of(optarg));
    if (letter == 'l') list_scenes();
    if (letter == '?') exit(2);
  }
  if (optind < argc && strchr("0123456789", argv[optind][0]) != nullptr) {
    orders.plan.seconds = number_of(argv[optind++]);
  }
  for (; optind < argc; ++optind) orders.scenes.push_back(scene_of(argv[optind]));
  if (orders.scenes.empty()) orders.scenes = kScenes;
  return orders;
}

// "0.1 12 3012": three figures in ms.
std::string spread(std::vector<double> samples) {
  if (samples.empty()) return "-";
  std::string text;
  for (const double share : {0.5, 0.99, 1.0}) {
    const double value = percentile(samples, share);
    text += sstr("%s%.*f", text.empty() ? "" : " ", value < 10 ? 1 : 0, value);
  }
  return text;
}

std::string longest(std::vector<double> samples) {
  return samples.empty() ? "-" : sstr("%.0f", percentile(samples, 1));
}

void print_seen(const char* name, const char* phase, const Seen& seen) {
  printf("%-16s %-6s %-17s %-17s %-15s %6s  %-17s %4d %5d %4d %7.0f", name, phase, spread(seen.client).c_str(),
         spread(seen.handled).c_str(), spread(seen.stamp).c_str(), longest(seen.tick).c_str(),
         spread(seen.newcomer).c_str(), seen.newcomers_failed, seen.lost, seen.unhandled, seen.held_ms);
}

bool run(const Orders& orders) {
  printf("%zu scenes of %.1f s, %s settings, seed %u; ms, three figures are p50 p99 max\n\n", orders.scenes.size(),
         orders.plan.seconds, orders.plan.packaged ? "packaged" : "no", orders.plan.seed);
  printf("%-16s %-6s %-17s %-17s %-15s %6s  %-17s %4s %5s %4s %7s %6s\n", "scene", "", "client", "handled",
         "stamp late", "tick", "newcomer", "fail", "lost", "left", "held", "stop");
  bool kept = true;
  for (const Scene& scene : orders.scenes) {
    const Outcome outcome = run_scene(scene, orders.plan);
    print_seen(scene.name, "peace", outcome.peace);
    printf("\n");
    print_seen("", "siege", outcome.siege);
    printf(" %6.0f\n", outcome.stop_ms);
    for (const std::string& promise : outcome.broken) printf("  BROKEN: %s\n", promise.c_str());
    fflush(stdout);
    kept = kept && outcome.broken.empty();
  }
  printf("\n%s\n", kept ? "All promises were kept." : "Promises were broken.");
  return kept;
}

}  // namespace

int main(int argc, char** argv) {
  const Orders orders = orders_of(argc, argv);
  signal(SIGPIPE, SIG_IGN);
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = std::min<rlim_t>(descriptors.rlim_max, 4096);  // for a thousand silent clients
  setrlimit(RLIMIT_NOFILE, &descriptors);
  return run(orders) ? 0 : 1;
}
