// dev/bench-fleet tells about the arguments.
#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "bench/fleet/fleet.h"
#include "device/log.h"

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  const auto number = [&](int place, int otherwise) { return argc > place ? atoi(argv[place]) : otherwise; };
  signal(SIGPIPE, SIG_IGN);
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  elog_set_level("fleet", -1);  // a thousand devices have much to say
  setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    if (what == "rates") {
      event_rates(number(2, 5), number(3, 9000));
    } else if (what == "storm") {
      for (const char* broker : {"mosquitto", "nats-server"}) reconnect_storm(broker, number(3, 1000), number(2, 10));
    } else {
      fprintf(stderr, "expected rates or storm; see dev/bench-fleet --help\n");
      return 2;
    }
  } catch (const std::exception& error) {
    fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
