// zelvctl status, scripts, log-level and its completion, against a daemon that the test plays.

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <sstream>

#include "ctl/human_text.h"
#include "ctl/inspect/diagnosis.h"
#include "ctl/inspect/script_list.h"
#include "ctl/inspect/uplink.h"
#include "ctl/metrics.h"
#include "tests/fake_control.h"
#include "tests/real_daemon.h"
#include "uplink/uplink_settings.h"
#include "uplink/uplink_status.h"
#include "util/text.h"

namespace {

using namespace std::string_literals;

// Of a daemon that is well.
constexpr char kWell[] =
    "daemon version=1.2.3 pid=12 started=0 state=ready state_since_s=7380 root=/r log_level=1 rss=3145728 "
    "exe=/d/zelvind\n"
    "loop activity=idle for_us=100 alive_us=900000\n"
    "queue waiting=3 highest=812 oldest_us=10 socket=owned\n"
    "wait count=4 sum_us=400 max_us=280 buckets=0,4\n"
    "source name=process events=1 refused=0\n"
    "source name=posters events=13 refused=0\n"
    "recent over_ms=10000 events=125 errors=0 waiting_then=3 timers_then=2 coroutines_then=1\n"
    "event name=door events=12 unknown=0 errors=0\n"
    "event name=bell%1b events=2 unknown=0 errors=0\n"
    "tag name=front runs=14 errors=0 run_sum_us=2800 run_max_us=50000\n"
    "timers now=2 lateness_max_us=900\n"
    "coroutines now=1 lateness_max_us=1100\n"
    "lua bytes=1258291 limit=0 collections=1 collect_max_us=400\n"
    "reload done=2 failed=1 last_result=done\n"
    "listener port=5512 clients=1 owing=0 deliveries=9 skips=0\n"
    "log lost=0\n";

TEST(Diagnosis, NamesEachTrouble) {
  std::string posters;
  for (int i = 1; i <= 6; ++i) {
    posters += sstr("poster pid=%d uid=4294967294 since_s=0 events=1 refused=%d\n", -(i / 2), i);
  }
  const std::string poster = "process 0 (user 4294967294) ";
  const struct {
    std::string lines, clients, trouble, notes;
  } rows[] = {
      {"", "", "", ""},
      {"loop activity=handler tag=front event=door for_us=12345678 where=/s/door.lua:12 alive_us=12345678", "",
       "the event loop is busy: in handler 'front' of door for 12.3 s, /s/door.lua:12", ""},
      {"loop activity=handler tag=front event=door for_us=1900000 alive_us=1900000", "", "", ""},
      {"loop activity=loading for_us=3000000 alive_us=3000000", "", "the event loop is busy: loading for 3.0 s", ""},
      {"loop activity=idle for_us=3000000 alive_us=3000000", "", "the event loop is silent for 3.0 s", ""},
      {"loop activity=stopped for_us=1 alive_us=1", "", "the quit event came, and the event loop has ended: restart it",
       ""},
      {"daemon state=stopping", "", "it is stopping", ""},
      {"daemon state=stopping\nloop activity=timer tag=a for_us=3000000 alive_us=3000000", "",
       "it is stopping, and the event loop is busy: in timer 'a' for 3.0 s", ""},
      {"daemon state=loading", "", "it is starting", ""},
      {"daemon state=dreaming", "", "it answers, but tells no state that is known", ""},
      {"loop", "", "it answers, but tells nothing of its event loop", ""},
      {"queue socket=none", "", "it does not have the event socket (none): see its log", ""},
      {"queue waiting=5000 oldest_us=700000 socket=owned", "", "",
       "5000 events wait (10.0 s ago: 3), the oldest for 700 ms"},
      {"queue waiting=1 oldest_us=1200000 socket=owned", "", "", "1 event waits (10.0 s ago: 3), the oldest for 1.2 s"},
      {"timers now=60", "", "", "60 timers, 58 more than 10.0 s ago: zelvctl scripts tells whose they are"},
      {"coroutines now=1000\nrecent over_ms=1 coroutines_then=1000", "", "",
       "1000 tasks: zelvctl scripts tells whose they are"},
      {"error time=1 text=old", "", "", ""},
      {"error time=" + std::to_string(time(nullptr) + 100) + "\ntag name=a errors=1\ntag name=b%0a errors=9", "", "",
       "scripts fail, the last time 0 s ago: b\\n 9, a 1"},
      {"reload last_result=failed last_text=a%0ab", "", "", "the last reload failed: a"},
      {"event name=a unknown=1\nevent name=b unknown=2\nevent name=c unknown=3\nevent name=d unknown=4", "", "",
       "nobody handles: d 4, c 3, b 2 and 1 more"},
      {"tag name=a run_max_us=300000", "", "",
       "slow calls hold up everything, so far: a up to 300 ms; zelvctl tail --slow 100 shows the next ones"},
      {"source name=posters refused=7\n" + posters, "", "",
       "7 posted events were refused: process -2 (user 4294967294) 9, process -3 (user 4294967294) 6, "
       "process -1 (user 4294967294) 5 and 1 more; see the log for the lines"},
      {"poster pid=0 uid=4294967294 since_s=9 events=19000", "", "",
       "many events come from " + poster.substr(0, poster.size() - 1) + ", 2000/s"},
      {"poster pid=0 uid=4294967294 since_s=90000 events=20001 recent=20000 recent_ms=10000", "", "",
       "many events come from " + poster.substr(0, poster.size() - 1) + ", 2000/s"},
      {"poster pid=0 uid=4294967294 since_s=9 events=19000 recent=9000 recent_ms=10000", "", "", ""},
      {"poster pid=0 uid=4294967294 since_s=0 events=4000 recent=4000 recent_ms=20", "", "", ""},
      {"listener port=0 wanted=5512", "", "", "no client can connect: port 5512 is not open; the log says why"},
      {"listener port=0 wanted=5512 address= not_open=", "", "",
       "no client can connect: listener_address is not understood; the log says why"},
      {"listener port=5512 address=127.0.0.1,/s not_open=/s", "", "", "no client can connect at /s; the log says why"},
      {"listener port=0 address=none not_open= places=0", "", "", ""},
      {"listener port=5512 address=127.0.0.1 not_open= places=1", "", "", ""},
      {"listener port=5512 address=127.0.0.1 not_open= places=0", "", "",
       "no client can connect: the daemon's descriptor limit is too low, it needs more than 320"},
      {"listener port=0 wanted=5512 address=0.0.0.0 not_open=0.0.0.0", "", "",
       "no client can connect: port 5512 is not open; the log says why"},
      {"",
       "client id=9 address=a:1 state=owing waiting=5 skipped=0\nclient id=8 address=a:2 state=subscribed skipped=812",
       "", "does not read: client 9 (a:1)|has lost events: client 8 (a:2) 812"},
      {"cut bytes=1024", "cut bytes=1024", "", "the answer was too long: 2.0 KiB of it are not shown here"},
      {"lua bytes=900 limit=1000\nlog lost=1", "", "",
       "scripts use 900 B of script_memory, 1000 B|1 log line was lost"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines);
    const Diagnosis diagnosis = diagnose({lines_in(row.lines + "\n" + kWell), lines_in(row.clients)});
    EXPECT_EQ(diagnosis.trouble, row.trouble);
    std::string notes;
    for (const std::string& note : diagnosis.notes) notes += (notes.empty() ? "" : "|") + note;
    EXPECT_EQ(notes, row.notes);
  }
}

TEST(Status, IsOneScreenAndAHealthCheck) {
  const RealDaemon root;
  std::string clients;
  for (int i = 1; i <= 7; ++i) {
    clients += "client id=" + std::to_string(i) +
               " address=a:1 state=subscribed wants=do%1bor events=9 waiting=" + std::to_string(i == 6 ? 2048 : 0) +
               (i == 5 ? " skipped=3 last_skip_s=61\n" : " skipped=0\n");
  }
  const std::string none = "no daemon at ROOT/run/zelvind/control.sock: No such file or directory";
  root.expect_zelvctl("status", 1, "NOT HEALTHY: " + none + "\n", "");
  EXPECT_EQ(root.launch("zelvctl status --json | grep -q '\"trouble\": \"no daemon at '"), 0);
  {
    const std::string error = "error time=0 tag=front event=door text=a.lua:1:%20no%0astack%20traceback:\n\n";
    const FakeControl daemon(root.path(""), {{"stats", kWell + error}, {"clients", clients + "\n"}});
    root.expect_zelvctl(
        "status", 0,
        "healthy\n"
        "! has lost events: client 5 (a:1) 3\n"
        "daemon      zelvind 1.2.3, process 12, ready for 2 h 3 min, started " +
            time_text(0) +
            "\n"
            "            /d/zelvind below /r, log level 1, 3.0 MiB of memory\n"
            "loop        idle, looked for an event 900 ms ago\n"
            "queue       3 events wait, highest 812; waited 100 us on average, at most 280 us\n"
            "events      14 so far, 12.5/s in the last 10.0 s; 1 from the process itself, 13 from posters\n"
            "types       door 12, bell\\x1b 2\n"
            "slowest     front 50.0 ms (mean 200 us)\n"
            "last error  " +
            time_text(0) +
            " in front of door: a.lua:1: no\n"
            "timers      2, late by 900 us at most; tasks 1, late by 1.1 ms at most\n"
            "lua         1.2 MiB, 1 collection, the longest 400 us\n"
            "reloads     2 done, 1 failed\n"
            "listener    port 5512, 1 client (0 owing), 9 events sent, 0 lost\n"
            "clients     5 (a:1) subscribed, 9 sent, lost 3 (1 min 1 s ago): do\\x1bor\n"
            "            6 (a:1) subscribed, 9 sent, owes 2.0 KiB: do\\x1bor\n"
            "            1 (a:1) subscribed, 9 sent: do\\x1bor\n"
            "            2 (a:1) subscribed, 9 sent: do\\x1bor\n"
            "            3 (a:1) subscribed, 9 sent: do\\x1bor\n"
            "            and 2 more\n",
        "");
  }
  const FakeControl daemon(root.path(""), {{"stats", "loop activity=stopped\nevent name=12 events=3 buckets=1,2\n\n"},
                                           {"clients", "\n"},
                                           {"log_level 3", "log_level now=3\n\n"},
                                           {"scripts", "error: the loop is busy: in timer 'a'\n\n"}});
  EXPECT_EQ(root.launch("zelvctl status | grep -q '^NOT HEALTHY: the quit event came'"), 0);
  root.expect_zelvctl("status --json", 1, R"({
  "healthy": false,
  "trouble": "the quit event came, and the event loop has ended: restart it",
  "notes": [],
  "loop": {
    "activity": "stopped"
  },
  "events": [
    {
      "buckets": [
        1,
        2
      ],
      "events": 3,
      "name": "12"
    }
  ],
  "sources": [],
  "tags": [],
  "posters": [],
  "clients": []
}
)",
                      "");
  root.expect_zelvctl("log-level 3", 0, "3\n", "");
  root.expect_zelvctl("scripts", 1, "", "zelvctl: the loop is busy: in timer 'a'\n");
}

TEST(Status, OfTheRealDaemon) {
  RealDaemon daemon;
  daemon.write("scripts/a.lua", "on('hang', function() while true do end end)\n");
  ASSERT_TRUE(daemon.start());
  const auto shows = [&](const std::string& command, const std::string& part) {
    return wait_until([&] {
      daemon.launch("zelvctl " + command + " >$ROOT/out 2>&1; echo \"ends with $?\" >>$ROOT/out");
      return daemon.text_of("out").find(part) != std::string::npos;
    });
  };
  EXPECT_TRUE(shows("status", "ends with 0"));
  EXPECT_EQ(daemon.text_of("out").compare(0, 8, "healthy\n"), 0);
  EXPECT_TRUE(shows("scripts", "\n  hang a.lua ROOT/scripts/a.lua:1\n"));
  EXPECT_TRUE(shows("log-level 1", "1\nends with 0\n"));
  EXPECT_TRUE(daemon.post("1 dorr\n"));
  EXPECT_TRUE(shows("status", "\n! nobody handles: dorr 1\n"));
  EXPECT_TRUE(shows("complete listen ''", "dorr\nhang\n"));
  daemon.launch("cd $ROOT/run/zelvind; mkfifo f; mv -f f control.sock");
  daemon.launch("zelvctl scripts 2>$ROOT/err");
  EXPECT_NE(daemon.text_of("err").find("runs, but its socket ROOT/run/zelvind/control.sock was replaced"),
            std::string::npos);
  daemon.launch("rm $ROOT/run/zelvind/control.sock");
  EXPECT_TRUE(shows("status", "ends with 0"));
  EXPECT_TRUE(daemon.post("1 hang\n"));
  EXPECT_TRUE(shows("status", "ends with 1"));
  EXPECT_EQ(daemon.text_of("out").find("NOT HEALTHY: the event loop is busy: in handler 'a.lua' of hang for "), 0U);
  EXPECT_NE(daemon.text_of("out").find(" s, ROOT/scripts/a.lua:1\n"), std::string::npos);
}

TEST(Scripts, ListsWhatIsThereAndCountsWhatIsTooMuch) {
  std::string answer =
      "round n=2\nfile path=/s/b.lua module=b\nfile path=/s/aa.lua module=\n"
      "handler event=x tag=b where=/s/b.lua:1\nhandler event=door%0a tag=front where=/s/b.lua:2\n"
      "handler event=x tag=a where=/s/aa.lua:1\ntask tag=t where=/s/b.lua:9\ncut bytes=1\n";
  for (int i = 22; i > 0; --i) {
    answer += (i % 11 == 0 ? "timer tag=rare every_ms=0" : "timer tag=leak every_ms=5000 where=" + std::to_string(i)) +
              " due_in_ms=" + std::to_string(i) + "\n";
  }
  std::string timers;
  for (int i = 1; i <= 20; ++i) {
    timers += i == 11 ? "  rare 2 timers, the first due in 11.0 ms, once \n"
                      : sstr("  leak %-40s %d\n", sstr("due in %d.0 ms, every 5.0 s", i).c_str(), i);
  }
  EXPECT_EQ(script_list(lines_in(answer)),
            "2 files in load order, loaded 2 times\n  /s/b.lua  b\n  /s/aa.lua \n"
            "3 handlers\n  door\\n front /s/b.lua:2\n  x      b     /s/b.lua:1\n  x      a     /s/aa.lua:1\n"
            "22 timers: leak 20, rare 2\n" +
                timers +
                "  and 1 more line\n1 task\n  t waits /s/b.lua:9\nThe answer was too long; there is more than this.\n");
}

TEST(Completion, KnowsWhatCanComeNextInBashAndZsh) {
  const struct {
    const char *line, *candidates;
  } rows[] = {
      {"zelvctl sta", "status "},
      {"zelvctl --root / log", "log-level "},
      {"zelvctl post --", "--help --version --root --quit "},
      {"zelvctl listen do", "door down:a "},
      {"zelvctl listen door --json d", "door down:a "},
      {"zelvctl post 1 bel", "bell "},
      {"zelvctl --root=/none post 1 bel", ""},
      {"zelvctl listen --port d", ""},
      {"zelvctl post 1 door d", ""},
      {"zelvctl unheard d", ""},
      {"zelvctl check $ROOT/opt/fl", "ROOT/opt/flash "},
      {"zelvctl reload --pidfile $ROOT/scripts/c", "ROOT/scripts/config.lua "},
  };
  const RealDaemon root;
  const FakeControl daemon(root.path(""),
                           {{"stats", "event name=door\nevent name=d$(reboot)\nevent name=-d\nevent name=down:a\n\n"},
                            {"scripts", "handler event=bell\nhandler event=door\n\n"}});
  const std::string setup = ". " ZELVIND_PACKAGING_DIR "/completion/";
  const bool has_zsh = root.launch("command -v zsh >/dev/null") == 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    root.write("line", row.line);
    root.launch(
        "exec >$ROOT/out 2>&1; bash -c 'eval \"COMP_LINE=\\\"$(cat $ROOT/line)\\\"\"; COMP_POINT=${#COMP_LINE}; " +
        setup + "zelvctl.bash; _zelvctl zelvctl; printf \"%s \" \"${COMPREPLY[@]}\"'");
    EXPECT_EQ(root.text_of("out"), *row.candidates == '\0' ? " " : row.candidates);
    if (!has_zsh) continue;
    root.launch(
        "exec >$ROOT/out 2>&1; zsh -f -c 'words=(${=\"$(cat $ROOT/line)\"}); CURRENT=$#words; PREFIX=$words[-1]; "
        "compadd() { printf \"%s \" ${(P)2} }; _files() { printf \"files \" }; f() { " +
        setup + "_zelvctl }; f'");
    const bool is_file = strchr(row.candidates, '/') != nullptr;
    EXPECT_EQ(root.text_of("out"), *row.candidates == '\0' ? " " : is_file ? "files " : row.candidates);
  }
  if (!has_zsh) std::cerr << "zsh is not installed: only bash was tried\n";
}

// All places at the control socket are taken: what else there is tells whether events are taken.
TEST(Status, AndMetricsOfADaemonThatIsFull) {
  const std::string note =
      "! control socket: 16 clients are connected already; the event socket and the state file alone were asked\n";
  RealDaemon daemon;
  ASSERT_TRUE(daemon.start());
  std::vector<std::unique_ptr<ControlClient>> followers;
  for (int i = 0; i < 16; ++i) {
    followers.push_back(std::make_unique<ControlClient>(daemon.path("")));
    followers.back()->send("follow");
    AnswerLine line;
    EXPECT_EQ(followers.back()->next(line, 20000), ControlClient::Got::line);
  }
  daemon.expect_zelvctl("status", 0, "healthy\n" + note, "");
  daemon.write("m.prom", "as it was");
  daemon.expect_zelvctl("metrics --textfile $ROOT/m.prom", 1, "", "zelvctl: 16 clients are connected already\n");
  EXPECT_EQ(daemon.text_of("m.prom"), "as it was");

  const RealDaemon root;
  root.write("run/zelvind/events.lock", "");
  const FakeControl full(root.path(""), {{"stats", "error: 16 clients are connected already\n\n"}});
  root.expect_zelvctl("status", 1,
                      "NOT HEALTHY: no daemon at ROOT/run/zelvind/events.sock: No such file or directory\n" + note, "");
}

TEST(Metrics, SayWhatTheDaemonHasAnsweredAndNothingElse) {
  const std::string text = metrics_text(
      lines_in("daemon version=1.2 state=ended log_level=x rss=4096\n"
               "later key=1\n"
               "tag name=a\"b\\c%0a run_sum_us=2000003 errors=3 buckets=1,0,2,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,4,8\n"
               "tag name=second errors=0\n"
               "reload last_result=none\n"));
  const std::string tag = R"({tag="a\"b\\c%0a")", run = "zelvind_script_run_seconds";
  std::string expected =
      "zelvind_up 1\nzelvind_build_info{version=\"1.2\",device=\"\",lua=\"\"} 1\n"
      "zelvind_state{state=\"starting\"} 0\nzelvind_state{state=\"loading\"} 0\nzelvind_state{state=\"ready\"} 0\n"
      "zelvind_state{state=\"reloading\"} 0\nzelvind_state{state=\"stopping\"} 0\nzelvind_state{state=\"ended\"} 1\n"
      "zelvind_resident_memory_bytes 4096\n"
      "zelvind_script_errors_total" +
      tag + "} 3\nzelvind_script_errors_total{tag=\"second\"} 0\n";
  for (int i = 0; i < 20; ++i) {
    char bound[16] = "+Inf";
    if (i < 19) snprintf(bound, sizeof(bound), "%.6f", (2 << i) / 1e6);
    expected += run + "_bucket" + tag + ",le=\"" + bound + "\"} " +
                (i < 2    ? "1"
                 : i < 18 ? "3"
                 : i < 19 ? "7"
                          : "15") +
                "\n";
  }
  expected += run + "_sum" + tag + "} 2.000003\n" + run + "_count" + tag + "} 15\nzelvind_last_reload_failed 0\n";
  std::string samples, line;
  for (std::istringstream stream(text); std::getline(stream, line);) samples += line[0] == '#' ? "" : line + "\n";
  EXPECT_EQ(samples, expected);
  EXPECT_NE(text.find("\n# HELP " + run + " A call of a handler, timer or coroutine.\n# TYPE " + run + " histogram\n"),
            std::string::npos);
}

TEST(Metrics, AreReplacedAsAWholeAlsoByADaemonThatHasGone) {
  const RealDaemon root;
  const std::string none = "zelvctl: no daemon at ROOT/run/zelvind/control.sock: No such file or directory\n";
  const std::string down =
      "# HELP zelvind_up Whether the daemon answers at its control socket.\n# TYPE zelvind_up gauge\nzelvind_up 0\n";
  root.expect_zelvctl("metrics", 1, down, none);
  root.write("folder/m.prom", std::string(1000, 'x'));
  root.expect_zelvctl("metrics --textfile $ROOT/folder/m.prom", 1, "", none);
  EXPECT_EQ(root.text_of("folder/m.prom"), down);
  EXPECT_EQ(std::filesystem::status(root.path("folder/m.prom")).permissions(), std::filesystem::perms{0644});
  root.launch("mkfifo $ROOT/fifo; ln -s folder/m.prom $ROOT/link");
  for (const std::string name : {"folder", "fifo", "link"}) {
    root.expect_zelvctl("metrics --textfile $ROOT/" + name, 1, "",
                        "zelvctl: ROOT/" + name + " is not a regular file\n");
  }
  root.expect_zelvctl("metrics --textfile ''", 2, "", "zelvctl: --textfile '': expected a file's path\n");
  root.expect_zelvctl("metrics --textfile $ROOT/no/m.prom", 1, "",
                      "zelvctl: failed to write ROOT/no/m.prom: No such file or directory\n");
  root.launch("ls $ROOT $ROOT/folder >$ROOT/list");
  EXPECT_EQ(root.text_of("list").find("folder."), std::string::npos);  // nothing temporary is left
}

// Of an uplink that is well.
constexpr char kUplinkWell[] =
    "uplink version=1.2.3 pid=12 started=0 uptime_s=7380 session=17 device=0017 rss=3145728\n"
    "broker host=b port=8883 tls=1 state=up since_s=7000 protocol=5 connects=2 failures=1 error=no%0aroute "
    "in_flight=3\n"
    "daemon state=following since_s=7370 run=5f3a90c1 position=5f3a90c1-812 connects=1 events=40 lost=0\n"
    "out published=41 confirmed=38 repeated=2 gaps=0 bytes=4100 rate=25 waiting=3\n"
    "spool place=disk records=0 bytes=0 limit=4194304 dropped=0 written=0 syncs=0\n"
    "commands taken=5 refused=0 failed=0 repeated=1\n";

TEST(Uplink, NamesEachTrouble) {
  const struct {
    std::string lines, trouble, notes;
  } rows[] = {
      {"", "", ""},
      {"broker host=b port=1883 state=down since_s=61 error=no%1b next_try_s=8",
       "the broker b:1883 is away for 1 min 1 s; the last error: no\\x1b; the next try is in 8.0 s", ""},
      {"broker host=b port=1883 state=down since_s=61\nspool place=disk oldest_s=100",
       "the broker b:1883 is away for 1 min 1 s; it tries right now", ""},
      {"daemon state=away since_s=5 error=gone", "the daemon is away for 5.0 s; the last error: gone", ""},
      {"spool place=memory error=full", "", "the spool is in memory, and is lost with the program; its folder: full"},
      {"spool place=disk oldest_s=61", "",
       "the oldest event waits for 1 min 1 s although the broker is there: it confirms slowly, or `rate` is too low"},
      {"spool place=disk oldest_s=60 dropped=1", "", "1 event was dropped: more came than `spool_size` holds"},
      {"daemon state=following lost=2", "",
       "2 events were overwritten in the daemon before the uplink read them: a larger `event_memory` of the daemon "
       "helps"},
      {"out refused=1", "", "1 message was refused by the broker: the log says why"},
      {"commands refused=2 failed=1 refusal=a%0ab", "",
       "2 commands were refused, the last one: a\\nb|1 command came while the daemon was not there to take it in"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines);
    const Diagnosis diagnosis = diagnose_uplink(lines_in(row.lines + "\n" + kUplinkWell));
    EXPECT_EQ(diagnosis.trouble, row.trouble);
    std::string notes;
    for (const std::string& note : diagnosis.notes) notes += (notes.empty() ? "" : "|") + note;
    EXPECT_EQ(notes, row.notes);
  }
}

TEST(Uplink, IsOneScreenAHealthCheckAndPartOfTheMetrics) {
  const RealDaemon root;
  root.expect_zelvctl("uplink", 1,
                      "NOT HEALTHY: the uplink does not answer: no daemon at ROOT/run/zelvind-uplink/control.sock: No "
                      "such file or directory\n",
                      "");
  const FakeControl uplink(root.path(""), {{"stats", kUplinkWell + "\n\0broker state=down device=7\n\n"s}},
                           kUplinkSocketPath);
  root.expect_zelvctl(
      "uplink", 0,
      "healthy\n"
      "uplink      zelvind-uplink 1.2.3, process 12, device 0017, session 17, for 2 h 3 min, 3.0 MiB of "
      "memory\n"
      "broker      b:8883 with TLS, up for 1 h 56 min, MQTT 5; 2 connects, 1 failure; the last error: "
      "no\\nroute\n"
      "daemon      following for 2 h 2 min, behind event 5f3a90c1-812; 40 events read, 0 lost\n"
      "sent        41 messages published, 38 confirmed, 3 in flight, 2 repeated, 0 gaps declared; "
      "2.5/s in the last 10 s\n"
      "spool       in its folder: 0 records, 0 B of 4.0 MiB; 0 events dropped\n"
      "commands    5 taken, 0 refused, 0 failed, 1 answered from memory\n",
      "");
  root.expect_zelvctl("uplink --json", 1, R"({
  "healthy": false,
  "trouble": "the broker : is away for 0 s; it tries right now",
  "notes": [],
  "broker": {
    "device": "7",
    "state": "down"
  }
}
)",
                      "");
  root.launch("zelvctl metrics >$ROOT/m.prom 2>/dev/null; grep -v '#' $ROOT/m.prom >$ROOT/samples");
  EXPECT_EQ(root.text_of("samples"), "zelvind_up 0\nzelvind_uplink_connected 0\n");
}

TEST(Uplink, SettingsAreCheckedWithoutHoldingUpAReload) {
  RealDaemon daemon;
  ASSERT_TRUE(daemon.start());
  const std::string file = kUplinkSettingsPath;
  daemon.write(file.substr(1), "broker = mqtt://localhost\nup = door\ndevice = a\n");
  EXPECT_EQ(daemon.launch("zelvctl check >$ROOT/out 2>&1"), 0) << daemon.text_of("out");
  daemon.write(file.substr(1), "brocker = mqtt://localhost\nbroker = ftp://x\nup = door\ndevice = a\n");
  EXPECT_NE(daemon.launch("zelvctl check >$ROOT/out 2>/dev/null"), 0);
  EXPECT_EQ(daemon.text_of("out"), "ROOT" + file + ": the uplink has no setting 'brocker'; did you mean broker?\nROOT" +
                                       file +
                                       ": broker is 'ftp://x': expected mqtt://HOST[:PORT] or mqtts://HOST[:PORT]\n");
  EXPECT_EQ(daemon.launch("zelvctl reload >/dev/null 2>&1"), 0);
}

}  // namespace
