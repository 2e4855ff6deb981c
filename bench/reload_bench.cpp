// reload_trial: how long the trial of a reload holds up events, with 100 scripts and 10 MB of Lua values. The floor is
// a bare fork of the same process.

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "bench/benchmarks.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "bench/measure.h"
#include "script/reload_trial.h"
#include "util/text.h"

namespace {

constexpr int kScripts = 100;
constexpr char kHeap[] =
    "ballast = {} while collectgarbage('count') < 10 * 1024 do for i = 1, 100 do ballast[#ballast + 1] = { i } end end";

std::string make_scripts() {
  std::string folder = bench_root() + "/scripts";
  std::filesystem::create_directories(folder);
  for (int i = 0; i < kScripts; ++i) {
    const std::string name = "s" + std::to_string(i);
    std::ofstream(sstr("%s/%s.lua", folder.c_str(), name.c_str()))
        << "script_define('" << name << "', {})\nlocal state = {}\n"
        << "es_" << name << " = { list_func = { { '" << name << "', function() state.last = evt_info() end } } }\n"
        << "for i = 1, 100 do state[i] = { i, '" << name << " ' .. i } end\n";
  }
  return folder;
}

double seconds_of_fork() {
  const Stopwatch watch;
  const pid_t child = fork();
  if (child == 0) _exit(0);
  const double seconds = watch.seconds();
  waitpid(child, nullptr, 0);
  return seconds;
}

}  // namespace

void add_reload_benchmark() {
  add_benchmark("reload_trial", 9, [](Figures& figures) {
    const std::string folder = make_scripts();
    LoopHere loop(kHeap);
    loop.start();
    figures["floor_ms"] = seconds_of_fork() * 1000;
    const Stopwatch watch;
    const TrialVerdict verdict = try_reload(loop.script, folder.c_str(), "");
    figures["whole_ms"] = watch.seconds() * 1000;
    loop.stop();
    if (!verdict.passed) throw std::runtime_error(verdict.text);
    figures["held_ms"] = static_cast<double>(verdict.held_us) / 1000;
  });
}
