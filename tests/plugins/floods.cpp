// libes_floods.so: posts 100,000 numbered events from a thread of its own, as fast as they are taken, and n=0 at last.
#include <zelvind/plugin.h>

#include <chrono>
#include <string>
#include <thread>

static std::thread flood;

extern "C" int esource_init() {
  flood = std::thread([] {
    for (int number = 1, result = 0; number <= 100001 && result != -1; number += result == 1 ? 1 : 0) {
      result = event_post(5, "flood", ("n=" + std::to_string(number % 100001)).c_str());
      if (result == -2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  return 1;
}

extern "C" void esource_cleanup() {
  flood.join();
}
