// One scene of the siege: an attack, what the witnesses are promised beside it, and what they saw.
#pragma once

#include <string>
#include <vector>

#include "bench/siege/attacks.h"
#include "bench/siege/witnesses.h"

// Bounds that a noisy machine keeps, in ms; 0 where nothing is promised. Always promised: nothing is lost, every line
// is handled, no newcomer is turned away, the daemon stops in time with status 0 and no sanitizer has spoken.
struct Promise {
  bool waits_bounded;  // the loop is not held for longer than the budgets of waits for clients
  double handled_p50;
  double handled_max;
  double stamp_max;
  double newcomer_max;
};

struct Scene {
  const char* name;
  const char* what;
  Attack attack;
  WitnessPlan witnesses;
  Promise promise;
};

// In the order in which they run.
extern const std::vector<Scene> kScenes;

struct SiegePlan {
  std::string program;
  bool packaged = false;
  double seconds = 10;  // of each attack, after a quarter of it in peace
  unsigned seed = 1;
};

struct Outcome {
  Seen peace;
  Seen siege;
  double stop_ms = 0;
  std::vector<std::string> broken;  // promises, each in words
};

// Runs the scene with a daemon of its own. What fails is a broken promise.
Outcome run_scene(const Scene& scene, const SiegePlan& plan);
