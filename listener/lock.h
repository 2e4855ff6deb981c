// The listener's lock: a POSIX mutex and the scope that holds it.
#pragma once

#include <pthread.h>
#include <stdexcept>

class ListenerMutex {
 public:
  ListenerMutex() {
    if (pthread_mutex_init(&mutex, nullptr) != 0) throw std::runtime_error("pthread mutex_init error");
  }
  ~ListenerMutex() { pthread_mutex_destroy(&mutex); }
  ListenerMutex(const ListenerMutex&) = delete;
  ListenerMutex& operator=(const ListenerMutex&) = delete;

 private:
  friend class Locked;
  pthread_mutex_t mutex;
};

// Holds the lock while it lives. A function that demands one as an argument needs the lock.
class Locked {
 public:
  explicit Locked(ListenerMutex& wanted) : owner(wanted) { pthread_mutex_lock(&owner.mutex); }
  ~Locked() { pthread_mutex_unlock(&owner.mutex); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  ListenerMutex& owner;
};
