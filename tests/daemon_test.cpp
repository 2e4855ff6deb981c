// The real daemon, started as its user would.

#include <sys/statvfs.h>

#include <cstring>
#include <vector>

#include "tests/real_daemon.h"

namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

constexpr char kEnd[] = "<1> zelvind: zelvind end\n";

// Commands for the shell; the last two end with the daemon.
constexpr char kHangUp[] = "kill -HUP $(cat $ROOT/pid)";
constexpr char kStorm[] = "while kill -HUP $(cat $ROOT/pid); do sleep 0.01; done >/dev/null 2>&1 &";
constexpr char kFlood[] = "yes '1 flood n=1' | zelvctl post - >/dev/null 2>&1 &";

// The listener ends first, also while a script is at work; the plug-ins are told before the Lua state is closed. With
// all that open, a program of a script inherits none of it.
TEST(Daemon, StopsInItsFixedOrder) {
  RealDaemon daemon;
  daemon.launch("echo dll_path = " PLUGIN_DIR " >>$ROOT/opt/flash/mtd4-cfg/zelvind.info");
  daemon.write("scripts/a.lua",
               "event_server.cleanup = function() trace(1, 'cleanup') end\n"
               "proc_run({ 'echo', 'it runs' }, 20, function(_, _, output) trace(1, output) end)\n"
               "on('door', function() local inherited = io.popen([[find /proc/self/fd ! -name '[012]' "
               "'(' -lname 'socket:*' -o -lname 'anon_inode:*' -o -lname '*/log' ')']]):read('*a') "
               "io.open(os.getenv('ROOT') .. '/gate'):read() trace(1, 'handled' .. inherited) end)");
  daemon.launch("mkfifo $ROOT/gate");
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(daemon.wait_for("lua-trace: it runs"));  // it found what plug-ins need of the daemon
  EventClient client(daemon.port());
  daemon.subscribe(client, "door");
  daemon.launch("zelvctl post 1 door >/dev/null 2>&1 &");
  EXPECT_EQ(client.read_info(), "");
  daemon.send_signal(SIGTERM);
  EXPECT_TRUE(client.ended());
  EXPECT_TRUE(daemon.wait_for("mscript: thread stop..."));
  daemon.write("gate", "");
  EXPECT_EQ(daemon.wait_for_end(), 0);
  const std::string log = daemon.log();
  size_t at = 0;
  for (const char* line :
       {"signal_handler: SIGTERM", "mscript: thread stop...", "<1> lua-trace: handled\n", "<1> lua-trace: cleanup",
        "mextension: prepare_cleanup", "mscript: cleanup...", "mextension: cleanup", kEnd}) {
    const size_t found = log.find(line, at);
    EXPECT_NE(found, std::string::npos) << line;
    if (found != std::string::npos) at = found;
  }
  EXPECT_EQ(read_file(daemon.path("stderr")), "signal_handle\n");
}

// Every mixture of signals at every stage: a stop always ends the daemon in order, a SIGHUP never does, and neither
// cuts a script's sleep short.
TEST(Daemon, StopIsNeverLostAndReloadNeverStops) {
  const struct {
    const char *name, *command;  // for the daemon that is complete
    const char* wait_for;        // then the signals are sent
    size_t times;
    std::vector<int> signals;
  } cases[] = {
      {"while the log opens", "", "Start zelvind...", 1, {SIGTERM}},
      {"while scripts load", "", "lua: sleep(300)", 1, {SIGHUP, SIGINT, SIGHUP}},
      {"during a reload", kHangUp, "lua: sleep(300)", 2, {SIGHUP, SIGTERM, SIGHUP}},
      {"during a reload, stop first", kHangUp, "lua: sleep(300)", 2, {SIGTERM, SIGHUP}},
      {"in a storm", kStorm, "zelvind: reloading ...", 3, {SIGTERM}},
      {"in a flood", kFlood, "event(flood)", 50, {SIGTERM, SIGHUP}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    RealDaemon daemon;
    daemon.write("scripts/a.lua",
                 "on('flood', function() end)"
                 "local start = timems() sleep(300) if timems() - start < 300 then trace(1, 'cut short') end");
    daemon.launch("$ZELVIND -p $ROOT/pid >/dev/null 2>&1");
    ASSERT_TRUE(daemon.read_pid());
    ASSERT_TRUE(*row.command == '\0' || daemon.wait_for("complete to start program"));
    daemon.launch(row.command);
    ASSERT_TRUE(daemon.wait_for(row.wait_for, row.times));
    for (const int number : row.signals) daemon.send_signal(number);
    EXPECT_EQ(daemon.wait_for_end(), 0);
    EXPECT_EQ(daemon.count(kEnd), 1u);
    EXPECT_EQ(daemon.count("mscript: cleanup..."), 1u);
    EXPECT_EQ(daemon.count("cut short"), 0u);
    for (const int number : row.signals) {  // several of one kind may have arrived as one
      EXPECT_GE(daemon.count(std::string("signal_handler: SIG") + sigabbrev_np(number)), 1u);
    }
  }
}

TEST(Daemon, HangUpIsSafeFromTheFirstMomentOn) {
  RealDaemon daemon;
  // The path goes through a shell, which is the daemon's child and still runs when the signal is there.
  daemon.launch("$ZELVIND -p '/dev/null; kill -HUP $PPID; echo $PPID >'$ROOT/pid >/dev/null 2>&1");
  ASSERT_TRUE(daemon.read_pid());
  ASSERT_TRUE(daemon.wait_for("zelvind: reloading ..."));
  ASSERT_EQ(daemon.stop(), 0);
}

TEST(Daemon, AStopGivesTheShellOfThePidFileASecond) {
  RealDaemon daemon;
  daemon.launch("$ZELVIND -p '/dev/null; sleep 1.1; kill $PPID; sleep 0.1; echo $PPID >'$ROOT/pid >/dev/null 2>&1");
  ASSERT_TRUE(daemon.read_pid());
  EXPECT_EQ(daemon.wait_for_end(), 0);
}

TEST(Daemon, OptionsNeverKeepItFromStarting) {
  const std::string line = "pid file indicated : ";
  const std::string long_path = "/tmp/" + std::string(1019, 'x');
  const struct {
    std::string options, output, error;
  } cases[] = {
      {"-v -h --version --help stray", "", ""},
      {"--unknown", "", "unrecognized option '--unknown'"},
      {"-p", "", "option requires an argument -- 'p'"},
      {"-p ''", line + "\n", ""},
      {"-p $ROOT/a --pidfile=$ROOT/b", line + "ROOT/a\n" + line + "ROOT/b\n", ""},
      {"-p /nowhere/pid", line + "/nowhere/pid\n", "/nowhere/pid"},
      {"-p $ROOT/fifo", line + "ROOT/fifo\n",
       "zelvind: ROOT/fifo is a FIFO that nobody reads: no pid file is written\n"},
      {"-p " + long_path, line + long_path + "\n", "longer than 1023 characters, none is written"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.options);
    RealDaemon daemon;
    daemon.write("scripts/a.lua", "os.execute('echo $PPID > ' .. os.getenv('ROOT') .. '/pid')");
    EXPECT_EQ(daemon.launch("mkfifo $ROOT/fifo; $ZELVIND " + row.options + " >$ROOT/out 2>$ROOT/err"), 0);
    ASSERT_TRUE(daemon.read_pid());
    ASSERT_TRUE(daemon.wait_for("complete to start program"));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(daemon.text_of("out"), row.output);
    EXPECT_NE(daemon.text_of("err").find(row.error), std::string::npos);
    EXPECT_FALSE(fs::exists(daemon.path("a")));
    EXPECT_EQ(fs::exists(daemon.path("b")), row.options.find("/b") != std::string::npos);
  }
}

TEST(Daemon, FailedStartsAndReloads) {
  const struct {
    const char *name, *script;  // a.lua at the start; null: there is no configuration
    const char *reload_script, *environment;
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
    if (row.reload_script != nullptr) {
      ASSERT_TRUE(daemon.wait_for("complete to start program"));
      daemon.launch(kFlood);
      ASSERT_TRUE(daemon.wait_for("event(flood)", 50));
      daemon.write("scripts/a.lua", row.reload_script);
      daemon.send_signal(SIGHUP);
    }
    EXPECT_EQ(daemon.wait_for_end(), row.status);
    EXPECT_EQ(daemon.count(row.line), 1u);
    EXPECT_EQ(daemon.count("econf: cannot read /tmp/"), row.script == nullptr ? 1u : 0u);  // the path that was tried
    EXPECT_EQ(daemon.count(kEnd), row.status == 0 ? 1u : 0u);
    EXPECT_EQ(daemon.count("mscript: cleanup..."), 0u);
    EXPECT_FALSE(fs::exists(daemon.path("run/zelvind/events.sock")));
  }
}

// Each script fails in the copy of the daemon that tries the reload, by SIGHUP with reload_trial = 1. `make` runs in
// the folder of the scripts, where `undo` leaves what was there before.
TEST(Daemon, AFailedTrialChangesNothing) {
  const std::string at_1 = "could not execute script[ROOT/scripts/x.lua] -- ROOT/scripts/x.lua:1: ";
  const std::string bare = "could not execute script[ROOT/scripts/x.lua] -- ";
  const std::string unread = "could not load file[ROOT/scripts/x.lua] -- ";
  const auto file = [](const std::string& code) { return "cat >x.lua <<'END'\n" + code + "\nEND\n"; };
  const struct {
    std::string make, line, undo;
  } rows[] = {
      {file("evry(10, function() end)"), at_1 + "attempt to call global 'evry' (a nil value)", ""},
      {file("local t = {} t.go()"), at_1 + "attempt to call field 'go' (a nil value)", ""},
      {file("for i = 1, 9 do assert(i < 9, 'at ' .. i) end"), at_1 + "at 9", ""},
      {file("while true do end"), "did not return within 10 s: " + at_1 + "did not return", ""},
      {file("local function f() return 1 + f() end f()"), at_1 + "stack overflow", ""},
      {file("local function f(s) return (s:gsub('.', f)) end f('x')"), bare + "C stack overflow", ""},
      {file("local t = {} while true do t[#t + 1] = ('x'):rep(1e6) .. #t end"), "", ""},
      {file("x = = 1"), unread + "ROOT/scripts/x.lua:1: unexpected symbol near '='", ""},
      {"ln -s nowhere x.lua", unread + "cannot open ROOT/scripts/x.lua", ""},
      {"mkfifo x.lua", unread + "it is not a regular file\n", ""},
      {"ln -s /dev/zero x.lua", unread + "it is not a regular file\n", ""},
      {"mkdir x.lua", unread + "cannot read ROOT/scripts/x.lua: Is a directory", ""},
      {"printf '\\033Lua0123456789' >x.lua", unread + "ROOT/scripts/x.lua: bad header in precompiled chunk", ""},
      {file("on('door', function() error('no') end)") + "echo \"error('second', 0)\" >y.lua",
       "could not execute script[ROOT/scripts/y.lua] -- second", "rm scripts/y.lua"},
      {file("assert(round == 1, 'only once')"), at_1 + "only once", ""},
      {file("error({})"), bare + "NOT ERROR", ""},
      {file("error(('x'):rep(1e6))"), at_1 + "xxxx", ""},
      {file("error('one\\ntwo\\27[2J', 0)"), bare + "one\n", ""},
      {file("event_post(1, 'door') assert(event_post(1, 'front door'))"), at_1 + "the name holds a blank", ""},
      {file("event_post(1.5, 'door')"), at_1 + "bad argument #1 to 'event_post' (whole 32-bit number expected)", ""},
      {file("os.exit(3)"), "a script calls os.exit, which ends the daemon\n", ""},
      {file("pcall(os.exit)"), "a script calls os.exit, which ends the daemon\n", ""},
      {file("os.remove(os.getenv('ROOT') .. '/scripts/a.lua') event_post(1, 'door', 'n=copy')"
            "os.execute('touch $ROOT/made') proc_run({ 'touch', os.getenv('ROOT') .. '/made' }, 9, print)"
            "for i = 1, 20000 do trace(1, 'copy') end error('left', 0)"),
       bare + "left", ""},
      {"mv ../scripts ../gone", "Failed to get script file list in path[ROOT/scripts]", "mv gone scripts"},
  };
  RealDaemon daemon;
  daemon.launch("printf 'reload_trial = 1\ndll_path = " PLUGIN_DIR "\n' >>$ROOT/opt/flash/mtd4-cfg/zelvind.info");
  daemon.write("scripts/a.lua",
               "round = (round or 0) + 1 local mine = round "
               "on('door', function() trace(1, 'round ' .. mine .. ' ' .. evt_info()) end)"
               "every(1, function() end) task(function() while true do cr_yield(10) end end)");
  ASSERT_TRUE(daemon.start());
  EventClient client(daemon.port());
  daemon.subscribe(client, "door");
  const std::string proc = "/proc/" + std::to_string(daemon.process());
  const auto descriptors = [&] { return std::distance(fs::directory_iterator(proc + "/fd"), {}); };
  const auto resident_pages = [&] {
    long size = 0, resident = 0;
    std::ifstream(proc + "/statm") >> size >> resident;
    return resident;
  };
  const auto descriptors_before = descriptors();
  long pages_before = 0;
  size_t failed = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.make);
    daemon.launch("cd $ROOT/scripts; " + row.make);
    daemon.send_signal(SIGHUP);
    ASSERT_TRUE(daemon.wait_for("<1> zelvind: not reloaded: ", ++failed));
    const std::string log = daemon.text_of("log");
    const std::string text = log.substr(log.rfind("<1> zelvind: not reloaded: ") + 27);
    EXPECT_EQ(text.substr(0, row.line.size()), row.line);
    ASSERT_TRUE(
        wait_until([&] { return read_file(daemon.path("run/zelvind/state")).find(" ready 0") != std::string::npos; }));
    daemon.launch("cd $ROOT; rm -rf scripts/x.lua; " + row.undo);
    const std::string info = "n=" + std::to_string(failed);
    EXPECT_TRUE(daemon.post("1 door " + info + "\n"));
    EXPECT_EQ(client.read_info(), info);
    EXPECT_TRUE(daemon.wait_for("round 1 " + info));
    EXPECT_EQ(read_file(proc + "/task/" + std::to_string(daemon.process()) + "/children"), "");
    EXPECT_TRUE(wait_until([&] { return descriptors() == descriptors_before; }));  // the poster's goes a little later
    if (failed == 1) pages_before = resident_pages();
  }
  EXPECT_LT(resident_pages() - pages_before, kIsSanitized ? 16384 : 256);
  EXPECT_FALSE(fs::exists(daemon.path("made")));
  EXPECT_EQ(daemon.count("<1> lua-trace: copy"), 0u);
  daemon.write("scripts/x.lua", "error('no')");
  daemon.expect_zelvctl("reload --pidfile $ROOT/pid", 1, "the reload is not tried first: --pidfile was given\n",
                        "zelvctl: the daemon (process " + std::to_string(daemon.process()) +
                            ") has not reloaded: the trial has failed; its log says why\n");
  fs::remove(daemon.path("scripts/x.lua"));
  daemon.send_signal(SIGHUP);
  EXPECT_TRUE(daemon.wait_for("zelvind: reloading ..."));
  EXPECT_TRUE(daemon.post("1 door n=last\n"));
  EXPECT_TRUE(daemon.wait_for("round 2 n=last"));
  EXPECT_EQ(daemon.stop(), 0);
}

TEST(Daemon, StandardStreamsThatAreClosedOrDead) {
  const struct {
    std::string command;
    std::vector<const char*> closed;
  } rows[] = {{"$ZELVIND -p $ROOT/pid <&- >&- 2>&-", {"1", "2"}},
              {"$ZELVIND -p $ROOT/pid >&- 2>$ROOT/out", {"1"}},
              {"$ZELVIND -p $ROOT/pid >$ROOT/out 2>&-", {"2"}},
              {"{ $ZELVIND -p $ROOT/pid 2>&1 >/dev/null; } | true", {}}};
  for (const auto& [command, closed] : rows) {
    SCOPED_TRACE(command);
    RealDaemon daemon;
    if (!closed.empty()) {
      daemon.write("scripts/a.lua",
                   "mine = io.open(os.getenv('ROOT') .. '/mine', 'w') print('stray') io.stderr:write('stray') "
                   "os.execute('echo stray; echo stray >&2')");
    }
    ASSERT_TRUE(daemon.start(command));
    const std::string descriptors = "/proc/" + std::to_string(daemon.process()) + "/fd/";
    EXPECT_TRUE(fs::is_symlink(descriptors + "0"));
    for (const std::string fd : closed) EXPECT_EQ(fs::read_symlink(descriptors + fd), "/dev/null");
    daemon.send_signal(SIGHUP);
    ASSERT_TRUE(daemon.wait_for("zelvind: reloading ..."));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(daemon.count("signal_handler: SIGHUP"), 1u);
    EXPECT_EQ(daemon.count("signal_handler: SIGPIPE"), 0u);
    EXPECT_EQ(read_file(daemon.path("mine")), "");
  }
}

// Such a daemon heeds no DEVICE_ROOT, so its settings are mounted where it looks for them, for it alone.
TEST(Daemon, ASetUidProgramTakesNoLuaFilesFromItsCaller) {
  RealDaemon daemon;
  struct statvfs system {};
  ASSERT_EQ(statvfs(daemon.path("").c_str(), &system), 0);
  if ((system.f_flag & ST_NOSUID) != 0 || daemon.launch("unshare -m mount --bind $ROOT/opt /opt 2>/dev/null") != 0) {
    GTEST_SKIP() << "needs root, mounts, and set-uid programs";
  }
  daemon.write("scripts/a.lua", "local told = io.open('" + daemon.path("told") +
                                    "', 'w') told:write(io.open('/proc/self/stat'):read('*n'), ' ', package.path, ' ', "
                                    "package.cpath, '\\n', io.popen('env'):read('*a')) told:close()");
  daemon.launch(
      "cd $ROOT; chmod 755 .; touch told; mkdir bin; cp $ZELVIND ${ZELVIND%/*}/init_base.lua bin;"
      "chown 65534 told bin/zelvind; chmod 4755 bin/zelvind; export LUA_PATH='/caller/?.lua;;' "
      "LUA_CPATH='/caller/?.so;;' PATH=/caller/bin:$PATH HOME=/caller;"
      "unshare -m sh -c 'mount --bind $ROOT/opt /opt;"
      "setpriv --reuid=12345 --regid=12345 --clear-groups $ROOT/bin/zelvind' >$ROOT/stderr 2>&1");
  ASSERT_TRUE(daemon.read_pid("told"));
  const std::string told = read_file(daemon.path("told"));
  EXPECT_EQ(told.find("/caller"), std::string::npos) << told;
  EXPECT_NE(told.find("\nPATH=/usr/sbin:/usr/bin:/sbin:/bin\n"), std::string::npos) << told;
}

}  // namespace
