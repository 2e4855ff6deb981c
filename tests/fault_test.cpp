// The real daemon when the system fails it: single calls, through a daemon whose calls fail on demand, and limits.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#include "tests/event_client.h"
#include "tests/real_daemon.h"
#include "util/text.h"

namespace {

// What still works.
enum Service : unsigned { kNone = 0, kOwnEvents = 1, kPosters = 2, kClients = 4, kAll = 7 };

class FaultyDaemon : public RealDaemon {
 public:
  FaultyDaemon() {
    write("scripts/a.lua",
          "script_define('faults', nil)\n"
          "on('ping', function() trace(1, 'pong ' .. evt_info()) end)\n"
          "event_post(1, 'ping', 'own')\n"
          "cr_add(function() while true do cr_yield(20) event_post(1, 'ping', 'own') end end, 0, nil)\n");
  }

  // Starts the daemon behind `settings`, a shell command. False when it did not say that it is complete.
  bool start_with(const std::string& settings) {
    return start(settings + "; $FAULTY -p $ROOT/pid >/dev/null 2>$ROOT/stderr");
  }

  // Waits until no thread runs: one on its way to a call would meet the fault that is meant for another.
  bool sleeps() const {
    const auto waits = [](const auto& thread) {
      return read_file(thread.path() / "stat").find(") R ") == std::string::npos;
    };
    const std::filesystem::directory_iterator end;
    return wait_until([&] {
      return std::all_of(std::filesystem::directory_iterator("/proc/" + std::to_string(process()) + "/task"), end,
                         waits);
    });
  }

  void expect(unsigned service) {
    EXPECT_TRUE((service & kOwnEvents) == 0 || wait_for("pong own"));
    EXPECT_TRUE((service & kPosters) == 0 || (post("1 ping posted\n") && wait_for("pong posted")));
    if ((service & kClients) == 0) return;
    EventClient client(port());
    subscribe(client, "ping");
    EXPECT_NE(client.read_info(), "nothing");
  }
};

struct Case {
  const char* call;
  int error, skip, count;
  const char* line;  // of the log
  unsigned service;
};

void expect_survival(const Case& row, bool from_start) {
  const std::string fault = sstr("export FAULT='%s %d %d %d'", row.call, row.error, row.skip, row.count);
  SCOPED_TRACE(fault);
  FaultyDaemon daemon;
  daemon.arm(from_start);
  ASSERT_TRUE(daemon.start_with(fault));
  std::optional<EventClient> client;
  if (!from_start) {
    daemon.subscribe(client.emplace(daemon.port()), "ping");
    EXPECT_TRUE(daemon.sleeps());
    daemon.arm(true);
    daemon.post("1 ping first\n");
    client->send_bytes(EventClient::subscription("ping"));  // or the event_recv thread might sleep on
  }
  EXPECT_TRUE(daemon.wait_for(row.line));
  daemon.arm(from_start);
  daemon.expect(row.service);
  EXPECT_EQ(daemon.stop(), 0);
}

TEST(Fault, OfACallAtTheStart) {
  const char* const no_queue = "evq: cannot open the event queue: Too many open files";
  const Case cases[] = {
      {"pthread_create", EAGAIN, 0, 1, "control: no thread to answer requests (Resource", kAll},
      {"pthread_create", EAGAIN, 1, 1, "evq: no thread to read events while scripts run (Resource", kAll},
      {"pthread_create", EAGAIN, 2, 1, "mlistener: failed to run event_recv thread", kOwnEvents | kPosters},
      {"pthread_create", EAGAIN, 3, 1, "mlistener: failed to run accept thread", kOwnEvents | kPosters},
      {"pthread_create", EAGAIN, 4, 1, "mscript: failed to run thread", kNone},
      {"pthread_create", EAGAIN, 0, 9, "mscript: failed to run thread", kNone},
      {"socket", EMFILE, 0, 1, "", kAll},
      {"socket", EMFILE, 1, 1, "control.sock (Too many open files)", kAll},
      {"socket", EMFILE, 2, 1, "events.sock (Too many open files)", kOwnEvents | kClients},
      {"socket", EMFILE, 3, 1, "mlistener: Failed to create server socket(errno:24)", kOwnEvents | kPosters},
      {"bind", EACCES, 0, 1, "control.sock (Permission denied)", kAll},
      {"bind", EACCES, 1, 1, "events.sock (Permission denied)", kOwnEvents | kClients},
      {"bind", EADDRINUSE, 2, 1, "mlistener: port 0 is open now", kAll},
      {"listen", EADDRINUSE, 0, 9, "events.sock (Address already in use)", kOwnEvents},
      {"eventfd", EMFILE, 0, 2, "control: no descriptor (Too many open files)", kAll},
      {"eventfd", EMFILE, 2, 1, no_queue, kNone},
      {"epoll_create1", EMFILE, 0, 1, no_queue, kNone},
  };
  for (const Case& row : cases) expect_survival(row, true);
}

TEST(Fault, OfACallWhileItRuns) {
  const Case cases[] = {
      {"send", ECONNRESET, 0, 1, "mlistener: failed to send data", kAll},
      {"send", ENOBUFS, 0, 5, "mlistener: failed to send data", kAll},
      {"send", EINTR, 0, 5, "", kAll},
      {"send", EAGAIN, 0, 100000000, "stopped reading, its events are skipped", kAll},
      {"recv", EIO, 0, 5, "", kAll},
      {"recv", EINTR, 0, 5, "", kAll},
      {"poll", ENOMEM, 0, 5, "mlistener: poll function failed", kAll},
      {"accept4", EMFILE, 0, 5, "evq: cannot accept a poster: Too many open files", kAll},
      {"accept4", ECONNABORTED, 0, 5, "", kAll},
      {"epoll_wait", EINTR, 0, 50, "", kAll},
  };
  for (const Case& row : cases) expect_survival(row, false);
}

TEST(Fault, OfTheFork) {
  RealDaemon daemon;
  daemon.arm(true);
  EXPECT_EQ(daemon.launch("FAULT='fork 11 0 1' $FAULTY 2>$ROOT/stderr"), 0);
  EXPECT_EQ(read_file(daemon.path("stderr")), "Failed to fork current process\n");
  EXPECT_EQ(daemon.log(), "");
}

// The sanitizers need memory without a limit and descriptors of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// From almost none up to enough: whatever cannot be had, the daemon ends in order, or runs and can be stopped.
TEST(Limit, FewDescriptors) {
  bool was_short = false;
  for (int limit = 12; limit <= 20; ++limit) {  // 3 to 9 are taken
    SCOPED_TRACE(limit);
    RealDaemon daemon;
    daemon.launch("exec >/dev/null 2>&1; for fd in 3 4 5 6 7 8 9; do eval exec $fd'</dev/null'; done; ulimit -n " +
                  std::to_string(limit) + "; exec $ZELVIND");
    ASSERT_TRUE(daemon.wait_for("<1> Start zelvind..."));
    daemon.write("pid", std::to_string(daemon.last_number_behind("zelvind[")) + "\n");
    ASSERT_TRUE(daemon.read_pid());
    const bool without_settings = daemon.stop() == 1;
    EXPECT_EQ(daemon.count(without_settings ? "<1> zelvind: Failed to open conf[" : "<1> zelvind: zelvind end"), 1u);
    was_short = was_short || daemon.count("Too many open files") > 0;
  }
  EXPECT_TRUE(was_short);
}

TEST(Limit, AScriptEatsTheMemory) {
  for (const std::string food : {"string.rep('x', 1e6) .. #t", "function() end"}) {
    SCOPED_TRACE(food);
    FaultyDaemon daemon;
    daemon.write("scripts/eat.lua",
                 "es_eat = { list_func = { { 'eat', function() local t = {} while true do t[#t + 1] = " + food +
                     " end end } } }");
    ASSERT_TRUE(daemon.start_with("export FAULT=; ulimit -v 150000"));
    for (size_t times = 1; times <= 2; ++times) {
      EXPECT_TRUE(daemon.post("1 eat\n"));
      EXPECT_TRUE(daemon.wait_for("<1> mscript: error[etype:1] - not enough memory\n", times));
      daemon.expect(kAll);
    }
    EXPECT_EQ(daemon.stop(), 0);
  }
}

#endif

// A pipe that is full, and whose other end stays open. It may hold up the shell that writes the pid file, too.
TEST(Limit, NobodyReadsStandardError) {
  const struct {
    std::string target, command;
    bool is_ended_at_once;
  } rows[] = {
      {"file:$ROOT/log", "$ZELVIND -p $ROOT/pid >&2", false},
      {"stderr", "$ZELVIND -p $ROOT/pid >/dev/null", false},
      {"file:$ROOT/log", "$ZELVIND -p '$ROOT/pid; echo >/nowhere/pid' >/dev/null", true},
  };
  for (const auto& [target, command, is_ended_at_once] : rows) {
    SCOPED_TRACE(target + " " + command);
    RealDaemon daemon;
    daemon.launch("export ELOG_TARGET=" + target +
                  "; mkfifo $ROOT/pipe; exec 2<>$ROOT/pipe; head -c 65536 /dev/zero >&2; " + command);
    ASSERT_TRUE(daemon.read_pid());
    EXPECT_TRUE(is_ended_at_once ||
                daemon.launch("timeout 20 sh -c 'until zelvctl post 1 ping; do sleep 0.01; done' 2>$ROOT/stderr") == 0);
    EXPECT_EQ(daemon.stop(), 0);
  }
}

TEST(Limit, TheDiskUnderTheLogIsFull) {
  RealDaemon daemon;
  daemon.launch("export ELOG_TARGET=file:/dev/full; $ZELVIND -p $ROOT/pid >/dev/null 2>&1");
  ASSERT_TRUE(daemon.read_pid());
  EXPECT_EQ(daemon.launch("timeout 20 sh -c 'until zelvctl post 1 ping; do sleep 0.01; done' 2>$ROOT/stderr"), 0);
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
