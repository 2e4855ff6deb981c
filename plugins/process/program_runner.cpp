#include "program_runner.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <zelvind/plugin.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "program.h"

namespace program_runner {
namespace {

constexpr int kRetryMs = 100;   // until an event that found the queue full is posted again
constexpr int kAgainMs = 1000;  // at least, between two times that the events of all results are posted again

using ProgramPtr = std::unique_ptr<Program>;
using Lock = std::lock_guard<std::mutex>;

struct Runner {
  Runner() = default;
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;
  ~Runner() {
    if (wake_fd >= 0) close(wake_fd);
  }

  int wake_fd = -1;    // set before the threads start
  pthread_t thread{};  // main thread
  int last_id = 0;     // caller of next_id

  std::mutex mutex;
  bool stopping = false;               // under mutex
  bool again_wanted = false;           // under mutex: the events of all in `finished` are to be posted again
  std::set<int> taken_ids;             // under mutex: the ids of the wanted, running and finished ones
  std::vector<ProgramPtr> wanted;      // under mutex: not started yet
  std::map<int, ProgramPtr> finished;  // under mutex: until their result is dropped
  std::set<int> dropped;               // under mutex: the ids of wanted and running ones that nobody waits for

  // The runner's thread only.
  std::vector<ProgramPtr> running;
  std::vector<std::pair<int, int>> unposted;  // id and status
  int64_t again_not_before = 0;               // steady_ms
};

// A plain pointer: a static object with a destructor would be destroyed while the threads run when the process ends
// without a clean-up.
Runner* g_runner = nullptr;

void finish(Runner& runner, ProgramPtr program) {
  const Lock lock(runner.mutex);
  const int id = program->id;
  if (runner.dropped.erase(id) != 0) {
    runner.taken_ids.erase(id);
    return;
  }
  runner.unposted.emplace_back(id, program->status);
  runner.finished[id] = std::move(program);
}

bool is_dropped(Runner& runner, const ProgramPtr& program) {
  const Lock lock(runner.mutex);
  return runner.dropped.count(program->id) != 0;
}

void kill_dropped(Runner& runner) {
  for (const ProgramPtr& program : runner.running) {
    if (is_dropped(runner, program)) program->kill_group();
  }
}

// Returns false when the thread is to end.
bool start_wanted(Runner& runner) {
  std::vector<ProgramPtr> wanted;
  {
    const Lock lock(runner.mutex);
    if (runner.stopping) return false;
    wanted.swap(runner.wanted);
  }
  for (ProgramPtr& program : wanted) {
    if (!is_dropped(runner, program) && program->start()) {
      runner.running.push_back(std::move(program));
    } else {
      finish(runner, std::move(program));
    }
  }
  return true;
}

void finish_ended(Runner& runner) {
  const auto ended = std::partition(runner.running.begin(), runner.running.end(),
                                    [](const ProgramPtr& program) { return !program->has_ended(); });
  for (auto program = ended; program != runner.running.end(); ++program) {
    (*program)->reap();
    finish(runner, std::move(*program));
  }
  runner.running.erase(ended, runner.running.end());
}

// An event that was still on its way then comes twice; the second one finds no result and is ignored.
void unpost_finished(Runner& runner, int64_t now) {
  const Lock lock(runner.mutex);
  if (!runner.again_wanted || now < runner.again_not_before) return;
  runner.unposted.clear();
  for (const auto& [id, program] : runner.finished) runner.unposted.emplace_back(id, program->status);
  runner.again_wanted = false;
  runner.again_not_before = now + kAgainMs;
}

// What a full queue refuses is posted again later; nobody reads a closed one any more.
void post_finished(Runner& runner) {
  while (!runner.unposted.empty()) {
    char info[64];
    const auto& [id, status] = runner.unposted.front();
    snprintf(info, sizeof(info), "id=%d&status=%d", id, status);
    if (event_post(kEventType, "proc_done", info) == -2) return;
    runner.unposted.erase(runner.unposted.begin());
  }
}

int wait_ms(Runner& runner) {
  int64_t wait = runner.unposted.empty() ? INT_MAX : kRetryMs;
  const int64_t now = steady_ms();
  {
    const Lock lock(runner.mutex);
    if (runner.again_wanted) wait = std::min(wait, runner.again_not_before - now);
  }
  for (const ProgramPtr& program : runner.running) wait = std::min(wait, program->next_look() - now);
  if (wait == INT_MAX) return -1;
  return static_cast<int>(std::max<int64_t>(wait, 0));
}

void wait_and_read(Runner& runner) {
  std::vector<pollfd> fds = {{runner.wake_fd, POLLIN, 0}};
  for (const ProgramPtr& program : runner.running) fds.push_back({program->output_fd(), POLLIN, 0});
  if (poll(fds.data(), fds.size(), wait_ms(runner)) <= 0) return;
  eventfd_t count = 0;
  if (fds[0].revents != 0) eventfd_read(runner.wake_fd, &count);
  for (size_t i = 0; i < runner.running.size(); ++i) {
    if (fds[i + 1].revents != 0) runner.running[i]->read_output();
  }
}

bool one_pass(Runner& runner) {
  if (!start_wanted(runner)) return false;
  finish_ended(runner);
  kill_dropped(runner);
  const int64_t now = steady_ms();
  for (const ProgramPtr& program : runner.running) program->enforce_time(now);
  unpost_finished(runner, now);
  post_finished(runner);
  wait_and_read(runner);
  return true;
}

void* thread_main(void* argument) {
  Runner& runner = *static_cast<Runner*>(argument);
  for (bool go_on = true; go_on;) {
    try {
      go_on = one_pass(runner);
    } catch (const std::exception& error) {
      elog(1, "process: %s", error.what());
    }
  }
  for (const ProgramPtr& program : runner.running) program->kill_group();
  for (const ProgramPtr& program : runner.running) program->reap();
  return nullptr;
}

void wake(const Runner& runner) {
  eventfd_write(runner.wake_fd, 1);
}

}  // namespace

bool start() noexcept try {
  auto runner = std::make_unique<Runner>();
  runner->running.reserve(kProgramsMax);  // a program that has started must not be lost for want of memory
  runner->wake_fd = above_standard_streams(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (runner->wake_fd < 0) return false;
  errno = start_thread(&runner->thread, thread_main, runner.get());
  if (errno != 0) return false;
  g_runner = runner.release();
  return true;
} catch (...) {
  errno = ENOMEM;
  return false;
}

void stop() noexcept {
  const std::unique_ptr<Runner> runner(std::exchange(g_runner, nullptr));
  if (runner == nullptr) return;
  {
    const Lock lock(runner->mutex);
    runner->stopping = true;
  }
  wake(*runner);
  pthread_join(runner->thread, nullptr);
}

int next_id() noexcept {
  if (g_runner == nullptr) return 1;  // run will refuse it
  int& id = g_runner->last_id;
  const Lock lock(g_runner->mutex);
  do {
    id = id == INT_MAX ? 1 : id + 1;
  } while (g_runner->taken_ids.count(id) != 0);
  return id;
}

const char* run(int id, const char* const* argv, int timeout_ms) noexcept try {
  if (g_runner == nullptr) return "the daemon is ending";
  auto program = std::make_unique<Program>(id, argv, timeout_ms, g_runner->wake_fd);
  bool is_full = false;
  {
    const Lock lock(g_runner->mutex);
    is_full = g_runner->taken_ids.size() >= kProgramsMax;
    g_runner->again_wanted = g_runner->again_wanted || is_full;
    if (!is_full) {
      g_runner->wanted.push_back(std::move(program));
      g_runner->taken_ids.insert(id);
    }
  }
  wake(*g_runner);
  return is_full ? "too many programs" : nullptr;
} catch (...) {
  return "not enough memory";
}

bool find_result(int id, Result* result) noexcept {
  if (g_runner == nullptr) return false;
  const Lock lock(g_runner->mutex);
  const auto found = g_runner->finished.find(id);
  if (found == g_runner->finished.end()) return false;
  const Program& program = *found->second;
  *result = {program.status, program.output.data(), program.output.size()};
  return true;
}

void post_again() noexcept {
  if (g_runner == nullptr) return;
  {
    const Lock lock(g_runner->mutex);
    g_runner->again_wanted = true;
  }
  wake(*g_runner);
}

void drop(int id) noexcept try {
  if (g_runner == nullptr) return;
  {
    const Lock lock(g_runner->mutex);
    if (g_runner->taken_ids.count(id) == 0) return;
    if (g_runner->finished.erase(id) != 0) {
      g_runner->taken_ids.erase(id);
      return;
    }
    g_runner->dropped.insert(id);
  }
  wake(*g_runner);
} catch (...) {  // no memory: the program goes on until its time is over, and its result keeps its place
}

}  // namespace program_runner
