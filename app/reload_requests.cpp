#include "app/reload_requests.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <optional>
#include <vector>

#include "app/signals.h"
#include "util/mutex.h"

namespace {

constexpr char kNotNow[] = "the daemon is starting or ending";
constexpr std::chrono::milliseconds kAskEvery{100};  // between two calls of given_up()

struct Request {
  bool with_trial = false;
  bool is_taken = false;
  std::optional<ReloadVerdict> verdict = {};
};

struct Waiting {
  Mutex mutex;
  std::condition_variable_any answered;
  bool is_open GUARDED_BY(mutex) = false;
  std::vector<Request*> requests GUARDED_BY(mutex);  // of the threads that wait, the oldest first

  void answer(const ReloadVerdict& verdict, bool also_not_taken) {
    const MutexLock lock(mutex);
    for (Request* request : requests) {
      if (!request->verdict && (request->is_taken || also_not_taken)) request->verdict = verdict;
    }
    answered.notify_all();
  }
};

Waiting& waiting() {
  static auto* const the_waiting = new Waiting;  // threads may ask until the process is gone
  return *the_waiting;
}

bool is_new(const Request* request) {
  return !request->is_taken && !request->verdict;
}

}  // namespace

ReloadVerdict ask_for_reload(bool with_trial, const std::function<bool()>& given_up) {
  Waiting& w = waiting();
  Request request{with_trial};
  MutexLock lock(w.mutex);
  if (!w.is_open) return {false, kNotNow};
  w.requests.push_back(&request);
  wake_run_loop();
  while (!request.verdict && !given_up()) w.answered.wait_for(lock, kAskEvery);
  w.requests.erase(std::find(w.requests.begin(), w.requests.end(), &request));
  return request.verdict.value_or(ReloadVerdict{false, "nobody waits for the reload any more"});
}

ReloadRequests::ReloadRequests() {
  const MutexLock lock(waiting().mutex);
  waiting().is_open = true;
}

ReloadRequests::~ReloadRequests() {
  {
    const MutexLock lock(waiting().mutex);
    waiting().is_open = false;
  }
  waiting().answer({false, kNotNow}, true);
}

bool ReloadRequests::any() {
  Waiting& w = waiting();
  const MutexLock lock(w.mutex);
  return std::any_of(w.requests.begin(), w.requests.end(), is_new);
}

bool ReloadRequests::take() {
  Waiting& w = waiting();
  const MutexLock lock(w.mutex);
  const auto oldest = std::find_if(w.requests.begin(), w.requests.end(), is_new);
  const bool with_trial = oldest == w.requests.end() || (*oldest)->with_trial;
  for (Request* request : w.requests) request->is_taken |= is_new(request) && request->with_trial == with_trial;
  return with_trial;
}

void ReloadRequests::answer(const ReloadVerdict& verdict) {
  waiting().answer(verdict, false);
}
