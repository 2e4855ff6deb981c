#include "listener/fair_mutex.h"

#include <stdexcept>

FairMutex::FairMutex() {
  if (pthread_mutex_init(&turnstile, nullptr) != 0) throw std::runtime_error("pthread mutex_init error");
  if (pthread_mutex_init(&mutex, nullptr) != 0) {
    pthread_mutex_destroy(&turnstile);
    throw std::runtime_error("pthread mutex_init error");
  }
}

FairMutex::~FairMutex() {
  pthread_mutex_destroy(&mutex);
  pthread_mutex_destroy(&turnstile);
}

Locked::Locked(FairMutex& wanted) : owner(wanted) {
  pthread_mutex_lock(&owner.turnstile);
  pthread_mutex_lock(&owner.mutex);
  pthread_mutex_unlock(&owner.turnstile);
}

Locked::~Locked() {
  pthread_mutex_unlock(&owner.mutex);
}
