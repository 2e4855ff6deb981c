#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <lua.hpp>
#include <thread>
#include <vector>

#include "device/counts.h"
#include "device/event_queue.h"
#include "device/event_source.h"
#include "device/host/event_inbox.h"
#include "device/host/poster_places.h"
#include "device/service.h"
#include "tests/device_root_fixture.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/unix_socket.h"

namespace {

std::string g_guarded;          // a file that a lock guards
bool g_unlocked_early = false;  // the lock was opened by name while the file was there

}  // namespace

extern "C" int flock(int fd, int operation) {
  g_unlocked_early = g_unlocked_early || (operation == LOCK_UN && std::filesystem::exists(g_guarded));
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}

namespace {

class DeviceQueue : public DeviceRoot {
 protected:
  DeviceQueue() : path(root + kEventSocketPath), L(luaL_newstate()) { open(); }
  ~DeviceQueue() override {
    helper_cleanup();
    lua_close(L);
  }

  void open() const { EXPECT_GE(helper_init(L), 0); }

  Descriptor poster() const {
    Descriptor fd(unix_stream_socket());
    EXPECT_EQ(unix_connect(fd.get(), path), 0) << path;
    return fd;
  }

  static event_counts counts() {
    event_counts now{};
    event_counts_now(&now);
    return now;
  }

  static void send_all(const Descriptor& fd, const std::string& bytes) {
    send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }

  // The next event as a line, "" when none comes.
  static std::string next(int timeout_ms) {
    event_item* item = event_dequeue(timeout_ms);
    if (item == nullptr) return "";
    const std::string line = std::to_string(item->type) + " " + item->type_name + " " + item->info;
    event_item_free(item);
    return line;
  }

  // Sends the pieces one by one as one poster that then shuts its side, and takes events until the daemon has closed,
  // too. Returns them, one a line.
  std::string post(const std::vector<std::string>& pieces) const {
    std::string events;
    const auto take = [&] {
      for (std::string event; !(event = next(1)).empty();) events += event + "\n";
    };
    const Descriptor fd = poster();
    for (const std::string& piece : pieces) send_all(fd, piece), take();
    shutdown(fd.get(), SHUT_WR);
    for (char byte = 0; recv(fd.get(), &byte, 1, MSG_DONTWAIT) != 0;) take();
    return events;
  }

  std::string path;
  lua_State* L;
};

TEST_F(DeviceQueue, LinesOfPosters) {
  const std::string longest = "1 n " + std::string(64996, 'x');
  struct {
    const char* what;
    std::vector<std::string> pieces;
    std::string events;
  } const rows[] = {
      {"lines", {"1 door a=1\n-2 heat \n2 door", " b=2"}, "1 door a=1\n-2 heat \n2 door b=2\n"},
      {"a byte at a time", {"1", " ", "n", " ", "a", "=", "1", "\n", "2", " ", "n"}, "1 n a=1\n2 n \n"},
      {"longest line", {"1", longest.substr(1) + "\n"}, longest + "\n"},
      {"too long", {longest, longest, longest, "\n1 n\n"}, "1 n \n"},
  };
  for (const auto& row : rows) EXPECT_EQ(post(row.pieces), row.events) << row.what;
  const Descriptor fd = poster();
  send_all(fd, "1 n\n2 n\nrubbish\n3");
  for (const char* const event : {"1 n ", "2 n "}) EXPECT_EQ(next(5000), event);
  std::vector<event_poster> posters(EVENT_POSTERS_MAX);
  posters.resize(event_posters_now(posters.data(), EVENT_POSTERS_MAX));
  ASSERT_EQ(posters.size(), 1u);  // those of the rows have left
  EXPECT_EQ(posters[0].process, getpid());
  EXPECT_EQ(
      std::vector<uint64_t>({posters[0].lines, posters[0].lines_refused, posters[0].bytes_waiting, posters[0].recent}),
      (std::vector<uint64_t>{2, 1, 1, 2}));
  EXPECT_LE(posters[0].recent_ms, posters[0].connected_ms);
  event_arrange();
  EXPECT_EQ(logged(), "<1> evq: dropped a line of process " + std::to_string(getpid()) + " of user " +
                          std::to_string(getuid()) + ": the line is longer than 65000 bytes: '1 n " +
                          std::string(36, 'x') + "'\n<1> evq: 2 bad lines of other processes dropped\n");
}

TEST(RecentCount, ForgetsWhatIsOld) {
  RecentCount count(1500);
  struct {
    int64_t at_ms;
    uint64_t n, recent, span_ms;
  } const rows[] = {{1500, 1, 1, 0},       {1900, 2, 3, 400},    {2100, 4, 7, 600},   {10999, 8, 15, 9499},
                    {11000, 16, 28, 9000}, {12500, 0, 24, 9500}, {99900, 0, 0, 9900}, {99900, 32, 32, 9900},
                    {108999, 0, 32, 9999}, {109000, 1, 1, 9000}};
  for (const auto& row : rows) {
    count.add(row.n, row.at_ms);
    EXPECT_EQ(count.span(row.at_ms).count, row.recent) << row.at_ms;
    EXPECT_EQ(count.span(row.at_ms).ms, row.span_ms) << row.at_ms;
  }
}

// Nobody dequeues until the end: what comes meanwhile is read, stamped and answered by another thread.
TEST_F(DeviceQueue, EventsAreTakenInWhileTheLoopIsAway) {
  const auto now_us = [] {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
  };
  std::vector<int64_t> times = {now_us()};  // ages are of the steady clock, which this one may leave behind
  std::vector<int64_t> steady_times = {steady_ns()};
  const event_counts before = counts();
  const std::string events[] = {"1 line 1", "2 own 1", "1 line 2", "2 own 2", "1 line 3"};
  for (const std::string& event : events) {
    if (event[0] == '2') {
      EXPECT_EQ(event_post(2, "own", event.substr(6).c_str()), 1);
    } else {
      const Descriptor fd = poster();
      send_all(fd, event);
      shutdown(fd.get(), SHUT_WR);
      char byte = 0;
      EXPECT_EQ(recv(fd.get(), &byte, 1, 0), 0);  // all was taken in
    }
    times.push_back(now_us());
    steady_times.push_back(steady_ns());
  }
  EXPECT_EQ(event_pending(), 5);
  const event_counts full = counts();
  EXPECT_EQ(std::vector<uint64_t>({full.posted - before.posted, full.lines - before.lines, full.waiting}),
            (std::vector<uint64_t>{2, 3, 5}));
  for (size_t i = 0; i + 1 < times.size(); ++i) {
    const auto since = [&](size_t time) { return (steady_ns() - steady_times[time]) / 1000; };
    const int64_t least_us = since(i + 1);
    const auto oldest_us = static_cast<int64_t>(counts().oldest_age_us);
    EXPECT_TRUE(oldest_us >= least_us && oldest_us <= since(i)) << oldest_us;
    event_item* const item = event_dequeue(0);
    ASSERT_NE(item, nullptr);
    const int64_t waited_us = (steady_ns() - event_came_ns(item)) / 1000;
    EXPECT_TRUE(waited_us >= oldest_us && waited_us <= since(i)) << waited_us;
    EXPECT_EQ(std::to_string(item->type) + " " + item->type_name + " " + item->info, events[i]);
    const int64_t stamp = int64_t{item->timestamp[0]} * 1000000 + item->timestamp[1];
    EXPECT_GE(stamp, times[i]);
    EXPECT_LE(stamp, times[i + 1]);
    event_item_free(item);
  }
  EXPECT_EQ(counts().oldest_age_us, 0u);
  EXPECT_EQ(std::vector<uint32_t>({counts().waiting, counts().waiting_highest}), (std::vector<uint32_t>{0, 5}));
}

TEST_F(DeviceQueue, ManyPostersTakeTurnsByEvents) {
  const auto lines = [](const std::string& line, size_t count) {
    std::string text;
    while (text.size() < count * line.size()) text += line;
    return text;
  };
  const Descriptor first = poster(), posters[] = {poster(), poster()};
  for (const Descriptor& accepted : posters) {
    send_all(accepted, "1 here\n");
    ASSERT_EQ(next(5000), "1 here ");
  }
  send_all(first, lines("1 n\n", 4096));
  while (event_pending() < 4096) usleep(100);  // nobody is read any more, until both of these are ready
  send_all(posters[0], lines("1 a\n", 1500));
  send_all(posters[1], lines("1 b\n", 1500));
  for (int i = 0; i < 4096; ++i) ASSERT_EQ(next(0), "1 n ");
  int run = 0, left[2] = {1500, 1500};
  for (std::string before, event; left[0] + left[1] > 0; before = event) {
    event = next(1000);
    const int who = event == "1 a " ? 0 : 1;
    run = event == before ? run + 1 : 1;
    ASSERT_TRUE(run <= 256 || left[1 - who] == 0);
    ASSERT_GE(--left[who], 0) << event;
  }
}

// While nobody takes them, only so many events wait, and so many bytes.
TEST_F(DeviceQueue, AFloodWaitsInItsSend) {
  const struct {
    std::string line;
    int most;
  } rows[] = {{"1 n\n", 4096}, {"1 n " + std::string(60000, 'x') + "\n", 8 * 1024 * 1024 / 60000 + 1}};
  for (const auto& [line, most] : rows) {
    const Descriptor fd = poster();
    std::string lines;
    for (int i = 0; i < 2 * most; ++i) lines += line;
    std::thread flooder([&fd, &lines] { send_all(fd, lines); });
    for (int left = 2 * most; left > 0;) {
      while (event_pending() < std::min(left, most - 1)) usleep(100);
      if (left == 2 * most) usleep(100000);  // so that a reader without a limit reads on
      EXPECT_LE(event_pending(), most);
      for (int i = 0; i < 100 && left > 0; ++i, --left) EXPECT_NE(next(1000), "");
    }
    flooder.join();
  }
}

// The connections of this process are few and silent, those of the other one many and not.
TEST_F(DeviceQueue, WhoHasMostConnectionsGivesOneUp) {
  const Descriptor silent = poster();
  int ready[2], done[2];
  ASSERT_EQ(pipe(ready) | pipe(done), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(done[1]);
    std::vector<Descriptor> many;
    for (int i = 0; i < 255; ++i) send_all(many.emplace_back(poster()), "1 spoke\n");
    char byte = 0;
    _exit(write(ready[1], &byte, 1) == 1 && read(done[0], &byte, 1) == 0 ? 0 : 1);
  }
  close(done[0]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  const uint64_t evicted_before = counts().posters_evicted;
  const Descriptor waiting = poster();
  send_all(waiting, "2 waited\n");
  const clock_t cpu = clock();
  int spoke = 0;
  std::string event;
  for (int i = 0; i < 300 && event != "2 waited "; ++i) spoke += (event = next(1000)) == "1 spoke ";
  EXPECT_EQ(event, "2 waited ");
  EXPECT_EQ(counts().posters_evicted, evicted_before + 1);
  EXPECT_EQ(spoke, 255);                         // what the one that had to go has sent was read before
  EXPECT_LT(clock() - cpu, CLOCKS_PER_SEC / 5);  // nobody spins meanwhile
  EXPECT_EQ(post({"3 n\n"}), "3 n \n");
  EXPECT_LT(recv(silent.get(), &byte, 1, MSG_DONTWAIT), 0);  // is still served
  const std::string line = "<1> evq: closed a connection of process " + std::to_string(child) + " of user " +
                           std::to_string(getuid()) + ", which has 255, while others wait\n";
  EXPECT_EQ(logged().substr(0, line.size()), line);
  close(done[1]);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  close(ready[0]), close(ready[1]);
}

TEST_F(DeviceQueue, EventsOfTheProcessAndItsScripts) {
  luaL_openlibs(L);
  const std::pair<const char*, const char*> rows[] = {
      {"event_post(5, 'door', 'state=open')", "true nil"},
      {"event_post(6, 'n\\0')", "false the name holds a blank or a control character"},
      {"event_post(6, 'n', 'a=1\\0')", "false the info holds a zero byte"},
      {"pcall(event_post, 2^32 + 9999, 'n')", "false bad argument #1 to '?' (whole 32-bit number expected)"},
  };
  for (const auto& [call, result] : rows) {
    const std::string chunk = "local a, b = " + std::string(call) + " return tostring(a)..' '..tostring(b)";
    ASSERT_EQ(luaL_dostring(L, chunk.c_str()), 0) << lua_tostring(L, -1);
    EXPECT_STREQ(lua_tostring(L, -1), result) << call;
  }
  EXPECT_EQ(event_post(7, "n", nullptr), 1);
  for (const char* const event : {"5 door state=open", "7 n "}) EXPECT_EQ(next(0), event);

  const uint64_t refused_before = counts().posted_refused;
  const std::string megabyte(1 << 20, 'x');
  for (int i = 0; i < 63; ++i) ASSERT_EQ(event_post(1, "big", megabyte.c_str()), 1);
  EXPECT_EQ(event_post(1, "big", megabyte.c_str()), -2);
  for (int i = 0; i < 63; ++i) EXPECT_NE(next(0), "");
  for (int i = 0; i < 65536; ++i) ASSERT_EQ(event_post(1, "small", ""), 1);
  EXPECT_EQ(event_post(1, "small", ""), -2);
  EXPECT_EQ(event_pending(), 65536);
  EXPECT_EQ(counts().posted_refused, refused_before + 2);
  EXPECT_EQ(next(0), "1 small ");
  EXPECT_EQ(event_post(1, "small", ""), 1);
  event_arrange();
  EXPECT_EQ(logged(), "<1> evq: 2 events refused because the queue was full\n");
  helper_cleanup();
  EXPECT_EQ(event_pending(), 0);
  EXPECT_EQ(event_post(1, "late", ""), -1);
}

TEST_F(DeviceQueue, ThreadsWakeTheLoopAndPostUntilTheEnd) {
  std::atomic<bool> stop{false};
  const auto post_on = [&](int type) {
    usleep(20000);  // the loop waits by now
    for (int i = 0; !stop;) i += event_post(type, "n", std::to_string(i).c_str()) == 1;
  };
  std::thread threads[] = {std::thread(post_on, 0), std::thread(post_on, 1)};
  const int64_t start = steady_ms();
  int64_t woken = 0;
  int taken[] = {0, 0};
  for (int i = 0; i < 100000; ++i) {  // more than fit at once
    const std::string event = next(5000);
    const int who = event[0] == '1';
    ASSERT_EQ(event, std::to_string(who) + " n " + std::to_string(taken[who]++));
    if (i == 0) woken = steady_ms();
  }
  EXPECT_LT(woken - start, 1000);
  for (int i = 0; i < 100 && !HasFailure(); ++i) {  // a child finds no lock held
    const auto child_posts = [] {
      alarm(10);
      EXPECT_NE(event_post(1, "n", ""), -1);
    };
    EXPECT_EQ(in_child(child_posts), 0);
  }
  helper_cleanup();
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

TEST_F(DeviceQueue, NoWakeUpIsLost) {
  constexpr int kRounds = 80000;
  std::atomic<int> taken{0};
  std::thread thread([&] {
    for (int i = 0; i < kRounds; ++i) {
      event_post(1, "n", "");
      while (taken == i) std::this_thread::yield();
    }
  });
  int64_t longest = 0;
  while (taken < kRounds) {
    const int64_t start = steady_ms();
    ASSERT_EQ(next(5000), "1 n ");
    longest = std::max(longest, steady_ms() - start);
    for (volatile int spins = ++taken % 1000; spins > 0;) spins = spins - 1;  // another moment each time
  }
  thread.join();
  EXPECT_LT(longest, 4000);  // a lost one costs the whole time-out

  event_post(1, "n", "");
  event_wake();
  EXPECT_EQ(next(0), "1 n ");  // a wake ends only a wait
  EXPECT_EQ(next(20000), "");
  std::thread waker([] { usleep(20000), event_wake(); });  // the loop waits by now
  const int64_t start = steady_ms();
  EXPECT_EQ(next(20000), "");
  waker.join();
  helper_cleanup();
  event_wake();
  EXPECT_EQ(next(20000), "");
  EXPECT_LT(steady_ms() - start, 10000);
}

// The same for the one moment that a busy machine hardly ever hits: after the last look without the lock.
TEST_F(DeviceQueue, NoWakeUpIsLostBetweenLookAndSleep) {
  EventInbox inbox;
  ASSERT_TRUE(inbox.open());
  inbox.before_fork();  // both have to wait for the lock, and get it in the order in which they came
  bool sleeps = false;
  const auto start_and_block = [](const std::function<void()>& run) {
    std::atomic<pid_t> id{0};
    std::thread thread([&id, run] {
      id = gettid();
      run();
    });
    while (id == 0) std::this_thread::yield();
    for (std::string word, state; state != "S"; std::this_thread::yield()) {
      std::ifstream("/proc/self/task/" + std::to_string(id) + "/stat") >> word >> word >> state;
    }
    return thread;
  };
  std::thread threads[] = {start_and_block([&] { inbox.post(1, "n", ""); }),
                           start_and_block([&] { sleeps = inbox.may_sleep(); })};
  inbox.after_fork();
  for (std::thread& thread : threads) thread.join();
  pollfd call{inbox.wake_descriptor(), POLLIN, 0};
  EXPECT_TRUE(!sleeps || poll(&call, 1, 0) == 1);
  inbox.close();
}

TEST_F(DeviceQueue, OneOwnerOfTheSocket) {
  helper_cleanup();
  const std::string deep = root + "/" + std::string(200, 'd');  // more than a socket address holds
  setenv("DEVICE_ROOT", deep.c_str(), 1);
  path = deep + kEventSocketPath;
  umask(077);
  EXPECT_EQ(in_child([&] { open(); }), 0);  // dies without a word: its socket stays behind
  EXPECT_TRUE(std::filesystem::exists(path));
  open();
  EXPECT_EQ(post({"1 n\n"}), "1 n \n");
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0660});
  EXPECT_EQ(std::filesystem::status(deep + "/run/zelvind").permissions(), std::filesystem::perms{0755});
  umask(022);
  const int number = event_socket_owned();
  std::filesystem::rename(path, path + ".old");
  EXPECT_EQ(next(20), "");
  std::filesystem::remove_all(deep + "/run");
  EXPECT_EQ(next(20), "");
  ASSERT_EQ(event_socket_owned(), number + 2);
  EXPECT_EQ(post({"1 n\n"}), "1 n \n");
  g_guarded = path;
  helper_cleanup();
  EXPECT_FALSE(g_unlocked_early);
  EXPECT_FALSE(std::filesystem::exists(path));

  const std::string lock_path = deep + "/run/zelvind/events.lock";
  std::ofstream(lock_path) << "4711\n";
  Descriptor lock(::open(lock_path.c_str(), O_RDONLY));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  open();
  event_post(1, "own", "");
  EXPECT_EQ(next(0), "1 own ");
  lock.reset();
  usleep(1100 * 1000);
  EXPECT_EQ(next(0), "");  // tries again
  EXPECT_EQ(post({"1 n\n"}), "1 n \n");
  const std::string is_made = "<1> evq: " + path + " is made: events from other processes are taken\n";
  const std::string removed =
      "<1> evq: " + path + " was removed or replaced: no events from other processes\n" + is_made;
  EXPECT_EQ(logged(), removed + removed + "<1> evq: " + path +
                          " belongs to process 4711: no events from other processes\n" + is_made);
}

TEST_F(DeviceQueue, NoProgramInheritsADescriptor) {
  helper_cleanup();
  const auto start = [&] {
    for (int fd = 3; fd < 100; ++fd) close(fd);
    for (const std::string& target : {std::string("syslog"), "file:" + root + "/log"}) {
      log_to(target);
      elog(1, "a line");
    }
    open();
    const Descriptor fd = poster();
    EXPECT_EQ(next(20), "");
    for (int high = 3; high < 100; ++high) EXPECT_NE(fcntl(high, F_GETFD), 0) << high;
  };
  EXPECT_EQ(in_child(start), 0);
}

// A service manager that gives up after a second hears twice in that time.
TEST_F(DeviceQueue, TheWatchdogHearsAtHalfItsTime) {
  const std::string name = root + "/notify";
  Descriptor manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  ASSERT_EQ(unix_bind(manager.get(), name), 0);
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  setenv("WATCHDOG_USEC", "1000000", 1);
  service_open(nullptr);
  const auto heard = [&] {
    char text[64];
    const ssize_t size = recv(manager.get(), text, sizeof(text), 0);
    return std::string(text, static_cast<size_t>(std::max<ssize_t>(size, 0)));
  };
  service_state(SERVICE_ALIVE);
  EXPECT_EQ(heard(), "READY=1");
  const int64_t start = steady_ms();
  std::string text;
  for (; text.empty() && steady_ms() - start < 5000; text = heard()) usleep(1000), service_state(SERVICE_ALIVE);
  EXPECT_EQ(text, "WATCHDOG=1");
  EXPECT_GE(steady_ms() - start, 490);
  EXPECT_LT(steady_ms() - start, 1000);
}

}  // namespace
