#include "control/waiting_call.h"

#include <exception>

#include "util/service_thread.h"

std::unique_ptr<WaitingCall> WaitingCall::start(const Function& function, ControlRequest request,
                                                std::function<void()> when_done) {
  std::unique_ptr<WaitingCall> call(new WaitingCall(function, std::move(request), std::move(when_done)));
  if (start_service_thread(&call->thread, main, call.get()) != 0) return nullptr;
  return call;
}

WaitingCall::~WaitingCall() {
  give_up();
  if (thread != 0) pthread_join(thread, nullptr);
}

void* WaitingCall::main(void* instance) {
  WaitingCall& call = *static_cast<WaitingCall*>(instance);
  try {
    call.function(call.request, call.answer, [&call] { return call.is_given_up.load(); });
  } catch (const std::exception& error) {
    call.answer.fail(error.what());
  } catch (...) {
    call.answer.fail("unknown error");
  }
  call.done = true;
  call.when_done();
  return nullptr;
}
