// What dev/bench-fleet measures. Everything throws on failure, and prints what it finds.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

// A temporary folder, removed with what is in it.
struct BenchFolder {
  BenchFolder() {
    char name[] = "/tmp/zelvind_fleet.XXXXXX";
    path = mkdtemp(name);
  }
  ~BenchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  BenchFolder(const BenchFolder&) = delete;
  BenchFolder& operator=(const BenchFolder&) = delete;
  std::string path;
};

// Events a second to mosquitto, through daemon and uplink beside mosquitto_pub and the bare library; what that costs
// the daemon; the uplink's memory, with TLS and without.
void event_rates(int rounds, int events);

// `devices` connect to the broker `program`, which is then killed for `outage_s`.
void reconnect_storm(const std::string& program, int devices, int outage_s);
