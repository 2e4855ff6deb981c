// A request whose answer takes time: it is answered on a thread of its own, so that nobody else waits.
#pragma once

#include <pthread.h>

#include <atomic>
#include <functional>
#include <memory>

#include "control/answer.h"
#include "control/control_request.h"

class WaitingCall {
 public:
  // Answers the request, on the call's thread. Has to return soon once given_up() is true: nobody waits for the answer
  // any more.
  using Function = std::function<void(const ControlRequest&, Answer&, const std::function<bool()>& given_up)>;

  // Starts the thread, which calls when_done() at its end. `function` must live longer than the call. Returns null when
  // no thread can be started. Control thread, like everything here.
  static std::unique_ptr<WaitingCall> start(const Function& function, ControlRequest request,
                                            std::function<void()> when_done);

  // Gives up, and joins the thread.
  ~WaitingCall();
  WaitingCall(const WaitingCall&) = delete;
  WaitingCall& operator=(const WaitingCall&) = delete;

  void give_up() { is_given_up = true; }
  bool is_done() const { return done; }

  // The answer. Only after is_done().
  Answer& result() { return answer; }

 private:
  WaitingCall(const Function& the_function, ControlRequest the_request, std::function<void()> the_end)
      : function(the_function), request(std::move(the_request)), when_done(std::move(the_end)) {}
  static void* main(void* instance);

  const Function& function;
  const ControlRequest request;
  const std::function<void()> when_done;
  Answer answer;
  std::atomic<bool> done{false};
  std::atomic<bool> is_given_up{false};
  pthread_t thread = 0;
};
