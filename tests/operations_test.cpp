// How the real daemon is kept running: what it tells a service manager, and zelvctl's check, reload and run.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/real_daemon.h"
#include "util/descriptor.h"

namespace {

constexpr char kZelvctl[] = "${ZELVIND%/*}/zelvctl";

std::string text_of(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Runs zelvctl to its end; what it wrote is in ROOT/out and ROOT/err.
int zelvctl(const RealDaemon& daemon, const std::string& arguments) {
  return daemon.launch(std::string(kZelvctl) + " " + arguments + " >$ROOT/out 2>$ROOT/err");
}

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

  std::string next() const {
    char text[256];
    const ssize_t got = recv(socket.get(), text, sizeof(text), 0);
    return got < 0 ? "nothing came" : std::string(text, static_cast<size_t>(got));
  }
  std::string next_but_alive() const {
    std::string text;
    do {
      text = next();
    } while (text == "WATCHDOG=1");
    return text;
  }

 private:
  const Descriptor socket;
};

TEST(Service, TellsItsManagerWhatHappens) {
  for (const bool is_abstract : {false, true}) {
    RealDaemon daemon;
    const std::string name = is_abstract ? "@" + daemon.path("notify") : daemon.path("notify");
    const Manager manager(name);
    daemon.write("scripts/a.lua",
                 "on('door', function() trace(1, tostring(os.getenv('NOTIFY_SOCKET')) .. ' for scripts') end)");
    daemon.launch("export NOTIFY_SOCKET=" + name + " WATCHDOG_USEC=2000; $ZELVIND -p $ROOT/pid >/dev/null 2>&1");
    ASSERT_TRUE(daemon.read_pid());
    const std::string state = std::to_string(daemon.process());
    EXPECT_EQ(manager.next(), "READY=1");
    EXPECT_TRUE(daemon.post("1 door\n"));
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
    ASSERT_TRUE(daemon.wait_for("nil for scripts"));
    EXPECT_EQ(text_of(daemon.path("run/zelvind/state")), state + " ready 0\n");
    daemon.send_signal(SIGHUP);
    EXPECT_EQ(manager.next_but_alive().substr(0, 27), "RELOADING=1\nMONOTONIC_USEC=");
    EXPECT_EQ(manager.next_but_alive(), "READY=1");
    daemon.send_signal(SIGTERM);
    EXPECT_EQ(manager.next_but_alive(), "STOPPING=1");
    EXPECT_EQ(daemon.wait_for_end(), 0);
    EXPECT_EQ(text_of(daemon.path("run/zelvind/state")), state + " stopping 1\n");
  }
}

TEST(Service, SaysOnceThatNobodyListens) {
  const struct {
    const char* name;
    const char* line;
  } rows[] = {
      {"$ROOT/nobody", "service: cannot tell the service manager READY=1: No such file or directory"},
      {"vsock:2:1", "service: NOTIFY_SOCKET is 'vsock:2:1': no path and no abstract name of a socket, nobody is told"},
  };
  for (const auto& row : rows) {
    RealDaemon daemon;
    daemon.launch("NOTIFY_SOCKET=" + std::string(row.name) + " $ZELVIND -p $ROOT/pid >/dev/null 2>&1");
    ASSERT_TRUE(daemon.read_pid());
    ASSERT_TRUE(daemon.wait_for(row.line));
    daemon.send_signal(SIGTERM);
    EXPECT_EQ(daemon.wait_for_end(), 0);
    EXPECT_EQ(daemon.count("<1> service: "), 1u);
  }
}

TEST(Check, ReportsEachFaultAndRunsNothing) {
  const std::string deep(80, 'd');
  RealDaemon daemon;
  const auto in_root = [&](std::string text) {
    for (size_t at = 0; (at = text.find("ROOT")) != std::string::npos;) text.replace(at, 4, daemon.path(""));
    return text;
  };
  daemon.write("scripts/a.lua", "error('it ran')");
  daemon.write("dir/" + deep + "/x.lua", "\nx = = 1");
  daemon.write("dir/y.lua", "on('door', unheard_of) econf_str('a', 'b') event_post(1, 'a')");
  EXPECT_EQ(zelvctl(daemon, "check"), 0);
  EXPECT_EQ(text_of(daemon.path("out")).substr(0, 20), "4 scripts, no fault\n");
  EXPECT_EQ(zelvctl(daemon, "check $ROOT/dir $ROOT/dir/" + deep + " /nowhere"), 1);
  EXPECT_EQ(text_of(daemon.path("out")), in_root("ROOTdir/" + deep + "/x.lua:2: unexpected symbol near '='\n") +
                                             "Failed to get script file list in path[/nowhere]\n");
  EXPECT_EQ(text_of(daemon.path("err")), "zelvctl: 2 faults\n");
  const bool has_luacheck = daemon.launch("command -v luacheck >/dev/null") == 0;
  const char* const unchecked = "luacheck is not at hand: globals that nothing defines were not looked for\n";
  EXPECT_EQ(zelvctl(daemon, "check $ROOT/dir"), 0);
  EXPECT_EQ(text_of(daemon.path("out")),
            "1 script, no fault\n" +
                in_root(has_luacheck ? "ROOTdir/y.lua:1:12: warning: accessing undefined variable 'unheard_of'\n"
                                     : unchecked));
  daemon.write("scripts/config.lua", "function (");
  std::filesystem::remove(daemon.path("scripts/server_event.lua"));
  std::filesystem::create_directory(daemon.path("scripts/b.lua"));
  EXPECT_EQ(zelvctl(daemon, "check"), 1);
  EXPECT_EQ(text_of(daemon.path("out")), in_root("ROOTscripts/config.lua:1: '<name>' expected near '('\n"
                                                 "cannot open ROOTscripts/server_event.lua: No such file or directory\n"
                                                 "cannot read ROOTscripts/b.lua: Is a directory\n"));
  std::filesystem::remove(daemon.path("opt/flash/mtd4-cfg/zelvind.info"));
  EXPECT_EQ(zelvctl(daemon, "check"), 1);
  EXPECT_EQ(text_of(daemon.path("err")),
            "zelvctl: Failed to open conf[name:zelvind.info,type:0,path:/opt/flash/mtd4-cfg]\n");
}

TEST(Reload, AFaultNeverReachesTheDaemonAndTheVerdictIsTold) {
  RealDaemon daemon;
  EXPECT_EQ(zelvctl(daemon, "reload"), 1);
  EXPECT_EQ(text_of(daemon.path("err")),
            "zelvctl: no daemon has the event socket " + daemon.path("run/zelvind/events.sock") + "\n");
  ASSERT_TRUE(daemon.start());
  const std::string process = "the daemon (process " + std::to_string(daemon.process()) + ") has ";
  daemon.write("scripts/a.lua", "x = = 1");
  EXPECT_EQ(zelvctl(daemon, "reload"), 1);
  EXPECT_EQ(text_of(daemon.path("out")), daemon.path("scripts/a.lua") + ":1: unexpected symbol near '='\n");
  EXPECT_EQ(text_of(daemon.path("err")), "zelvctl: not reloaded: 1 fault\n");
  EXPECT_EQ(daemon.count("SIGHUP"), 0u);

  // One that is under way has read the old script: it must not pass for the verdict on the new one.
  daemon.write("scripts/a.lua", "trace(1, 'old') sleep(300)");
  daemon.send_signal(SIGHUP);
  ASSERT_TRUE(daemon.wait_for("lua-trace: old"));
  daemon.write("scripts/a.lua", "sleep(50) trace(1, 'new')");
  EXPECT_EQ(zelvctl(daemon, "reload --pidfile $ROOT/pid"), 0);
  EXPECT_EQ(text_of(daemon.path("out")), process + "reloaded its scripts\n");
  EXPECT_EQ(daemon.count("lua-trace: new"), 1u);

  daemon.write("scripts/a.lua", "error('no')");
  EXPECT_EQ(zelvctl(daemon, "reload"), 1);
  EXPECT_EQ(text_of(daemon.path("err")), "zelvctl: " + process + "ended over the reload; its log says why\n");
  EXPECT_EQ(daemon.wait_for_end(), 0);
}

TEST(Reload, WatchesTheScripts) {
  RealDaemon daemon;
  ASSERT_TRUE(daemon.start());
  daemon.launch(std::string(kZelvctl) + " reload --watch >$ROOT/log.watch 2>&1 & echo $! >$ROOT/watch.pid");
  const std::string watch = text_of(daemon.path("watch.pid"));
  const std::string is_watching =
      "until grep -qs inotify /proc/" + watch.substr(0, watch.size() - 1) + "/fdinfo/*; do sleep 0.01; done";
  ASSERT_EQ(daemon.launch("timeout 20 sh -c '" + is_watching + "'"), 0);
  daemon.write("scripts/a.lua", "x = = 1");
  ASSERT_EQ(daemon.launch("timeout 20 sh -c 'until grep -q fault $ROOT/log.watch; do sleep 0.01; done'"), 0);
  daemon.write("scripts/a.lua", "trace(1, 'mended')");
  ASSERT_TRUE(daemon.wait_for("lua-trace: mended"));
  EXPECT_EQ(daemon.count("SIGHUP"), 1u);
  daemon.send_signal(SIGTERM);
  EXPECT_EQ(daemon.wait_for_end(), 0);
  daemon.write("scripts/a.lua", "");
  EXPECT_EQ(daemon.launch("timeout 20 sh -c 'until grep -q \"no daemon\" $ROOT/log.watch; do sleep 0.01; done'"), 0);
}

TEST(Run, EndsAsTheDaemonDoes) {
  struct Case {
    const char* name;
    std::vector<int> to_supervisor;
    int to_daemon;
    const char* script;
    int status;
    const char* error;
  };
  const Case cases[] = {
      {"asked with SIGTERM", {SIGHUP, SIGTERM}, 0, "", 0, ""},
      {"asked with SIGINT", {SIGINT}, 0, "", 0, ""},
      {"asked with SIGQUIT", {SIGQUIT}, 0, "", 0, ""},
      {"killed", {}, SIGKILL, "", 1, "was ended by signal 9"},
      {"ended by itself", {}, SIGTERM, "", 1, "has ended by itself; its log says why"},
      {"failed at the start", {}, 0, "sleep(100) error('no')", 1, "has ended by itself; its log says why"},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    RealDaemon daemon;  // here the supervisor stands in ROOT/pid
    daemon.write("scripts/a.lua", row.script);
    daemon.launch(std::string(kZelvctl) + " run -- -p $ROOT/daemon >$ROOT/out 2>$ROOT/err & echo $! >$ROOT/pid");
    ASSERT_TRUE(daemon.read_pid());
    ASSERT_TRUE(daemon.wait_for(*row.script == '\0' ? "complete to start program" : "zelvind end"));
    const pid_t process = std::stoi(text_of(daemon.path("daemon")));
    for (const int number : row.to_supervisor) daemon.send_signal(number);
    if (row.to_daemon != 0) kill(process, row.to_daemon);
    EXPECT_EQ(daemon.wait_for_end(), row.status);
    EXPECT_NE(kill(process, 0), 0);  // nothing is left behind
    EXPECT_NE(text_of(daemon.path("err")).find(row.error), std::string::npos);
    EXPECT_EQ(daemon.count("SIGHUP"), row.to_supervisor.size() == 2 ? 1u : 0u);
  }
}

}  // namespace
