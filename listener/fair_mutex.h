// The listener's lock. In a burst of events the script thread takes it again within a microsecond of letting go; with a
// plain mutex the two listener threads, which have to be woken first, could wait for as long as the burst lasts. So
// whoever wants the lock queues at a turnstile, and the one who comes back waits behind the one who was there.
#pragma once

#include <pthread.h>

class FairMutex {
 public:
  FairMutex();  // throws std::runtime_error "pthread mutex_init error"
  ~FairMutex();
  FairMutex(const FairMutex&) = delete;
  FairMutex& operator=(const FairMutex&) = delete;

 private:
  friend class Locked;
  pthread_mutex_t turnstile;  // held only while its holder waits for the mutex
  pthread_mutex_t mutex;
};

// Holds the lock while it lives. A function that demands one as an argument needs the lock.
class Locked {
 public:
  explicit Locked(FairMutex& wanted);
  ~Locked();
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  FairMutex& owner;
};
