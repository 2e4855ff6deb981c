// A plug-in whose own thread posts numbered events in bursts while the file is there that SOAK_GATE names. When it has
// gone, one more event tells how many there were.
#include <zelvind/plugin.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

using std::chrono::milliseconds;

static std::thread poster;
static std::atomic<bool> ended{false};

static void post(const char* name, int number) {
  const std::string info = "poster=0&n=" + std::to_string(number);
  while (!ended && event_post(1, name, info.c_str()) == -2) std::this_thread::sleep_for(milliseconds(1));
}

static bool gate_is_open() {
  const char* const gate = getenv("SOAK_GATE");
  return gate != nullptr && access(gate, F_OK) == 0;
}

static void run() {
  for (int number = 0; !ended; std::this_thread::sleep_for(milliseconds(7))) {
    const int before = number;
    for (; !ended && gate_is_open(); std::this_thread::sleep_for(milliseconds(7))) {
      for (int i = number % 41; i >= 0; --i) post("soak", ++number);
    }
    if (number > before) post("soak_posted", number);
  }
}

int esource_init() {
  poster = std::thread(run);
  return 0;
}

void esource_prepare_cleanup() {
  ended = true;
}

void esource_cleanup() {
  poster.join();
}
