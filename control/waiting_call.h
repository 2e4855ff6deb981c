// A request that has to wait for its answer, on a thread of its own, so that nobody else waits with it.
#pragma once

#include <pthread.h>

#include <atomic>
#include <functional>
#include <memory>

#include "control/answer.h"
#include "control/control_request.h"

class WaitingCall {
 public:
  // Answers the request. Has to return soon once given_up() is true: nobody waits for the answer any more.
  using Function = std::function<void(const ControlRequest&, Answer&, const std::function<bool()>& given_up)>;

  // Starts the thread, which calls when_done() at its end. `function` must live longer than the call. Null: there is no
  // thread to be had.
  static std::unique_ptr<WaitingCall> start(const Function& function, const ControlRequest& request,
                                            std::function<void()> when_done);

  // Gives up, and waits for the thread.
  ~WaitingCall();
  WaitingCall(const WaitingCall&) = delete;
  WaitingCall& operator=(const WaitingCall&) = delete;

  void give_up() { is_given_up = true; }
  bool is_done() const { return done; }

  // The answer, once it is done.
  Answer& result() { return answer; }

 private:
  WaitingCall(const Function& the_function, const ControlRequest& the_request, std::function<void()> the_end)
      : function(the_function), request(the_request), when_done(std::move(the_end)) {}
  static void* main(void* instance);

  const Function& function;
  const ControlRequest request;
  const std::function<void()> when_done;
  Answer answer;
  std::atomic<bool> done{false};
  std::atomic<bool> is_given_up{false};
  pthread_t thread = 0;
};
