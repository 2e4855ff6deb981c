// The real daemon, started as its user would.

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <sstream>
#include <thread>

#include "tests/real_daemon.h"

namespace {

namespace fs = std::filesystem;

constexpr char kEnd[] = "<1> zelvind: zelvind end\n";

// Posts one event after the other until it is destroyed or the daemon goes away.
class Flood {
 public:
  explicit Flood(const RealDaemon& daemon)
      : thread([&] {
          std::string lines;
          for (int i = 0; i < 1000; ++i) lines += "1 flood n=1\n";
          while (!ended && daemon.post(lines)) {
          }
        }) {}
  ~Flood() {
    ended = true;
    thread.join();
  }

 private:
  std::atomic<bool> ended{false};
  std::thread thread;
};

TEST(Daemon, HandlesReloadsAndStops) {
  RealDaemon daemon;
  daemon.write("scripts/a.lua", "on('door', function() trace(1, 'before: ' .. evt_field_str('state')) end)");
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(daemon.post("1 door state=open\n2 nobody"));  // the last line counts without its line feed
  ASSERT_TRUE(daemon.wait_for("<1> lua-trace: before: open\n"));
  ASSERT_TRUE(daemon.wait_for("<1> mscript: unknown event type[nobody]\n"));
  daemon.write("scripts/a.lua", "on('door', function() trace(1, 'after: ' .. evt_field_str('state')) end)");
  daemon.send_signal(SIGHUP);
  ASSERT_TRUE(daemon.wait_for("script_load - " + daemon.path("scripts/a.lua"), 2));
  EXPECT_TRUE(daemon.post("1 door state=shut\n"));
  ASSERT_TRUE(daemon.wait_for("<1> lua-trace: after: shut\n"));
  EXPECT_EQ(daemon.count("before: shut"), 0u);
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_TRUE(daemon.wait_for(kEnd));
  EXPECT_FALSE(fs::exists(daemon.path("run/zelvind/events.sock")));
  EXPECT_EQ(read_file(daemon.path("stderr")), "signal_handle\nsignal_handle\n");
}

// Every mixture of signals at every stage: a stop always ends the daemon in order, a SIGHUP never does.
TEST(Daemon, StopIsNeverLostAndReloadNeverStops) {
  const struct {
    const char* name;
    const char* wait_for;  // then the signals are sent
    size_t times;
    std::vector<int> signals;
  } cases[] = {
      {"while the log opens", "Start zelvind...", 1, {SIGTERM}},
      {"while scripts load", "lua: sleep(300)", 1, {SIGHUP, SIGINT, SIGHUP}},
      {"during a reload", "lua: sleep(300)", 2, {SIGHUP, SIGTERM, SIGHUP}},
      {"during a reload, stop first", "lua: sleep(300)", 2, {SIGTERM, SIGHUP}},
      {"in a flood", "event(flood)", 50, {SIGTERM, SIGHUP}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    RealDaemon daemon;
    daemon.write("scripts/a.lua", "sleep(300) on('flood', function() end)");
    daemon.launch("$ZELVIND -p $ROOT/pid >/dev/null 2>&1");
    ASSERT_TRUE(daemon.read_pid());
    ASSERT_TRUE(row.times == 1 || daemon.wait_for("complete to start program"));
    if (row.times == 2) daemon.send_signal(SIGHUP);
    std::optional<Flood> flood;
    if (row.times == 50) flood.emplace(daemon);
    ASSERT_TRUE(daemon.wait_for(row.wait_for, row.times));
    for (const int number : row.signals) daemon.send_signal(number);
    EXPECT_EQ(daemon.wait_for_end(), 0);
    EXPECT_EQ(daemon.count(kEnd), 1u);
    EXPECT_EQ(daemon.count("mscript: cleanup..."), 1u);
    for (const int number : row.signals) {  // several of one kind may have arrived as one
      EXPECT_GE(daemon.count(std::string("signal_handler: SIG") + sigabbrev_np(number)), 1u);
    }
  }
}

TEST(Daemon, HangUpIsSafeFromTheFirstMomentOn) {
  for (int i = 0; i < 5; ++i) {
    RealDaemon daemon;
    // The pid file is a pipe: the shell that writes it has not ended yet when the signal is there.
    daemon.launch("mkfifo $ROOT/pipe; $ZELVIND -p $ROOT/pipe >/dev/null 2>&1");
    ASSERT_EQ(daemon.launch("read pid <$ROOT/pipe; kill -HUP $pid; echo $pid >$ROOT/pid"), 0);
    ASSERT_TRUE(daemon.read_pid());
    ASSERT_TRUE(daemon.wait_for("zelvind: reloading ..."));
    ASSERT_EQ(daemon.stop(), 0);
  }
}

TEST(Daemon, AStormOfHangUpsDoesNotKeepAStopWaiting) {
  RealDaemon daemon;
  daemon.write("scripts/a.lua", "sleep(50)");
  ASSERT_TRUE(daemon.start());
  std::atomic<bool> ended{false};
  std::thread storm([&] {
    while (!ended && daemon.send_signal(SIGHUP)) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  });
  EXPECT_TRUE(daemon.wait_for("zelvind: reloading ...", 3));
  daemon.send_signal(SIGTERM);
  EXPECT_TRUE(daemon.wait_for(kEnd));
  ended = true;
  storm.join();
  EXPECT_EQ(daemon.wait_for_end(), 0);
}

TEST(Daemon, OptionsNeverKeepItFromStarting) {
  const std::string line = "pid file indicated : ";
  const std::string long_path = "/tmp/" + std::string(1019, 'x');
  const struct {
    std::string options;
    std::string output;  // $ROOT stands for the root
    std::string errors;  // a part of them
  } cases[] = {
      {"-v -h --version --help stray", "", ""},
      {"--unknown", "", "unrecognized option '--unknown'"},
      {"-p", "", "option requires an argument -- 'p'"},
      {"-p ''", line + "\n", ""},
      {"-p $ROOT/a --pidfile=$ROOT/b", line + "$ROOT/a\n" + line + "$ROOT/b\n", ""},
      {"-p /nowhere/pid", line + "/nowhere/pid\n", "/nowhere/pid"},
      {"-p " + long_path, line + long_path + "\n", "longer than 1023 characters, none is written"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.options);
    RealDaemon daemon;
    daemon.write("scripts/a.lua", "os.execute('echo $PPID > ' .. os.getenv('ROOT') .. '/pid')");
    EXPECT_EQ(daemon.launch("$ZELVIND " + row.options + " >$ROOT/out 2>$ROOT/err"), 0);
    ASSERT_TRUE(daemon.read_pid());
    ASSERT_TRUE(daemon.wait_for("complete to start program"));
    EXPECT_EQ(daemon.stop(), 0);
    std::string output = row.output;
    for (size_t at = 0; (at = output.find("$ROOT/")) != std::string::npos;) output.replace(at, 6, daemon.path(""));
    EXPECT_EQ(read_file(daemon.path("out")), output);
    EXPECT_NE(read_file(daemon.path("err")).find(row.errors), std::string::npos);
    EXPECT_FALSE(fs::exists(daemon.path("a")));
    EXPECT_EQ(fs::exists(daemon.path("b")), row.options.find("/b") != std::string::npos);
  }
}

TEST(Daemon, FailedStartsAndReloads) {
  const struct {
    const char* name;
    const char* script;  // a.lua at the start; null: there is no configuration
    const char* reload_script;
    const char* environment;
    int status;
    const char* line;
  } cases[] = {
      {"no configuration", nullptr, nullptr, "", 1,
       "<1> zelvind: Failed to open conf[name:zelvind.info,type:0,path:/opt/flash/mtd4-cfg]\n"},
      {"a script fails", "error('no', 0)", nullptr, "", 0, "<1> zelvind: could not execute script["},
      {"a reload fails", "on('flood', function() end)", "syntax error", "", 0, "<1> zelvind: could not load file["},
      {"a relative root", "", nullptr, "DEVICE_ROOT=relative ", 1, "DEVICE_ROOT"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    RealDaemon daemon;
    if (row.script == nullptr) fs::remove(daemon.path("opt/flash/mtd4-cfg/zelvind.info"));
    daemon.write("scripts/a.lua", row.script == nullptr ? "" : row.script);
    daemon.launch(row.environment + std::string("$ZELVIND -p $ROOT/pid >/dev/null 2>>$ROOT/log"));
    ASSERT_TRUE(daemon.read_pid());
    std::optional<Flood> flood;
    if (row.reload_script != nullptr) {
      ASSERT_TRUE(daemon.wait_for("complete to start program"));
      flood.emplace(daemon);
      ASSERT_TRUE(daemon.wait_for("event(flood)", 50));
      daemon.write("scripts/a.lua", row.reload_script);
      daemon.send_signal(SIGHUP);
    }
    EXPECT_EQ(daemon.wait_for_end(), row.status);
    EXPECT_EQ(daemon.count(row.line), 1u);
    EXPECT_EQ(daemon.count(kEnd), row.status == 0 ? 1u : 0u);
    EXPECT_EQ(daemon.count("mscript: cleanup..."), 0u);
    EXPECT_FALSE(fs::exists(daemon.path("run/zelvind/events.sock")));
  }
}

TEST(Daemon, StandardStreamsThatAreClosedOrDead) {
  for (const bool closed : {true, false}) {
    RealDaemon daemon;
    ASSERT_TRUE(daemon.start(closed ? "$ZELVIND -p $ROOT/pid <&- >&- 2>&-"
                                    : "{ $ZELVIND -p $ROOT/pid 2>&1 >/dev/null; } | true"));
    const std::string descriptors = "/proc/" + std::to_string(daemon.process()) + "/fd/";
    EXPECT_TRUE(fs::is_symlink(descriptors + "0"));
    for (const char* const output : {"1", "2"}) EXPECT_NE(fs::is_symlink(descriptors + output), closed);
    daemon.send_signal(SIGHUP);
    ASSERT_TRUE(daemon.wait_for("zelvind: reloading ..."));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(daemon.count("signal_handler: SIGHUP"), 1u);
    EXPECT_EQ(daemon.count("signal_handler: SIGPIPE"), 0u);
  }
}

// A reload comes at the end of the pass in progress, however many events wait, and no signal cuts a handler's sleep
// short.
TEST(Daemon, ReloadsBetweenTwoPasses) {
  RealDaemon daemon;
  daemon.write("scripts/a.lua",
               "on('flood', function() end) on('nap', function() local start = timems() sleep(300) "
               "trace(1, 'slept ' .. tostring(timems() - start >= 300)) end)");
  ASSERT_TRUE(daemon.start());
  std::optional<Flood> flood(daemon);
  ASSERT_TRUE(daemon.wait_for("event(flood)", 50));
  for (size_t i = 1; i <= 5; ++i) {
    daemon.send_signal(SIGHUP);
    ASSERT_TRUE(daemon.wait_for("mscript: load script files from", i + 1));
  }
  flood.reset();
  std::vector<size_t> passes;
  std::istringstream log(daemon.log());
  bool is_reload = false;
  for (std::string line; std::getline(log, line);) {
    if (line.find("zelvind: reloading") != std::string::npos) is_reload = true, passes.push_back(0);
    if (line.find("load script files from") != std::string::npos) is_reload = false;
    if (is_reload && line.find("event(") != std::string::npos) ++passes.back();
  }
  std::sort(passes.begin(), passes.end());
  EXPECT_LE(passes.at(2), 2u);  // the median: a main thread that is put to sleep in between is nobody's fault

  ASSERT_TRUE(daemon.post("1 nap\n"));
  ASSERT_TRUE(daemon.wait_for("lua: sleep(300)"));
  daemon.send_signal(SIGHUP);
  EXPECT_TRUE(daemon.wait_for("slept true"));
  EXPECT_EQ(daemon.stop(), 0);
}

TEST(Daemon, AFloodingPlugInLosesNothing) {
  RealDaemon daemon;
  daemon.write("opt/flash/mtd4-cfg/zelvind.info", "log_level = 2\nlistener_port = 0\nscript_path = " +
                                                      daemon.path("scripts") + "\ndll_path = " FLOOD_PLUGIN_DIR "\n");
  daemon.write("scripts/a.lua",
               "local n = 0 on('flood', function() n = n + 1 local got = evt_field_int('n') "
               "if got ~= n then trace(1, 'ended with ' .. got .. ' after ' .. n - 1) end end)");
  ASSERT_TRUE(daemon.start("export LD_LIBRARY_PATH=" FLOOD_PLUGIN_DIR "; $ZELVIND -p $ROOT/pid >/dev/null 2>&1"));
  EXPECT_TRUE(daemon.wait_for("<1> lua-trace: ended with 0 after 100000\n"));
  EXPECT_EQ(daemon.count("ended with"), 1u);
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
