#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
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
  DeviceQueue() : path(root + kEventSocketPath), L(luaL_newstate()) {}
  ~DeviceQueue() override {
    helper_cleanup();
    lua_close(L);
  }

  Descriptor poster() const {
    Descriptor fd(unix_stream_socket());
    EXPECT_EQ(unix_connect(fd.get(), path), 0) << path;
    return fd;
  }

  static void send_all(const Descriptor& fd, const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
      const ssize_t size = send(fd.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (size <= 0) return;
      sent += static_cast<size_t>(size);
    }
  }

  // The next event as a line, "" when none comes.
  static std::string next(int timeout_ms) {
    event_item* item = event_dequeue(timeout_ms);
    if (item == nullptr) return "";
    const std::string line = std::to_string(item->type) + " " + item->type_name + " " + item->info;
    event_item_free(item);
    return line;
  }

  // Sends the pieces as one poster that then shuts its side; returns the events, one a line, once the daemon has
  // closed.
  std::string post(const std::vector<std::string>& pieces) const {
    std::thread sender([&] {
      const Descriptor fd = poster();
      for (const std::string& piece : pieces) send_all(fd, piece);
      shutdown(fd.get(), SHUT_WR);
      char byte;
      recv(fd.get(), &byte, 1, 0);
      event_post(EVENT_TYPE_QUIT, "end", "");
    });
    std::string events;
    for (std::string event; (event = next(1000)) != "9999 end ";) events += event.empty() ? event : event + "\n";
    sender.join();
    for (std::string event; event_pending() > 0 && (event = next(0)) != "";) events += event + "\n";
    return events;
  }

  std::string path;
  lua_State* L;
};

TEST_F(DeviceQueue, LinesOfPosters) {
  const std::string name(127, 'n');
  const std::string long_info(64998, 'x');
  struct {
    const char* what;
    std::vector<std::string> pieces;
    std::string events;
    const char* wrong;  // null: nothing is dropped
  } const rows[] = {
      {"two lines", {"1 door state=open\n-2 heat \n"}, "1 door state=open\n-2 heat \n", nullptr},
      {"a byte at a time", {"1", " ", "n", " ", "a", "=", "1", "\n", "2", " ", "n"}, "1 n a=1\n2 n \n", nullptr},
      {"no line feed at the end", {"1 door a=1\n2 door", " b=2"}, "1 door a=1\n2 door b=2\n", nullptr},
      {"longest name", {"1 " + name + "\n1 n" + name + "\n"}, "1 " + name + " \n", "the name is longer than 127 bytes"},
      {"longest line", {"1 n ", long_info.substr(2) + "\n"}, "1 n " + long_info.substr(2) + "\n", nullptr},
      {"too long, all at once", {"1 n " + long_info + "\n1 n\n"}, "1 n \n", "the line is longer than 65000 bytes"},
      {"too long", {"1 n ", long_info, long_info, "\n1 n\n"}, "1 n \n", "the line is longer than 65000 bytes"},
      {"too long, no line feed", {"1 n\n", long_info, long_info}, "1 n \n", "the line is longer than 65000 bytes"},
      {"empty line", {"\n1 n\n"}, "1 n \n", "the line is empty"},
      {"half a line", {"1 n\n1"}, "1 n \n", "the name is missing"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    log_to("file:" + root + "/log");
    std::filesystem::resize_file(root + "/log", 0);
    ASSERT_GE(helper_init(L), 0);
    EXPECT_EQ(post(row.pieces), row.events);
    event_arrange();
    helper_cleanup();
    const std::string line = "<1> evq: dropped a line of process " + std::to_string(getpid()) + " of user " +
                             std::to_string(getuid()) + ": " + (row.wrong != nullptr ? row.wrong : "") + ": '";
    const std::string log = logged();
    EXPECT_EQ(log.substr(0, line.size()), row.wrong != nullptr ? line : "");
    EXPECT_EQ(log.find("'\n<1> evq: 1 bad line") != std::string::npos, row.wrong != nullptr) << log;
  }
}

TEST_F(DeviceQueue, BothSourcesKeepTheirOrderAndNeitherStarves) {
  ASSERT_GE(helper_init(L), 0);
  const Descriptor fd = poster();
  std::string lines;
  for (int i = 0; i < 3000; ++i) lines += "1 line " + std::to_string(i) + "\n";
  send_all(fd, lines);
  int own_posted = 0;
  int own_taken = 0;
  int lines_taken = 0;
  for (const int64_t start = steady_ms(); lines_taken < 3000 && steady_ms() - start < 20000;) {
    for (int i = 0; i < 2; ++i) own_posted += event_post(2, "own", std::to_string(own_posted).c_str());
    const std::string event = next(0);
    const bool is_line = event[0] == '1';
    ASSERT_EQ(event, is_line ? "1 line " + std::to_string(lines_taken) : "2 own " + std::to_string(own_taken));
    ++(is_line ? lines_taken : own_taken);
  }
  EXPECT_EQ(lines_taken, 3000);
  EXPECT_GT(own_taken, 2900);
  EXPECT_EQ(event_pending(), own_posted - own_taken);
}

TEST_F(DeviceQueue, AFloodOfRubbishDelaysNobody) {
  ASSERT_GE(helper_init(L), 0);
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
  ASSERT_GE(helper_init(L), 0);
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
  };
  fill();
  EXPECT_EQ(next(1000), "1 n ");
  EXPECT_LT(event_pending(), 4096 + 65536 / 4);
  fill();
  const ssize_t sent_before = sent;
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(next(0), "1 n ");
  fill();
  EXPECT_EQ(sent, sent_before);  // not read while so many wait
  int taken = 1001;
  while (next(10) == "1 n ") ++taken;
  EXPECT_EQ(taken, sent / 4);
}

TEST_F(DeviceQueue, AThousandPostersAtOnce) {
  ASSERT_GE(helper_init(L), 0);
  const pid_t child = fork();  // half of the descriptors are there, the others here
  if (child == 0) {
    std::vector<Descriptor> posters;
    for (int i = 0; i < 1000; ++i) {
      posters.push_back(poster());
      send_all(posters.back(), "1 n i=" + std::to_string(i));
    }
    for (const Descriptor& fd : posters) shutdown(fd.get(), SHUT_WR);
    char byte;
    for (const Descriptor& fd : posters) EXPECT_EQ(recv(fd.get(), &byte, 1, 0), 0);
    _exit(HasFailure() ? 1 : 0);
  }
  int events = 0;
  for (const int64_t start = steady_ms(); events < 1000 && steady_ms() - start < 30000;) events += next(1000) != "";
  EXPECT_EQ(events, 1000);
  int status = -1;
  while (waitpid(child, &status, WNOHANG) == 0) next(10);
  EXPECT_EQ(status, 0);
}

TEST_F(DeviceQueue, TheSilentMakePlaceForThoseWhoWait) {
  ASSERT_GE(helper_init(L), 0);
  std::vector<Descriptor> silent;
  for (int i = 0; i < 256; ++i) {
    silent.push_back(poster());
    if (i == 0) send_all(silent[0], "1 half a li");
  }
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
  for (size_t i = 1; i < silent.size(); ++i) send_all(silent[i], "4 late\n");
  for (int i = 1; i < 256; ++i) EXPECT_EQ(next(1000), "4 late ");
  char byte;
  EXPECT_EQ(recv(silent[0].get(), &byte, 1, MSG_DONTWAIT), 0);
  for (size_t i = 1; i < silent.size(); ++i) EXPECT_LT(recv(silent[i].get(), &byte, 1, MSG_DONTWAIT), 0) << i;
  EXPECT_EQ(logged(), "<1> evq: closed process " + std::to_string(getpid()) + " of user " + std::to_string(getuid()) +
                          ", without a line for 5 s while others wait\n");
}

TEST_F(DeviceQueue, EventsOfTheProcessAndItsScripts) {
  EXPECT_EQ(event_post(1, "early", ""), -1);
  ASSERT_GE(helper_init(L), 0);
  luaL_openlibs(L);
  struct {
    const char* chunk;
    const char* result;
  } const rows[] = {
      {"event_post(5, 'door', 'state=open')", "true nil"},
      {"event_post(6, 'door')", "true nil"},
      {"event_post(6, 'do or')", "false the name holds a blank or a control character"},
      {"event_post(6, 'n\\0', '')", "false the name holds a blank or a control character"},
      {"event_post(6, 'n', 'a=1\\0')", "false the info holds a zero byte"},
      {"pcall(event_post, 2^32 + 9999, 'n')", "false bad argument #1 to '?' (whole 32-bit number expected)"},
      {"pcall(event_post, -1.5, 'n')", "false bad argument #1 to '?' (whole 32-bit number expected)"},
      {"pcall(event_post, 0/0, 'n')", "false bad argument #1 to '?' (whole 32-bit number expected)"},
      {"pcall(event_post, 'x')", "false bad argument #1 to '?' (number expected, got string)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.chunk);
    const std::string chunk = "local a, b = " + std::string(row.chunk) + " return tostring(a)..' '..tostring(b)";
    ASSERT_EQ(luaL_dostring(L, chunk.c_str()), 0) << lua_tostring(L, -1);
    EXPECT_STREQ(lua_tostring(L, -1), row.result);
    lua_settop(L, 0);
  }
  EXPECT_EQ(event_post(1, nullptr, ""), -1);
  EXPECT_EQ(event_post(7, "n", nullptr), 1);
  EXPECT_EQ(next(0), "5 door state=open");
  EXPECT_EQ(next(0), "6 door ");
  EXPECT_EQ(next(0), "7 n ");

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
  event_arrange();
  EXPECT_EQ(logged(), "<1> evq: 2 events refused because the queue was full\n");
  helper_cleanup();
  EXPECT_EQ(event_pending(), 0);
  EXPECT_EQ(event_post(1, "late", ""), -1);
  EXPECT_EQ(next(0), "");
}

TEST_F(DeviceQueue, WhatEndsAWait) {
  ASSERT_GE(helper_init(L), 0);
  const Descriptor fd = poster();
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  const pthread_t waiter = pthread_self();
  for (const std::string expected : {"1 own ", "1 line ", ""}) {
    std::atomic<bool> done{false};
    std::thread other([&] {
      while (!done) {  // again and again: the first may come before the wait
        usleep(20000);
        if (expected.empty()) pthread_kill(waiter, SIGUSR1);
        if (expected == "1 own ") event_post(1, "own", "");
        if (expected == "1 line ") send_all(fd, "1 line\n");
      }
    });
    const int64_t start = steady_ms();
    EXPECT_EQ(next(5000), expected);
    EXPECT_LT(steady_ms() - start, 1000);
    done = true;
    other.join();
    while (next(0) != "") {
    }
  }
}

TEST_F(DeviceQueue, ThreadsPostUntilTheEnd) {
  ASSERT_GE(helper_init(L), 0);
  std::atomic<bool> stop{false};
  const auto post_on = [&] {
    while (!stop) event_post(1, "n", "a=1");
  };
  std::thread threads[] = {std::thread(post_on), std::thread(post_on)};
  for (int i = 0; i < 20000; ++i) EXPECT_NE(next(1000), "");
  helper_cleanup();
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

TEST_F(DeviceQueue, OneOwnerOfTheSocket) {
  const std::string deep = root + "/" + std::string(200, 'd');  // more than a socket address holds
  setenv("DEVICE_ROOT", deep.c_str(), 1);
  path = deep + kEventSocketPath;
  const auto start = [&] { EXPECT_GE(helper_init(L), 0); };
  const auto exists = [&] { return std::filesystem::exists(path); };
  struct stat status {};
  for (const mode_t mask : {0, 0777 & ~0700}) {
    umask(mask);
    EXPECT_EQ(in_child(start), 0);  // dies without a word: its socket stays behind
    EXPECT_TRUE(exists());
    start();
    EXPECT_EQ(post({"1 n\n"}), "1 n \n");
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660u);
    EXPECT_EQ(stat((deep + "/run/zelvind").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0755u);
    helper_cleanup();
    EXPECT_FALSE(exists());
  }
  umask(022);
  EXPECT_EQ(in_child([&] { start(), exit(0); }), 0);
  EXPECT_FALSE(exists());  // removed at exit
  EXPECT_EQ(logged(), "");

  start();
  unlink(path.c_str());
  const Descriptor stranger(unix_stream_socket());
  EXPECT_EQ(unix_bind(stranger.get(), path), 0);
  helper_cleanup();
  EXPECT_TRUE(exists());  // not ours
}

TEST_F(DeviceQueue, WithoutASocketTheProcessStillPosts) {
  const auto expect_own_events = [&](const std::string& line) {
    ASSERT_GE(helper_init(L), 0);
    event_post(1, "own", "");
    EXPECT_EQ(next(0), "1 own ");
    helper_cleanup();
    EXPECT_EQ(logged(), line + ": no events from other processes\n");
    std::filesystem::resize_file(root + "/log", 0);
  };
  std::ofstream(root + "/run").close();  // a file where a folder should be
  expect_own_events("<1> evq: cannot make " + path + " (Not a directory)");

  std::filesystem::remove(root + "/run");
  std::filesystem::create_directories(root + "/run/zelvind");
  std::ofstream(root + "/run/zelvind/events.lock") << "4711\n";
  std::ofstream(path) << "the first daemon's";
  const Descriptor lock(open((root + "/run/zelvind/events.lock").c_str(), O_RDONLY));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  expect_own_events("<1> evq: " + path + " belongs to process 4711");
  EXPECT_EQ(read_file(path), "the first daemon's");
}

TEST_F(DeviceQueue, NoDescriptorWhereAStandardStreamBelongs) {
  const auto open_across_exec = [] {
    int count = 0;
    for (int fd = 0; fd < 100; ++fd) count += fcntl(fd, F_GETFD) == 0 ? 1 : 0;
    return count;
  };
  EXPECT_EQ(in_child([&] {
              for (int fd = 0; fd < 3; ++fd) close(fd);
              const int before = open_across_exec();
              for (const char* target : {"syslog", "stderr", "file:"}) {
                log_to(target[0] == 'f' ? target + root + "/log" : target);
                elog(1, "a line");
              }
              EXPECT_GE(helper_init(L), 0);
              const Descriptor fd = poster();
              send_all(fd, "1 n\n");
              EXPECT_EQ(next(1000), "1 n ");
              for (int low = 0; low < 3; ++low) EXPECT_EQ(fcntl(low, F_GETFD), -1) << low;
              EXPECT_EQ(open_across_exec(), before);
            }),
            0);
}

}  // namespace
