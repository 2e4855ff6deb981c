/* A plug-in whose own thread posts numbered events in bursts while the file is there that SOAK_GATE names. When it has
 * gone, one more event tells how many there were. */
#define _POSIX_C_SOURCE 200809L
#include <zelvind/plugin.h>

#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

static pthread_t thread;
static atomic_int ended;

static void post(const char* name, int number) {
  const struct timespec moment = {0, 1000000};
  char info[64];
  snprintf(info, sizeof(info), "poster=0&n=%d", number);
  while (!ended && event_post(1, name, info) == -2) nanosleep(&moment, NULL);
}

static int is_open(void) {
  return !ended && access(getenv("SOAK_GATE"), F_OK) == 0;
}

static void* run(void* unused) {
  const struct timespec pause = {0, 7000000};
  int number = 0;
  while (!ended) {
    const int before = number;
    while (is_open()) {
      for (int i = number % 41; i >= 0; --i) post("soak", ++number);
      nanosleep(&pause, NULL);
    }
    if (number > before) post("soak_posted", number);
    nanosleep(&pause, NULL);
  }
  return unused;
}

int esource_init(void) {
  return -pthread_create(&thread, NULL, run, NULL);
}

void esource_prepare_cleanup(void) {
  ended = 1;
}

void esource_cleanup(void) {
  pthread_join(thread, NULL);
}
