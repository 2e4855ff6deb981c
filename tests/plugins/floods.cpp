// libes_floods.so: posts 100,000 numbered events from a thread of its own, as fast as they are taken.
#include <zelvind/plugin.h>

#include <chrono>
#include <cstdio>
#include <thread>

static std::thread flood;

extern "C" int esource_init() {
  flood = std::thread([] {
    for (int number = 1; number <= 100000;) {
      char info[32];
      snprintf(info, sizeof(info), "n=%d", number);
      const int result = event_post(5, "flood", info);
      if (result == -1) return;
      if (result == 1) ++number;
      if (result == -2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    event_post(5, "flood", "n=0");
  });
  return 1;
}

extern "C" void esource_cleanup() {
  flood.join();
}
