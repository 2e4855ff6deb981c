#include "device/host/stand_in.h"

#include <poll.h>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>

#include "device/log.h"
#include "util/service_thread.h"

void StandIn::start() {
  is_stopping = false;
  const int error = start_service_thread(&thread, main, this);
  has_thread = error == 0;
  if (!has_thread) elog(1, "evq: no thread to read events while scripts run (%s)", strerrordesc_np(error));
}

void StandIn::stop() {
  if (!has_thread) return;
  {
    const MutexLock lock(mutex);
    is_stopping = true;
    stop_asked.notify_all();
  }
  inbox.wake_stand_in();
  pthread_join(thread, nullptr);
  has_thread = false;
}

void* StandIn::main(void* instance) {
  static_cast<StandIn*>(instance)->run();
  return nullptr;
}

void StandIn::run() {
  uint32_t seen = looks.count();
  uint32_t traffic = inbox.traffic();
  Work work = Work::nothing;
  int silent_ms = kSilenceMs;
  while (!is_stopping) {
    if (silent_ms >= kSilenceMs && work != Work::held_up) {
      sleep();
      silent_ms = 0;
    }
    const uint32_t now = looks.count();
    work = now == seen ? read_while_away(now) : Work::nothing;
    seen = now;
    const uint32_t traffic_before = traffic;
    traffic = inbox.traffic();
    silent_ms = traffic == traffic_before ? silent_ms + kTickMs : 0;
    pause(kTickMs);
  }
}

// Sleeps until there is something to read, or until stop(). A wake-up that is meant for the loop ends the sleep too.
void StandIn::sleep() {
  pollfd set{posters.descriptor(), POLLIN, 0};
  if (ppoll(&set, 1, nullptr, nullptr) < 0) pause(kSilenceMs);
}

void StandIn::pause(int milliseconds) {
  MutexLock lock(mutex);
  stop_asked.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return is_stopping.load(); });
}

EventPosters::Work StandIn::read_while_away(uint32_t since) {
  if (LoopLooks::is_looking(since)) return Work::nothing;
  Work work = Work::done;
  try {
    while (work == Work::done && looks.count() == since && !is_stopping) work = posters.read_piece();
  } catch (const std::bad_alloc&) {
    work = Work::held_up;
  }
  return work;
}
