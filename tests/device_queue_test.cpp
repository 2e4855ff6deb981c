#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <lua.hpp>
#include <thread>
#include <vector>

#include "device/event_queue.h"
#include "device/event_source.h"
#include "tests/device_root_fixture.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/unix_socket.h"

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
      for (std::string event; (event = next(1)) != "";) events += event + "\n";
    };
    const Descriptor fd = poster();
    for (const std::string& piece : pieces) send_all(fd, piece), take();
    shutdown(fd.get(), SHUT_WR);
    for (char byte; recv(fd.get(), &byte, 1, MSG_DONTWAIT) != 0;) take();
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
  event_arrange();
  EXPECT_EQ(logged(), "<1> evq: dropped a line of process " + std::to_string(getpid()) + " of user " +
                          std::to_string(getuid()) + ": the line is longer than 65000 bytes: '1 n " +
                          std::string(36, 'x') + "'\n<1> evq: 1 bad lines of other processes dropped\n");
}

TEST_F(DeviceQueue, BothSourcesKeepTheirOrderAndNeitherStarves) {
  const Descriptor fd = poster();
  std::string lines;
  for (int i = 0; i < 3000; ++i) lines += "1 line " + std::to_string(i) + "\n";
  send_all(fd, lines);
  int own_posted = 0, own_taken = 0, lines_taken = 0;
  for (const int64_t start = steady_ms(); lines_taken < 3000 && steady_ms() - start < 20000;) {
    for (int i = 0; i < 2; ++i) own_posted += event_post(2, "own", std::to_string(own_posted).c_str());
    const std::string event = next(0);
    const bool is_line = event[0] == '1';
    ASSERT_EQ(event, is_line ? "1 line " + std::to_string(lines_taken) : "2 own " + std::to_string(own_taken));
    ++(is_line ? lines_taken : own_taken);
  }
  EXPECT_EQ(lines_taken, 3000);
  EXPECT_GT(own_taken, 2900);
}

TEST_F(DeviceQueue, AFloodOfRubbishDelaysNobody) {
  std::atomic<bool> stop{false};
  const auto flood = [&](const std::string& piece) {
    for (const Descriptor fd = poster(); !stop;) send_all(fd, piece);
  };
  std::thread flooders[] = {std::thread(flood, "no event\n"), std::thread(flood, std::string(70000, 'x'))};
  for (int i = 0; i < 5; ++i) {
    const int64_t start = steady_ms();
    EXPECT_EQ(next(50), "");
    EXPECT_GE(steady_ms() - start, 49);
    EXPECT_LT(steady_ms() - start, 1000);  // 2 ms beyond on an idle machine, which this one need not be
    EXPECT_EQ(post({"1 n\n"}), "1 n \n");
  }
  stop = true;
  helper_cleanup();
  for (std::thread& flooder : flooders) flooder.join();
  const std::string log = logged();
  EXPECT_LE(std::count(log.begin(), log.end(), '\n'), 20);
}

TEST_F(DeviceQueue, AFloodWaitsInItsSend) {
  std::vector<Descriptor> flooders;
  for (int i = 0; i < 4; ++i) flooders.push_back(poster());
  EXPECT_EQ(next(1), "");
  std::string lines;
  while (lines.size() < 60000) lines += "1 n\n";
  ssize_t sent = 0;
  const auto fill = [&] {
    for (const Descriptor& fd : flooders) {
      for (ssize_t size; (size = send(fd.get(), lines.data(), lines.size(), MSG_DONTWAIT)) > 0;) sent += size;
    }
    return sent;
  };
  fill();
  EXPECT_EQ(next(1000), "1 n ");
  EXPECT_LT(event_pending(), 4096 + 65536 / 4);
  const ssize_t sent_before = fill();
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(next(0), "1 n ");
  EXPECT_EQ(fill(), sent_before);  // not read while so many wait
  int taken = 1001;
  while (next(10) == "1 n ") ++taken;
  EXPECT_EQ(taken, sent / 4);
}

TEST_F(DeviceQueue, TheSilentMakePlaceForThoseWhoWait) {
  std::vector<Descriptor> silent;
  for (int i = 0; i < 256; ++i) silent.push_back(poster());
  next(20);
  for (size_t i = 1; i < silent.size(); ++i) send_all(silent[i], "2 spoke\n");
  for (int i = 1; i < 256; ++i) EXPECT_EQ(next(1000), "2 spoke ");
  const Descriptor waiting = poster();
  send_all(waiting, "3 waited\n");
  const clock_t cpu = clock();
  std::string event;
  for (int i = 0; i < 8 && event.empty(); ++i) {
    send_all(silent[0], "x");  // bytes alone keep no place
    event = next(1000);
  }
  EXPECT_EQ(event, "3 waited ");
  EXPECT_LT(clock() - cpu, CLOCKS_PER_SEC / 5);  // nobody spins meanwhile
  // By now the others were silent as long, but they speak before anybody is told that one more waits.
  EXPECT_EQ(next(200), "");
  const Descriptor second = poster();
  send_all(second, "5 waited\n");
  for (size_t i = 1; i < silent.size(); ++i) send_all(silent[i], "4 late\n");
  for (int i = 1; i < 256; ++i) EXPECT_EQ(next(1000), "4 late ");
  char byte;
  EXPECT_EQ(recv(silent[0].get(), &byte, 1, MSG_DONTWAIT), 0);
  for (size_t i = 1; i < silent.size(); ++i) EXPECT_LT(recv(silent[i].get(), &byte, 1, MSG_DONTWAIT), 0) << i;
  EXPECT_EQ(logged(), "<1> evq: closed process " + std::to_string(getpid()) + " of user " + std::to_string(getuid()) +
                          ", without a line for 5 s while others wait\n");
  silent[1].reset();
  EXPECT_EQ(next(1000), "5 waited ");  // who leaves makes place at once
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

  const std::string megabyte(1024 * 1024, 'x');
  for (int i = 0; i < 63; ++i) ASSERT_EQ(event_post(1, "big", megabyte.c_str()), 1);
  EXPECT_EQ(event_post(1, "big", megabyte.c_str()), -2);
  for (int i = 0; i < 63; ++i) EXPECT_NE(next(0), "");
  for (int i = 0; i < 65536; ++i) ASSERT_EQ(event_post(1, "small", ""), 1);
  EXPECT_EQ(event_post(1, "small", ""), -2);
  EXPECT_EQ(event_pending(), 65536);
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
  const auto post_on = [&] {
    usleep(20000);  // the loop waits by now
    while (!stop) event_post(1, "n", "a=1");
  };
  std::thread threads[] = {std::thread(post_on), std::thread(post_on)};
  const int64_t start = steady_ms();
  EXPECT_EQ(next(5000), "1 n a=1");
  EXPECT_LT(steady_ms() - start, 1000);
  for (int i = 0; i < 20000; ++i) EXPECT_NE(next(1000), "");
  helper_cleanup();
  stop = true;
  for (std::thread& thread : threads) thread.join();
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
  helper_cleanup();
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
  EXPECT_EQ(logged(), "<1> evq: " + path + " belongs to process 4711: no events from other processes\n" +
                          "<1> evq: " + path + " is made: events from other processes are taken\n");
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

}  // namespace
