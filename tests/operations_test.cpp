// How the real daemon is kept running: what it tells a service manager, and zelvctl's check, reload and run.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "tests/real_daemon.h"
#include "util/descriptor.h"

namespace {

// A service manager's end of NOTIFY_SOCKET.
class Manager {
 public:
  // `name` is a path, or "@" and an abstract name.
  explicit Manager(const std::string& name) : socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    const timeval limit{20, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  }

  std::string next(const std::string& but = "") const {
    char text[256];
    const ssize_t got = recv(socket.get(), text, sizeof(text), 0);
    const std::string told = got < 0 ? "nothing came" : std::string(text, static_cast<size_t>(got));
    return told == but ? next(but) : told;
  }

 private:
  const Descriptor socket;
};

TEST(Service, TellsItsManagerWhatHappens) {
  for (const std::string mark : {"", "@"}) {
    RealDaemon daemon;
    const std::string name = mark + daemon.path("notify");
    const Manager manager(name);
    daemon.write("scripts/a.lua",
                 "on('door', function() trace(1, tostring(os.getenv('NOTIFY_SOCKET')) .. ' for scripts') end)");
    ASSERT_TRUE(daemon.start("NOTIFY_SOCKET=" + name + " WATCHDOG_USEC=2000 $ZELVIND -p $ROOT/pid >/dev/null 2>&1"));
    const std::string state = std::to_string(daemon.process());
    EXPECT_EQ(manager.next(), "READY=1");
    EXPECT_TRUE(daemon.post("1 door\n"));
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
    EXPECT_TRUE(daemon.wait_for("nil for scripts"));
    EXPECT_EQ(read_file(daemon.path("run/zelvind/state")), state + " ready 0\n");
    daemon.send_signal(SIGHUP);
    EXPECT_EQ(manager.next("WATCHDOG=1").substr(0, 27), "RELOADING=1\nMONOTONIC_USEC=");
    EXPECT_EQ(manager.next("WATCHDOG=1"), "READY=1\nSTATUS=");
    if (mark.empty()) {  // a reload that fails is an end like any other
      daemon.write("scripts/a.lua", "error('no')");
      daemon.send_signal(SIGHUP);
      EXPECT_EQ(manager.next("WATCHDOG=1").substr(0, 12), "RELOADING=1\n");
      EXPECT_EQ(daemon.wait_for_end(), 0);
    } else {
      EXPECT_EQ(daemon.stop(), 0);
    }
    EXPECT_EQ(manager.next("WATCHDOG=1"), "STOPPING=1");
    EXPECT_EQ(read_file(daemon.path("run/zelvind/state")), state + " stopping 1\n");
  }
}

TEST(Service, SaysOnceThatNobodyListens) {
  const std::pair<const char*, const char*> rows[] = {
      {"$ROOT/nobody", "service: cannot tell the service manager READY=1: No such file or directory"},
      {"vsock:2:1",
       "service: NOTIFY_SOCKET is 'vsock:2:1': expected a path, or @ and an abstract name; nobody is told"},
  };
  for (const auto& [name, line] : rows) {
    RealDaemon daemon;
    ASSERT_TRUE(daemon.start("NOTIFY_SOCKET=" + std::string(name) + " $ZELVIND -p $ROOT/pid >/dev/null 2>&1"));
    EXPECT_TRUE(daemon.wait_for(line));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(daemon.count("<1> service: "), 1u);
  }
}

TEST(Service, SaysThatTheEventLoopHasEnded) {
  RealDaemon daemon;
  const Manager manager(daemon.path("notify"));
  ASSERT_TRUE(daemon.start("NOTIFY_SOCKET=$ROOT/notify $ZELVIND -p $ROOT/pid >/dev/null 2>&1"));
  EXPECT_EQ(manager.next(), "READY=1");
  const std::string process = std::to_string(daemon.process());
  const auto has_state = [&](const char* state) {
    return wait_until([&] { return read_file(daemon.path("run/zelvind/state")) == process + state; });
  };
  daemon.expect_zelvctl("post --quit 9999 bye", 0, "", "");
  EXPECT_EQ(manager.next(), "STATUS=The event loop has ended");
  EXPECT_TRUE(has_state(" ended 0\n"));
  const std::string ended =
      "the event loop of the daemon (process " + process + ") has ended with the quit event: restart the daemon\n";
  for (const char* const arguments : {"post 1 door", "post --quit 9999 bye", "post - </dev/null", "reload"}) {
    daemon.expect_zelvctl(arguments, 1, "", "zelvctl: " + ended);
  }
  daemon.send_signal(SIGHUP);  // loads the scripts, and does not bring the loop back
  EXPECT_EQ(manager.next().substr(0, 12), "RELOADING=1\n");
  EXPECT_EQ(manager.next(), "READY=1\nSTATUS=The event loop has ended");
  EXPECT_TRUE(has_state(" ended 1\n"));
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_TRUE(has_state(" stopping 1\n"));
}

TEST(Check, ReportsEachFaultAndRunsNothing) {
  const std::string deep = "dir/" + std::string(80, 'd');
  const RealDaemon daemon;
  daemon.write("scripts/a.lua", "error('it ran')");
  daemon.write("scripts/lib/a/b.lua", "error('it ran')");
  daemon.write(deep + "/x.lua", "\nx = = 1");
  daemon.launch("dirname $ZELVIND >$ROOT/dirname; mkdir $ROOT/empty");
  std::string bin = read_file(daemon.path("dirname"));
  bin.pop_back();
  daemon.expect_zelvctl("check", 0, "5 scripts in " + bin + ", ROOT/scripts, no faults\n", "");
  daemon.expect_zelvctl("check $ROOT/dir $ROOT/" + deep + " /nowhere $ROOT/empty", 1,
                        "ROOT/dir: there is no script in it\n"
                        "ROOT/" +
                            deep +
                            "/x.lua:2: unexpected symbol near '='\n/nowhere: No such file or directory\n"
                            "ROOT/empty: there is no script in it\n",
                        "zelvctl: 4 faults; undefined globals were not checked\n");
  daemon.write("scripts/config.lua", "function (");
  daemon.write("scripts/lib/a/b.lua", "x = = 1");
  const std::string settings = "ROOT/opt/flash/mtd4-cfg/zelvind.info";
  daemon.launch(
      "cd $ROOT/scripts; rm server_event.lua; mkdir b.lua; mkfifo 'f\n.lua'; cd ../opt/flash/mtd4-cfg;"
      "sed -i 's/= 0/= 5x/' zelvind.info; printf 'nonsense\nscipt_path = x\ndoor = 1\ndll_path = "
      "/none\nlistener_address = eth0\n' "
      ">>zelvind.info");
  daemon.expect_zelvctl(
      "check", 1,
      settings + ":4: warning: the line is not 'key = value'\n" + settings +
          ": warning: the daemon has no setting 'door'\n" + settings +
          ": warning: listener_address is 'eth0': expected none, or up to 16 different IPv4 addresses and absolute "
          "paths of Unix sockets with commas between them, not those of the daemon's other sockets; no client can "
          "connect\n" +
          settings + ": warning: listener_port is '5x': expected a whole number from 0 to 65535; it is not used\n" +
          settings +
          ": warning: the daemon has no setting 'scipt_path'; did you mean script_path?\n"
          "/none: warning: dll_path: No such file or directory\n"
          "ROOT/scripts/config.lua:1: '<name>' expected near '('\n"
          "ROOT/scripts/server_event.lua: No such file or directory\n"
          "ROOT/scripts/b.lua: is not a regular file\n"
          "ROOT/scripts/f\\n.lua: is not a regular file\n"
          "ROOT/scripts/lib/a/b.lua:1: unexpected symbol near '='\n",
      "zelvctl: 5 faults, 6 warnings; undefined globals were not checked\n");
  daemon.write("opt/flash/mtd4-cfg/zelvind.info", "script_path = /none\n");
  daemon.expect_zelvctl("check", 1, "/none: script_path: No such file or directory\n",
                        "zelvctl: 1 fault; undefined globals were not checked\n");
  std::filesystem::remove(daemon.path("opt/flash/mtd4-cfg/zelvind.info"));
  daemon.expect_zelvctl("check", 1, "", "zelvctl: " + settings + ": No such file or directory\n");
}

TEST(Check, WarnsOfUndefinedGlobalsWhereLuacheckIsInstalled) {
  const RealDaemon daemon;
  daemon.write("dir/y.lua",
               "on('door', unheard_of) econf_str('a', 'b') trace(1, lsb(1)) es_door = added(config, event_server)");
  daemon.write("plugins/libea_y.lua", "function added(a, b) end");
  daemon.write("fails/luacheck", "#!/bin/sh\necho it is broken\nexit 3\n");
  daemon.launch("chmod +x $ROOT/fails/luacheck; echo dll_path = $ROOT/plugins >>$ROOT/opt/flash/mtd4-cfg/zelvind.info");
  const std::string script = "1 script in ROOT/dir/y.lua, ROOT/dir, no faults";
  const std::string unknown = "ROOT/dir/y.lua:1:12: warning: accessing undefined variable 'unheard_of'\n";
  const std::string unchecked = "undefined globals were not checked";
  const struct {
    const char *path, *option;
    int status;
    std::string output;
  } rows[] = {
      {"$PATH", "", 0, unknown + script + ", 1 warning\n"},
      {"$PATH", "--strict", 1, unknown},
      {"${ZELVIND%/*}", "", 0, script + "\n" + unchecked + ": luacheck is not installed\n"},
      {"${ZELVIND%/*}", "--strict", 1, "zelvctl: warning: " + unchecked + ": luacheck is not installed\n"},
      {"$ROOT/fails:${ZELVIND%/*}:$PATH", "", 0,
       "luacheck: warning: it is broken\nluacheck: warning: ended with status 3\n" + script + ", 2 warnings\n" +
           unchecked + "\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.output);
    const std::string command = "check $ROOT/dir/y.lua $ROOT/dir >$ROOT/out 2>$ROOT/err ";
    EXPECT_EQ(daemon.launch("PATH=" + std::string(row.path) + "; zelvctl " + command + row.option), row.status);
    EXPECT_EQ(daemon.text_of("out"), row.output);
    EXPECT_EQ(daemon.text_of("err"), row.status == 0 ? "" : "zelvctl: 1 warning\n");
  }
}

std::string as(const char* user, const char* group) {
  return "setpriv --reuid=" + std::string(user) + " --regid=" + group + " --clear-groups ";
}

// Has root give nobody what the daemon needs. Returns false when root does not run the test, or nobody cannot run the
// daemon.
bool is_for_nobody(const RealDaemon& daemon) {
  return daemon.launch(
             "cd $ROOT; chmod 755 .; install -d run; touch log pid; install -d -o 65534 -g 65534 run/zelvind;"
             "chown 65534 log pid; " +
             as("65534", "65534") + "test -x $ZELVIND") == 0;
}

TEST(Check, RootReadsScriptsAsTheDaemonDoes) {
  RealDaemon daemon;
  if (!is_for_nobody(daemon)) GTEST_SKIP() << "needs root";
  const std::string as_nobody = as("65534", "65534");
  ASSERT_TRUE(daemon.start(as_nobody + "$ZELVIND -p $ROOT/pid >/dev/null 2>&1"));
  daemon.launch("umask 077; echo >$ROOT/scripts/a.lua");
  daemon.expect_zelvctl("check", 1, "ROOT/scripts/a.lua: Permission denied for user 65534\n",
                        "zelvctl: 1 fault; undefined globals were not checked\n");
  EXPECT_EQ(daemon.stop(), 0);
  daemon.expect_zelvctl("check --user nobody", 1, "ROOT/scripts/a.lua: Permission denied for user 65534\n",
                        "zelvctl: 1 fault; undefined globals were not checked\n");
  daemon.expect_zelvctl("check --user nobody $ROOT/scripts/a.lua", 1,
                        "ROOT/scripts/a.lua: Permission denied for user 65534\n",
                        "zelvctl: 1 fault; undefined globals were not checked\n");
  daemon.expect_zelvctl("check --user 'no one'", 2, "", "zelvctl: there is no user 'no one'\n");
}

TEST(Reload, AFaultNeverReachesTheDaemonAndTheVerdictIsTold) {
  RealDaemon daemon;
  daemon.write("run/zelvind/events.lock", std::to_string(getpid()));  // stale: this process does not have it open
  daemon.expect_zelvctl("reload", 1, "", "zelvctl: no daemon owns the event socket ROOT/run/zelvind/events.sock\n");
  ASSERT_TRUE(daemon.start());
  const std::string process = "the daemon (process " + std::to_string(daemon.process()) + ")";
  daemon.write("scripts/a.lua", "x = = 1");
  daemon.expect_zelvctl("reload", 1, "ROOT/scripts/a.lua:1: unexpected symbol near '='\n",
                        "zelvctl: not reloaded: 1 fault\n");
  EXPECT_EQ(daemon.count("SIGHUP"), 0u);

  // One that is under way has read the old script: it must not pass for the verdict on the new one.
  daemon.write("scripts/a.lua", "trace(1, 'old') sleep(300)");
  daemon.send_signal(SIGHUP);
  ASSERT_TRUE(daemon.wait_for("lua-trace: old"));
  daemon.write("scripts/a.lua", "sleep(50) trace(1, 'new')");
  const std::string untried = "the reload is not tried first: --pidfile was given\n";
  const std::string done = process + " has reloaded its scripts\n";
  daemon.expect_zelvctl("reload --pidfile $ROOT/pid", 0, untried + done, "");
  EXPECT_EQ(daemon.count("lua-trace: new"), 1u);

  daemon.expect_zelvctl("reload --root / --pidfile $ROOT/pid", 1, "",
                        "zelvctl: " + process + " of ROOT/pid runs with DEVICE_ROOT 'ROOT', not '/'; see --root\n");

  daemon.write("scripts/a.lua", "local a = unheard_of");
  const std::string warning = "ROOT/scripts/a.lua:1:11: warning: accessing undefined variable 'unheard_of'\n";
  daemon.expect_zelvctl("reload --strict", 1, warning, "zelvctl: not reloaded: 1 warning\n");
  EXPECT_EQ(daemon.count("SIGHUP"), 2u);
  daemon.launch("mkdir $ROOT/run/zelvind/state.new");
  daemon.expect_zelvctl(
      "reload --pidfile $ROOT/pid", 1, warning + untried,
      "zelvctl: " + process + " was told to reload, but keeps no state that tells how that ends; see its log\n");
  daemon.launch("rmdir $ROOT/run/zelvind/state.new");
  daemon.send_signal(SIGHUP);
  ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(daemon.path("run/zelvind/state")); }));

  daemon.write("scripts/a.lua", "round = (round or 0) + 1 sleep(20)");
  daemon.expect_zelvctl("reload", 0, done, "");
  daemon.write("scripts/a.lua", "error('round ' .. rawget(_G, 'round'))");
  const std::string error = "could not execute script[ROOT/scripts/a.lua] -- ROOT/scripts/a.lua:1: round 1\n";
  daemon.expect_zelvctl("reload", 1, "",
                        "zelvctl: not reloaded: " + error + "stack traceback:\n  [C]: in function 'error'\n" +
                            "  ROOT/scripts/a.lua:1: in main chunk\n  [C]: ?\n");
  EXPECT_EQ(daemon.count("SIGHUP"), 4u);
  daemon.launch("zelvctl reload --no-trial 2>$ROOT/err");
  const std::string ended = daemon.text_of("err");  // the daemon may be gone before it can say why
  EXPECT_TRUE(ended == "zelvctl: not reloaded: the reload has ended the daemon: " + error ||
              ended == "zelvctl: " + process + " has ended during the reload; its log says why\n")
      << ended;
  EXPECT_EQ(daemon.wait_for_end(), 0);
}

TEST(Reload, IsForTheDaemonsGroupAndRunStartsNoSecondDaemonForAnybody) {
  RealDaemon daemon;
  if (!is_for_nobody(daemon)) GTEST_SKIP() << "needs root";
  ASSERT_TRUE(daemon.start(as("65534", "65534") + "$ZELVIND -p $ROOT/pid >/dev/null 2>&1"));
  const std::string process = "the daemon (process " + std::to_string(daemon.process()) + ")";
  const std::string runs = process + " is already running below ROOT; --force starts another one\n";
  const std::string unseen = ": Permission denied; a daemon may run already, and --force starts another one\n";
  const struct {
    std::string command, said;
  } rows[] = {
      {as("12345", "65534") + "zelvctl reload", process + " has reloaded its scripts\n"},
      {as("12345", "65534") + "zelvctl run", "zelvctl: " + runs},
      {as("12345", "12345") + "zelvctl reload",
       "zelvctl: ROOT/run/zelvind/control.sock: not allowed (group nogroup)\n"},
      {as("12345", "12345") + "zelvctl run", "zelvctl: failed to read ROOT/run/zelvind/events.lock" + unseen},
      {"rm $ROOT/run/zelvind/events.lock; zelvctl run", "zelvctl: " + runs},  // as with a device's own libraries
  };
  for (const auto& row : rows) {
    daemon.launch("{ " + row.command + "; } >$ROOT/out 2>&1");
    EXPECT_EQ(daemon.text_of("out"), row.said) << row.command;
  }
}

TEST(Reload, WatchesTheScripts) {
  RealDaemon daemon;
  ASSERT_TRUE(daemon.start());
  daemon.launch("zelvctl reload --watch >$ROOT/watch 2>&1 & echo $! >$ROOT/watcher");
  ASSERT_TRUE(wait_until([&] { return daemon.launch("grep -qs inotify /proc/$(cat $ROOT/watcher)/fdinfo/*") == 0; }));
  daemon.write("scripts/a.lua", "x = = 1");
  const std::string process = "the daemon (process " + std::to_string(daemon.process()) + ")";
  std::string wanted = "watching ROOT/scripts for " + process +
                       "\nROOT/scripts/a.lua:1: unexpected symbol near '='\nnot reloaded: 1 fault\n";
  const auto is_said = [&] { return daemon.text_of("watch") == wanted; };
  ASSERT_TRUE(wait_until(is_said));
  daemon.launch("echo >$ROOT/scripts/a.txt; sleep 0.2");  // no script: nothing may come of it
  for (const std::string change :
       {"echo >a.lua", "mv a.lua ../b.lua", "ln -s ../b.lua a.lua", "rm a.lua", "ln ../b.lua a.lua",
        "mv ../b.lua c.lua", "rm a.lua", "mkdir -p ../l/a && >../l/a/b.lua && mv ../l lib", "echo >lib/a/b.lua",
        "mv lib/a ../l"}) {
    daemon.launch("cd $ROOT/scripts; " + change);
    wanted += process + " has reloaded its scripts\n";
    ASSERT_TRUE(wait_until(is_said)) << change;
  }
  daemon.launch("mv $ROOT/scripts $ROOT/gone");
  wanted += "zelvctl: a script folder was removed or renamed\n";
  EXPECT_TRUE(wait_until(is_said));
  daemon.expect_zelvctl("reload --watch", 1, "", "zelvctl: there is no script folder to watch\n");
  daemon.launch("mv $ROOT/gone $ROOT/scripts; zelvctl reload --watch >$ROOT/watch 2>&1 &");
  wanted = "watching ROOT/scripts for " + process + "\n";
  ASSERT_TRUE(wait_until(is_said));
  daemon.launch("touch $ROOT/opt/flash/mtd4-cfg/zelvind.info");
  daemon.expect_zelvctl(
      "reload", 1,
      "ROOT/opt/flash/mtd4-cfg/zelvind.info: changed since the daemon started, which read it only then: "
      "restart the daemon\n",
      "zelvctl: not reloaded: 1 fault\n");
  EXPECT_EQ(daemon.stop(), 0);
  wanted += "zelvctl: " + process + " has gone\n";
  EXPECT_TRUE(wait_until(is_said));
}

// `make` stands in ROOT/run/zelvind before the daemon starts.
TEST(RunFolder, TakesNothingThatOthersHavePrepared) {
  const std::string no_events = "): no events from other processes";
  const std::string not_asked = "): zelvctl cannot ask this daemon";
  const std::string not_ours = "ROOT/run/zelvind: others can put their own sockets in place of ours";
  const std::string irregular = "it is not a regular file";
  const struct {
    std::string make, line;
    bool needs_root = false;
  } rows[] = {
      {"mkfifo state.new", ""},
      {"ln ../../victim state.new", ""},
      {"ln -s ../../victim state.new; ln -s ../../victim state", ""},
      {"mkfifo state", ""},
      {"mkfifo events.lock", "evq: cannot use ROOT/run/zelvind/events.lock (" + irregular + no_events},
      {"ln ../../victim events.lock",
       "evq: cannot use ROOT/run/zelvind/events.lock (it has another hard link" + no_events},
      {"ln -s ../../victim events.lock", "evq: cannot use ROOT/run/zelvind/events.lock (" + irregular + no_events},
      {"mkdir control.lock", "control: cannot use ROOT/run/zelvind/control.lock (" + irregular + not_asked},
      {">events.lock; chown 12345 events.lock",
       "evq: cannot use ROOT/run/zelvind/events.lock (it belongs to another user" + no_events, true},
      {"chown 12345 .", "control: ROOT/run/zelvind belongs to user 12345" + not_ours.substr(16), true},
      {"chmod 1777 .", "control: all users may write to " + not_ours},
  };
  for (const auto& row : rows) {
    if (row.needs_root && geteuid() != 0) continue;
    SCOPED_TRACE(row.make);
    RealDaemon daemon;
    daemon.write("victim", "precious");
    daemon.launch("mkdir -p $ROOT/run/zelvind; cd $ROOT/run/zelvind; " + row.make);
    ASSERT_TRUE(daemon.start());
    EXPECT_TRUE(row.line.empty() || daemon.text_of("log").find("<1> " + row.line + "\n") != std::string::npos);
    EXPECT_EQ(daemon.count("<1> evq: ") + daemon.count("<1> control: ") + daemon.count("<1> service: "),
              row.line.empty() ? 0u : 1u);
    const std::string state = std::to_string(daemon.process()) + " ready 0\n";
    EXPECT_TRUE(row.line.find("evq: ") == 0 ||
                wait_until([&] { return read_file(daemon.path("run/zelvind/state")) == state; }));
    EXPECT_EQ(daemon.launch("timeout 20 env PATH=${ZELVIND%/*} zelvctl check >/dev/null"), 0);  // reads locks
    daemon.launch("rm -f $ROOT/run/zelvind/state.new; mkfifo $ROOT/run/zelvind/state.new");     // for the reload
    daemon.send_signal(SIGHUP);
    EXPECT_TRUE(row.line.find("evq: ") == 0 || wait_until([&] {
                  return read_file(daemon.path("run/zelvind/state")) == std::to_string(daemon.process()) + " ready 1\n";
                }));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(read_file(daemon.path("victim")), "precious");
  }
  if (geteuid() != 0) GTEST_SKIP() << "the rows with another user's files need root";
}

TEST(RunFolder, OthersReadWhatIsThereForThemWhateverTheUmask) {
  // Scripts have what their user has set, but for what would keep the next daemon from its files.
  for (const auto& [given, mask] : {std::pair("0000", "0000"), {"0077", "0077"}, {"0777", "0077"}}) {
    SCOPED_TRACE(given);
    RealDaemon daemon;
    ASSERT_TRUE(daemon.start(std::string("umask ") + given + "; $ZELVIND -p $ROOT/pid >/dev/null 2>&1"));
    for (const char* const file : {"pid", "run/zelvind/state"}) {
      ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(daemon.path(file)); }));
      EXPECT_EQ(std::filesystem::status(daemon.path(file)).permissions(), std::filesystem::perms{0644}) << file;
    }
    const std::string status = read_file("/proc/" + std::to_string(daemon.process()) + "/status");
    EXPECT_NE(status.find(std::string("\nUmask:\t") + mask + "\n"), std::string::npos);
    EXPECT_EQ(daemon.stop(), 0);
  }
}

TEST(Run, EndsAsTheDaemonDoes) {
  const struct {
    const char* name;
    std::vector<int> to_supervisor;
    int to_daemon;
    const char* script;
    int status;
    const char* error;
  } cases[] = {
      {"asked with SIGTERM", {SIGHUP, SIGTERM}, 0, "", 0, ""},
      {"asked with SIGINT", {SIGINT}, 0, "", 0, ""},
      {"asked with SIGQUIT", {SIGQUIT}, 0, "", 0, ""},
      {"killed", {}, SIGKILL, "", 1, "was ended by signal 9"},
      {"ended by itself", {}, SIGTERM, "", 1, "has ended by itself; its log says why"},
      {"failed at the start", {}, 0, "sleep(100) error('no', 0)", 1, "scripts/a.lua] -- no\n  zelvind: zelvind end\n"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    RealDaemon daemon;  // here the supervisor stands in ROOT/pid
    daemon.write("scripts/a.lua", row.script);
    daemon.launch("zelvctl run -- -p $ROOT/daemon >$ROOT/out 2>$ROOT/err & echo $! >$ROOT/pid");
    ASSERT_TRUE(daemon.read_pid());
    ASSERT_TRUE(daemon.wait_for(*row.script == '\0' ? "complete to start program" : "zelvind end"));
    const pid_t process = std::stoi(read_file(daemon.path("daemon")));
    for (const int number : row.to_supervisor) daemon.send_signal(number);
    if (row.to_daemon != 0) kill(process, row.to_daemon);
    EXPECT_EQ(daemon.wait_for_end(), row.status);
    EXPECT_NE(kill(process, 0), 0);  // nothing is left behind
    EXPECT_NE(read_file(daemon.path("err")).find(row.error), std::string::npos);
    EXPECT_EQ(daemon.count("SIGHUP"), row.to_supervisor.size() == 2 ? 1u : 0u);
  }
}

TEST(Run, HelpsWithAFirstStartAndRefusesASecondDaemon) {
  RealDaemon daemon;
  std::filesystem::remove(daemon.path("opt/flash/mtd4-cfg/zelvind.info"));
  EXPECT_EQ(daemon.launch("zelvctl run 2>$ROOT/err"), 1);
  const std::string settings = "ROOT/opt/flash/mtd4-cfg/zelvind.info";
  const std::string told = daemon.text_of("err");
  EXPECT_NE(told.find("\n  econf: cannot read " + settings + ": No such file or directory\n"), std::string::npos)
      << told;
  EXPECT_NE(told.find(" >" + settings + "\n  zelvctl --root ROOT check\n"), std::string::npos) << told;
  // The commands make what they promise.
  EXPECT_EQ(
      daemon.launch("sed '1,/^There are no/d; /^zelvctl/d' $ROOT/err >$ROOT/commands; sh -e $ROOT/commands >$ROOT/out"),
      0);
  daemon.launch("printf 'log_level = 2\nlistener_port = 0\n' >>$ROOT/opt/flash/mtd4-cfg/zelvind.info");

  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(wait_until([&] { return std::filesystem::exists(daemon.path("run/zelvind/events.lock")); }));
  daemon.expect_zelvctl("run", 1, "",
                        "zelvctl: the daemon (process " + std::to_string(daemon.process()) +
                            ") is already running below ROOT; --force starts another one\n");
  daemon.launch("zelvctl run --force 2>/dev/null & echo $! >$ROOT/second");
  EXPECT_TRUE(daemon.wait_for("Start zelvind...", 3));
  daemon.launch("kill $(cat $ROOT/second)");
  EXPECT_EQ(daemon.stop(), 0);
}

// sbin/zelvind, which hands on to a program that shows its arguments.
TEST(Wrapper, AnswersQuestionsAndRefusesMistakes) {
  const RealDaemon root;
  root.launch("sed 's|@daemondir@/zelvind|echo|; s|@version@|1.2|' '" ZELVIND_PACKAGING_DIR
              "/zelvind.in' >$ROOT/zelvind");
  const struct {
    const char* arguments;
    int status;
    const char* output;
  } rows[] = {
      {"", 0, "\n"},
      {"-p /a\\ b --pidfile=c --pid --help stray", 0, "-p /a b --pidfile=c --pid --help stray\n"},
      {"-pfile -- --help", 0, "-pfile -- --help\n"},
      {"-p -h --pidfile --help", 0, "-p -h --pidfile --help\n"},
      {"stray --vers", 0, "zelvind 1.2\n"},
      {"-v", 0, "zelvind 1.2\n"},
      {"--help", 0, "Usage: zelvind [-p FILE | --pidfile FILE]\n"},
      {"-p a -h", 0, "Usage: zelvind [-p FILE | --pidfile FILE]\n"},
      {"--verbose", 2, "zelvind: unknown option '--verbose'; see zelvind --help\n"},
      {"--version=1", 2, "zelvind: unknown option '--version=1'; see zelvind --help\n"},
      {"-x", 2, "zelvind: unknown option '-x'; see zelvind --help\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arguments);
    EXPECT_EQ(root.launch("sh $ROOT/zelvind " + std::string(row.arguments) + " >$ROOT/out 2>&1"), row.status);
    EXPECT_EQ(root.text_of("out").substr(0, strlen(row.output)), row.output);
  }
}

}  // namespace
