// The real daemon in a crowd: numbered events from processes and from a plug-in, clients that read, come and go, stall
// and send rubbish, scripts that fail, reloads, signals, a wall clock that is set back and forth. Nothing may be lost,
// doubled, out of order or left behind.
//
// ZELVIND_SOAK_SECONDS sets how long (30), ZELVIND_SOAK_SEED repeats a run's choices. dev/soak starts it.

#include <gtest/gtest.h>
#include <signal.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/event_client.h"
#include "tests/real_daemon.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kPosters = 5;  // number 0 is the plug-in
constexpr int kReaders = 3;
constexpr int kAheadMax = 2000;  // events of the processes that a reader has yet to read: fewer than sockets hold

int setting(const char* name, int otherwise) {
  const char* const text = getenv(name);
  return text == nullptr ? otherwise : atoi(text);
}

std::string info_of(int poster, int number) {
  const std::string info = "poster=" + std::to_string(poster) + "&n=" + std::to_string(number);
  return poster == 0 ? info : info + "&pad=" + std::string(number % 97 == 0 ? 3000 : number % 50, '.');
}

// What one client has been sent.
class Sequence {
 public:
  // Takes an event in. False when it is damaged, or comes too early, too late or again; one that is left out is only
  // allowed when not `gapless`.
  bool take(const EventClient::Event& event, bool gapless) {
    int poster = -1;
    int number = -1;
    if (sscanf(event.info.c_str(), "poster=%d&n=%d", &poster, &number) != 2) return false;
    int& before = last[poster];
    const bool fits = gapless ? number == before + 1 : number > before;
    before = number;
    if (poster > 0) ++taken;
    return fits && event.info == info_of(poster, number);
  }
  std::map<int, int> last;    // of each poster
  std::atomic<int> taken{0};  // of the processes
};

class Soak : public testing::Test {
 protected:
  void SetUp() override {
    setenv("SOAK_GATE", daemon.path("gate").c_str(), 1);
    setenv("LD_LIBRARY_PATH", PLUGIN_DIR, 1);
    setenv("ASAN_OPTIONS", "quarantine_size_mb=16", 0);
    daemon.write("opt/flash/mtd4-cfg/zelvind.info",
                 "log_level = 2\nlistener_port = 0\nscript_path = " + daemon.path("scripts") +
                     "\ndll_path = " + daemon.path("plugins") + "\n");
    for (const char* plugin : {"plugins/libessoak.so", "plugins/libeaprocess.so"}) daemon.write(plugin, "");
    change_script();
    ASSERT_TRUE(daemon.start("FAULT=clock $FAULTY -p $ROOT/pid >/dev/null 2>>$ROOT/stderr"));
    port = daemon.port();
  }

  // Lets time pass. False when the crowd is to leave.
  bool while_crowded(milliseconds time) const {
    const auto until = Clock::now() + time;
    while (crowd && Clock::now() < until) std::this_thread::sleep_for(milliseconds(10));
    return crowd;
  }

  // Whether some reader is so far behind that the daemon might have to wait for it. It waits for all clients together,
  // and those that stall use that up.
  bool is_ahead() const {
    return std::any_of(std::begin(sequences), std::end(sequences),
                       [this](const Sequence& sequence) { return posted_in_all - sequence.taken > kAheadMax; });
  }

  // Posts batches over connections of their own; each batch is known to have been taken in.
  void post_events(int poster) {
    std::mt19937 random(phase_seed + static_cast<unsigned>(poster));
    while (posting) {
      if (is_ahead()) {
        std::this_thread::sleep_for(milliseconds(2));
        continue;
      }
      std::string lines;
      auto count = random() % 300 + 1;
      posted_in_all += static_cast<int>(count);
      for (; count > 0; --count) {
        if (random() % 200 == 0) lines += random() % 2 == 0 ? "rubbish\n" : "9 \n";
        lines += "1 soak " + info_of(poster, ++posted[poster]) + "\n";
      }
      ASSERT_TRUE(daemon.post(lines));
      std::this_thread::sleep_for(milliseconds(random() % 30));
    }
  }

  // A client that must get everything.
  void read_everything(EventClient& client, Sequence& sequence) {
    EventClient::Event event;
    while (event.name != "end_of_soak") {
      errno = 0;
      if (client.read(event)) {
        EXPECT_TRUE(event.name != "soak" || sequence.take(event, true)) << event.info.substr(0, 40);
      } else {
        ASSERT_EQ(errno, EAGAIN) << "a reader was cut off";  // silence while nobody posts
      }
    }
    ++readers_done;
  }

  void read_some(EventClient& client, Sequence& sequence, unsigned count) {
    EventClient::Event event;
    while (crowd && count-- > 0) {
      EXPECT_TRUE(client.read(event) && sequence.take(event, false)) << event.info.substr(0, 40);
    }
  }

  // Clients that come, subscribe again and again, read a little, and go, one way or the other.
  void come_and_go(unsigned number) {
    std::mt19937 random(phase_seed + 100 + number);
    while (while_crowded(milliseconds(random() % 100))) {
      EventClient client(port);
      Sequence sequence;
      for (auto rounds = random() % 3; crowd && rounds > 0; --rounds) {
        client.send_bytes(EventClient::subscription("mail") + EventClient::subscription("soak"));
        read_some(client, sequence, static_cast<unsigned>(random() % 400));
      }
      client.leave(random() % 2 == 0);
    }
  }

  // Clients that stop reading for seconds, and then go on, with whole packets in order.
  void stall() {
    std::mt19937 random(phase_seed + 200);
    while (while_crowded(milliseconds(random() % 4000))) {
      EventClient client(port, 4096);
      client.send_bytes(EventClient::subscription("soak"));
      while_crowded(milliseconds(5000));
      Sequence sequence;
      read_some(client, sequence, 2000);
      client.leave(random() % 2 == 0);
      while_crowded(milliseconds(5000));
    }
  }

  void send_rubbish() {
    std::mt19937 random(phase_seed + 300);
    while (while_crowded(milliseconds(random() % 200))) {
      EventClient client(port);
      std::string bytes(random() % 2000, '\0');
      for (char& byte : bytes) byte = static_cast<char>(random() % 3 == 0 ? random() : 0);
      client.send_bytes(bytes);
      while_crowded(milliseconds(random() % 200));
      client.leave(random() % 2 == 0);
    }
  }

  // Replaces the script in one step, so that no reload reads half of it.
  void change_script() const {
    std::filesystem::copy_file(SOAK_LUA, daemon.path("next"));
    std::filesystem::rename(daemon.path("next"), daemon.path("scripts/soak.lua"));
  }

  // How often a line of the log bears an earlier date than the line before.
  int steps_back() const {
    int steps = 0;
    std::istringstream lines(daemon.log());
    std::string before;
    for (std::string line; std::getline(lines, line); before = line.substr(0, 10)) steps += line.substr(0, 10) < before;
    return steps;
  }

  // Everybody at once for `duration`; afterwards all that was posted has been taken in.
  void crowded(seconds duration) {
    posting = crowd = true;
    daemon.arm(false);
    phase_seed = static_cast<unsigned>(choices());
    daemon.write("gate", "");
    std::vector<std::thread> posters;
    std::vector<std::thread> clients;
    for (int i = 1; i < kPosters; ++i) posters.emplace_back([this, i] { post_events(i); });
    for (unsigned i = 0; i < 3; ++i) clients.emplace_back([this, i] { come_and_go(i); });
    clients.emplace_back([this] { stall(); });
    clients.emplace_back([this] { send_rubbish(); });
    const auto end = Clock::now() + duration;
    while (Clock::now() < end) {
      while_crowded(milliseconds(choices() % 600));
      if (choices() % 10 == 0) change_script();
      if (choices() % 10 == 0) daemon.arm(choices() % 2 == 0);
      EXPECT_TRUE(daemon.send_signal(choices() % 10 == 0 ? SIGHUP : SIGPIPE));
    }
    crowd = false;
    for (std::thread& client : clients) client.join();
    posting = false;
    for (std::thread& poster : posters) poster.join();
    std::filesystem::remove(daemon.path("gate"));
    daemon.arm(true);
  }

  long descriptors() const {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(daemon.process()) + "/fd");
    return std::distance(begin(all), end(all));
  }

  long memory_kb() const {
    const std::string status = read_file("/proc/" + std::to_string(daemon.process()) + "/status");
    return atol(status.c_str() + status.find("VmRSS:") + 6);
  }

  RealDaemon daemon;
  const unsigned seed = static_cast<unsigned>(setting("ZELVIND_SOAK_SEED", static_cast<int>(time(nullptr) % 1000000)));
  std::mt19937 choices{seed};  // main thread
  unsigned phase_seed = 0;
  int port = 0;
  std::atomic<bool> posting{false};
  std::atomic<bool> crowd{false};
  std::atomic<int> readers_done{0};
  std::atomic<int> posted_in_all{0};  // by the processes
  Sequence sequences[kReaders];
  int posted[kPosters] = {};
};

TEST_F(Soak, NothingIsLostAndNothingIsLeft) {
  const seconds duration(setting("ZELVIND_SOAK_SECONDS", 30));
  const bool is_long = duration > seconds(300);  // then the idle daemon has the time to tidy up
  const int phases = is_long ? 10 : 2;
  std::cout << "seed " << seed << std::endl;

  std::vector<std::unique_ptr<EventClient>> clients;
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    clients.push_back(std::make_unique<EventClient>(port));
    daemon.subscribe(*clients.back(), "soak,end_of_soak");
    readers.emplace_back(
        [this, &client = *clients.back(), &sequence = sequences[i]] { read_everything(client, sequence); });
  }

  // A first reload takes memory for good; and the programs that the script starts as it is loaded have ended.
  ASSERT_TRUE(daemon.send_signal(SIGHUP) && daemon.wait_for("reloading"));
  ASSERT_TRUE(daemon.wait_for("soak: tick", daemon.count("soak: tick") + 2));
  const long before = descriptors();
  std::vector<long> memory;
  for (int phase = 1; phase <= phases && !HasFailure(); ++phase) {
    crowded(duration / phases);
    EXPECT_TRUE(daemon.wait_for("soak: plug-in ", static_cast<size_t>(phase)));
    EXPECT_TRUE(daemon.wait_for("soak: tick", daemon.count("soak: tick") + 2));
    EXPECT_TRUE(wait_until([&] { return descriptors() == before; }));
    if (is_long) std::this_thread::sleep_for(seconds(35));
    memory.push_back(memory_kb());
    std::cout << "phase " << phase << ": " << memory.back() << " KiB" << std::endl;
  }
  EXPECT_LT(memory.back(), memory.front() + memory.front() / 4);

  posted[0] = daemon.last_number_behind("soak: plug-in ");
  std::ostringstream report;
  for (const int count : posted) report << (report.tellp() > 0 ? " " : "lua-trace: soak: ") << count;
  report << ", faults 0, programs left 0\n";
  EXPECT_TRUE(daemon.post("1 soak_report\n1 end_of_soak\n"));
  EXPECT_TRUE(daemon.wait_for(report.str())) << report.str();
  EXPECT_TRUE(wait_until([&] { return readers_done == kReaders; }));
  EXPECT_EQ(daemon.stop(), 0);  // a sanitizer would have changed that
  for (std::thread& reader : readers) reader.join();
  for (Sequence& sequence : sequences) {
    for (int poster = 0; poster < kPosters; ++poster) EXPECT_EQ(sequence.last[poster], posted[poster]) << poster;
  }
  std::cout << report.str() << daemon.count("reloading") << " reloads, " << daemon.count("new client") << " clients, "
            << daemon.count("stopped reading") << " stalls, " << steps_back() << " steps back of the clock"
            << std::endl;
  EXPECT_GT(steps_back(), 0);
}

}  // namespace
