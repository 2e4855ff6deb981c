// The real daemon when the system fails it: single calls, through a daemon whose calls fail on demand, and limits.

#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <sstream>

#include "tests/event_client.h"
#include "tests/real_daemon.h"
#include "util/descriptor.h"
#include "util/unix_socket.h"

namespace {

std::string text_of(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// What still works.
enum Service : unsigned { kNone = 0, kOwnEvents = 1, kPosters = 2, kClients = 4, kAll = 7 };

class FaultyDaemon : public RealDaemon {
 public:
  FaultyDaemon() {
    write("scripts/a.lua",
          "script_define('faults', nil)\n"
          "on('ping', function() trace(1, 'pong ' .. evt_info()) end)\n"
          "event_post(1, 'ping', 'own')\n"
          "tmr_add(function() event_post(1, 'ping', 'own') end, 1, 0, nil)\n");
  }

  void arm() const { write("armed", ""); }
  void disarm() const { unlink(path("armed").c_str()); }

  // Starts the daemon below `limits`, a shell command. False when it did not say that it is complete.
  bool start_with(const std::string& fault, const std::string& limits = "true") {
    launch("export FAULT='" + fault + "' FAULT_ARMED=$ROOT/armed; " + limits +
           "; " FAULTY_ZELVIND " -p $ROOT/pid >/dev/null 2>$ROOT/stderr");
    return read_pid() && wait_for("zelvind: complete to start program");
  }

  int port() const {
    const std::string text = log();
    const std::string line = "listening on port ";
    return atoi(text.c_str() + text.find(line) + line.size());
  }

  std::unique_ptr<EventClient> client() {
    auto made = std::make_unique<EventClient>(port());
    const std::string name = "ping,client" + std::to_string(++clients);
    made->send_bytes(EventClient::subscription(name) + EventClient::subscription(name));
    EXPECT_TRUE(wait_for("set as [" + name + "]", 2));
    return made;
  }

  void expect(unsigned service) {
    EXPECT_TRUE((service & kOwnEvents) == 0 || wait_for("pong own"));
    EXPECT_TRUE((service & kPosters) == 0 || (post("1 ping posted\n") && wait_for("pong posted")));
    EXPECT_TRUE((service & kClients) == 0 || client()->read_info() != "nothing");
  }

  // Ends the daemon, in order.
  void stop() {
    send_signal(SIGTERM);
    EXPECT_EQ(wait_for_end(), 0);
    EXPECT_EQ(text_of(path("stderr")).find("Sanitizer"), std::string::npos) << text_of(path("stderr"));
  }

 private:
  int clients = 0;
};

struct Case {
  const char* call;
  int error;
  int skip;
  int count;
  const char* line;  // null: none is expected; $ROOT stands for the root
  unsigned service;
};

std::string fault_of(const Case& row) {
  std::ostringstream text;
  text << row.call << ' ' << row.error << ' ' << row.skip << ' ' << row.count;
  return text.str();
}

TEST(Fault, OfACallAtTheStart) {
  const char* const no_socket = "evq: cannot make $ROOT/run/zelvind/events.sock (";
  const char* const no_queue = "evq: cannot open the event queue: Too many open files";
  const Case cases[] = {
      {"pthread_create", EAGAIN, 0, 1, "mlistener: failed to run event_recv thread", kOwnEvents | kPosters},
      {"pthread_create", EAGAIN, 1, 1, "mlistener: failed to run accept thread", kOwnEvents | kPosters},
      {"pthread_create", EAGAIN, 2, 1, "mscript: failed to run thread", kNone},
      {"pthread_create", EAGAIN, 0, 9, "mscript: failed to run thread", kNone},
      {"socket", EMFILE, 0, 1, nullptr, kAll},
      {"socket", EMFILE, 1, 1, no_socket, kOwnEvents | kClients},
      {"socket", EMFILE, 2, 1, "mlistener: Failed to create server socket(errno:24)", kOwnEvents | kPosters},
      {"bind", EACCES, 0, 1, no_socket, kOwnEvents | kClients},
      {"bind", EADDRINUSE, 1, 1, "mlistener: Failed to create server socket(errno:98)", kOwnEvents | kPosters},
      {"listen", EADDRINUSE, 0, 9, no_socket, kOwnEvents},
      {"eventfd", EMFILE, 0, 1, no_queue, kNone},
      {"epoll_create1", EMFILE, 0, 1, no_queue, kNone},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(fault_of(row));
    FaultyDaemon daemon;
    daemon.arm();
    ASSERT_TRUE(daemon.start_with(fault_of(row)));
    std::string line = row.line == nullptr ? "" : row.line;
    if (line.find("$ROOT/") != std::string::npos) line.replace(line.find("$ROOT/"), 6, daemon.path(""));
    EXPECT_TRUE(daemon.wait_for(line));
    daemon.expect(row.service);
    daemon.stop();
  }
}

TEST(Fault, OfACallWhileItRuns) {
  const Case cases[] = {
      {"send", ECONNRESET, 0, 1, "mlistener: failed to send data", kAll},
      {"send", EINTR, 0, 5, nullptr, kAll},
      {"send", EAGAIN, 0, 100000000, "stopped reading, its events are skipped", kAll},
      {"recv", EIO, 0, 5, nullptr, kAll},
      {"recv", EINTR, 0, 5, nullptr, kAll},
      {"poll", ENOMEM, 0, 5, "mlistener: poll function failed", kAll},
      {"accept4", EMFILE, 0, 5, "evq: cannot accept a poster: Too many open files", kAll},
      {"accept4", ECONNABORTED, 0, 5, nullptr, kAll},
      {"epoll_wait", EINTR, 0, 50, nullptr, kAll},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(fault_of(row));
    FaultyDaemon daemon;
    ASSERT_TRUE(daemon.start_with(fault_of(row)));
    const auto client = daemon.client();
    daemon.arm();
    daemon.post("1 ping first\n");
    EXPECT_TRUE(row.line == nullptr || daemon.wait_for(row.line));
    daemon.disarm();
    daemon.expect(row.service);
    daemon.stop();
  }
}

TEST(Fault, OfTheFork) {
  FaultyDaemon daemon;
  daemon.arm();
  EXPECT_EQ(daemon.launch("FAULT='fork 11 0 1' FAULT_ARMED=$ROOT/armed " FAULTY_ZELVIND " 2>$ROOT/stderr"), 0);
  EXPECT_EQ(text_of(daemon.path("stderr")), "Failed to fork current process\n");
  EXPECT_EQ(daemon.log(), "");
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // the sanitizers need memory without a limit and descriptors of their own
#else
constexpr bool kSanitized = false;
#endif

// From almost none up to enough: whatever cannot be had, the daemon ends in order, or runs and can be stopped.
TEST(Limit, FewDescriptors) {
  if (kSanitized) GTEST_SKIP() << "the sanitizers need descriptors of their own";
  bool was_short = false;
  for (int limit = 12; limit <= 20; ++limit) {  // 3 to 9 are taken
    SCOPED_TRACE(limit);
    FaultyDaemon daemon;
    std::string command = "ulimit -n " + std::to_string(limit) + "; exec $ZELVIND";
    for (int fd = 3; fd < 10; ++fd) command = "exec " + std::to_string(fd) + "</dev/null; " + command;
    daemon.launch("exec >/dev/null 2>&1; " + command);
    ASSERT_TRUE(daemon.wait_for("<1> Start zelvind..."));
    const std::string text = daemon.log();
    daemon.write("pid", std::to_string(atoi(text.c_str() + text.find('[') + 1)) + "\n");
    ASSERT_TRUE(daemon.read_pid());
    daemon.send_signal(SIGTERM);
    const bool without_settings = daemon.wait_for_end() == 1;
    EXPECT_EQ(daemon.count(without_settings ? "<1> zelvind: Failed to open conf[" : "<1> zelvind: zelvind end"), 1u);
    was_short = was_short || daemon.count("Too many open files") > 0;
  }
  EXPECT_TRUE(was_short);
}

TEST(Limit, DescriptorsAreUsedUp) {
  FaultyDaemon daemon;
  ASSERT_TRUE(daemon.start_with("", "ulimit -n 64"));
  std::vector<Descriptor> posters(80);
  for (Descriptor& poster : posters) {
    poster.reset(unix_stream_socket());
    ASSERT_EQ(unix_connect(poster.get(), daemon.path("run/zelvind/events.sock")), 0);
  }
  EXPECT_TRUE(daemon.wait_for("evq: cannot accept a poster: Too many open files"));
  posters.clear();
  daemon.expect(kOwnEvents | kPosters);
  EventClient refused(daemon.port());
  EXPECT_TRUE(refused.ended());
  EXPECT_TRUE(daemon.wait_for("mlistener: too many clients, 127.0.0.1:"));
  daemon.stop();
}

TEST(Limit, AScriptEatsTheMemory) {
  if (kSanitized) GTEST_SKIP() << "the sanitizers need memory without a limit";
  for (const char* const food : {"string.rep('x', 1e6) .. #t", "function() end"}) {
    SCOPED_TRACE(food);
    FaultyDaemon daemon;
    daemon.write("scripts/eat.lua",
                 std::string("es_eat = { list_func = { { 'eat', function() local t = {} while true do t[#t + 1] = ") +
                     food + " end end } } }");
    ASSERT_TRUE(daemon.start_with("", "ulimit -v 300000"));
    for (size_t times = 1; times <= 2; ++times) {
      EXPECT_TRUE(daemon.post("1 eat\n"));
      EXPECT_TRUE(daemon.wait_for("<1> mscript: error[etype:1] - not enough memory\n", times));
      daemon.expect(kAll);
    }
    daemon.stop();
  }
}

TEST(Limit, TheDiskUnderTheLogIsFull) {
  FaultyDaemon daemon;
  daemon.write("scripts/a.lua", "on('ping', function() io.open('" + daemon.path("seen") + "', 'w'):close() end)");
  daemon.launch("export ELOG_TARGET=file:/dev/full; $ZELVIND -p $ROOT/pid >/dev/null 2>&1");
  ASSERT_TRUE(daemon.read_pid());
  const std::string seen = daemon.path("seen");
  for (int patience = 1000; patience > 0 && access(seen.c_str(), F_OK) != 0; --patience) {
    daemon.post("1 ping\n");
    usleep(10 * 1000);
  }
  EXPECT_EQ(access(seen.c_str(), F_OK), 0);
  daemon.stop();
}

}  // namespace
