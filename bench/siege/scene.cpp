#include "bench/siege/scene.h"

#include <cmath>
#include <cstdio>
#include <exception>

#include "bench/daemon_process.h"
#include "bench/measure.h"
#include "bench/peer_process.h"
#include "util/text.h"

namespace {

constexpr int kPad = 30000;  // fills what the kernel holds for a client that does not read in a second
constexpr double kPeaceShare = 0.25;
constexpr double kDrainS = 60;
constexpr double kStopS = 20;
constexpr double kHeldMs = 400;  // and a share of the time: how long a noisy machine holds a loop that nobody holds
constexpr double kHeldShare = 0.1;
#ifdef ZELVIND_SANITIZED
constexpr double kSlack = 10;  // the sanitizers make everything slower
#else
constexpr double kSlack = 1;
#endif

constexpr Promise kSlowClients{true, 0, 0, 0, 3000};

class Verdict {
 public:
  explicit Verdict(std::vector<std::string>& broken_promises) : broken(broken_promises) {}

  void expect_at_most(const char* what, double bound, double value) {
    if (bound > 0 && value > bound * kSlack) broken.push_back(sstr("%s %.0f ms, promised %.0f", what, value, bound));
  }
  void expect_none(const char* what, int count) {
    if (count > 0) broken.push_back(sstr("%d %s", count, what));
  }

 private:
  std::vector<std::string>& broken;
};

double share_of(std::vector<double> samples, double share) {
  return samples.empty() ? 0 : percentile(samples, share);
}

void judge(const Scene& scene, const SiegePlan& plan, Outcome& outcome) {
  Verdict verdict(outcome.broken);
  const Promise& promise = scene.promise;
  const Seen& seen = outcome.siege;
  for (const Seen* phase : {&outcome.peace, &outcome.siege}) {
    verdict.expect_none("events lost by a client that reads", phase->lost);
    verdict.expect_none("lines not handled", phase->unhandled);
    verdict.expect_none("newcomers without an event", phase->newcomers_failed);
  }
  const double budgets_ms = 2 * (plan.packaged ? 300 : 3000) * std::ceil(plan.seconds / 60);  // listener_wait_ms
  const double held_ms = budgets_ms + kHeldMs + plan.seconds * 1000 * kHeldShare;
  verdict.expect_at_most("the loop was held for", promise.waits_bounded ? held_ms : 0, seen.held_ms);
  verdict.expect_at_most("half of the lines were handled after", promise.handled_p50, share_of(seen.handled, 0.5));
  verdict.expect_at_most("a line was handled after", promise.handled_max, share_of(seen.handled, 1));
  verdict.expect_at_most("a stamp was late by", promise.stamp_max, share_of(seen.stamp, 1));
  verdict.expect_at_most("a newcomer waited for", promise.newcomer_max, share_of(seen.newcomer, 1));
}

void siege(const Scene& scene, const SiegePlan& plan, DaemonProcess& daemon, Outcome& outcome) {
  const double peace_s = plan.seconds * kPeaceShare;
  const Target target{daemon.process(), daemon.port(), daemon.event_socket(), plan.seconds};
  PeerProcess attackers([&](Channel& parent) {
    std::mt19937 random(plan.seed);
    parent.wait();
    scene.attack(target, random);
  });
  Witnesses witnesses(daemon, scene.witnesses, peace_s + plan.seconds + kDrainS);
  usleep(static_cast<useconds_t>(peace_s * 1e6));
  witnesses.next_phase();
  attackers.channel().signal();
  usleep(static_cast<useconds_t>(plan.seconds * 1e6));
  attackers.end();
  witnesses.finish(kDrainS);
  outcome.peace = witnesses.seen(0);
  outcome.siege = witnesses.seen(1);
}

}  // namespace

const std::vector<Scene> kScenes = {
    {"reconnect-one", "a client that reconnects every 7 s and never reads", reconnect_one, {kPad}, kSlowClients},
    {"reconnect-fifty", "fifty of them", reconnect_fifty, {kPad}, kSlowClients},
    {"never-read", "twenty-five that never reconnect", stall_for_ever, {kPad}, kSlowClients},
    {"slow-readers", "twenty slow readers", read_slowly, {kPad}, kSlowClients},
    {"silent", "1,000 silent connections", stay_silent, {}, {false, 0, 0, 0, 3000}},
    {"many-names", "900 clients with 65 KB of names, 100 names in turn", subscribe_much, {}, {false, 0, 2000, 0, 0}},
    {"flood-8", "8 flooding posters, handlers of 0.2 ms", flood_eight, {}, {false, 5000, 10000, 0, 0}},
    {"flood-255", "255 flooding posters", flood_many, {}, {false, 2000, 4000, 0, 0}},
    {"trickle-256", "256 posters that each end a line every 4 s", trickle, {0, true}, {false, 500, 5000, 0, 0}},
    {"rubbish", "rubbish to both sockets", send_rubbish, {}, {false, 500, 3000, 0, 3000}},
    {"slow-handler", "a handler of 3 s", hold_the_loop, {}, {false, 0, 0, 500, 0}},
    {"circle", "a handler that posts its event again", start_a_circle, {}, {false, 500, 3000, 0, 3000}},
    {"no-socket", "the event socket's file removed", remove_socket, {0, true}, {false, 500, 3000, 0, 0}},
    {"reload-flood", "reloads under 8 flooding posters", reload_and_flood, {}, {false, 2000, 5000, 0, 0}},
};

Outcome run_scene(const Scene& scene, const SiegePlan& plan) {
  Outcome outcome;
  DaemonProcess daemon({plan.program, plan.packaged, std::string(kWitnessScript) + kAttackScript});
  try {
    daemon.start();
    siege(scene, plan, daemon, outcome);
    judge(scene, plan, outcome);
    outcome.stop_ms = daemon.stop(kStopS) * 1000;
  } catch (const std::exception& error) {
    outcome.broken.emplace_back(error.what());
  }
  const std::string errors = daemon.text_of("stderr");
  if (errors.find("Sanitizer") != std::string::npos || errors.find("runtime error") != std::string::npos) {
    outcome.broken.push_back("a sanitizer's report:\n" + errors);
  }
  return outcome;
}
