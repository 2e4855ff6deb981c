// What zelvctl shows while the daemon works: tail, listen over the control socket, and top, against a daemon that the
// test plays.

#include <gtest/gtest.h>

#include "ctl/human_text.h"
#include "ctl/live/history.h"
#include "ctl/live/picture.h"
#include "tests/fake_control.h"
#include "tests/real_daemon.h"

namespace {

constexpr char kEvent[] =
    "event id=%s time=1795375593.001234 type=-3 name=door info=%s wait_us=40 run_us=%d errors=%d\n";

std::string event(const char* id, const char* info, int run_us, int errors) {
  char line[512];
  snprintf(line, sizeof(line), kEvent, id, info, run_us, errors);
  return line;
}

// The daemon goes away twice, the second time for another run, and is full once then. What the command has said on
// standard error is `errors`.
TEST(Tail, FiltersAndGoesOnBehindTheLastEvent) {
  const RealDaemon root;
  const FakeControl daemon(
      root.path(""),
      {{"follow names=do%25,a%2Cb*", "error: bad names\n\n"},
       {"stats", "daemon state=stopping\n\n"},
       {"follow", "following run=aa next=5\n" + event("aa-5", "state=open&a=b%20c&state=x", 99999, 0) +
                      "lost n=3\nnews k=1\n" + event("aa-9", "state=%1b[2J&a=b%20c", 100000, 2)},
       {"follow from=aa-9", std::string("error: 16 clients are connected already\n\n") + '\0' +
                                "following run=bb next=1\nlost n=unknown\n" + event("bb-1", "", 2500000, 1)},
       {"follow from=aa-3", "following run=aa next=5\n" + event("aa-4", "a=1 info_cut=7", 1, 0)}});
  const std::string time = "2026-11-22 19:26:33.001234 ";
  const std::string gaps =
      "zelvctl: no event comes: it is stopping\nzelvctl: missing: 3 events\nzelvctl: the daemon went away; waiting for "
      "it\n"
      "zelvctl: connected again after T; the daemon was started again\n"
      "zelvctl: events of the daemon's former run may be missing\n";
  const std::string first = time + "aa-5 door state=open&a=b c&state=x (waited 40 us, ran 100 ms)\n";
  const std::string second = time + R"(aa-9 door state=\x1b[2J&a=b c (waited 40 us, ran 100 ms, 2 errors))" + "\n";
  const std::string third = time + "bb-1 door (waited 40 us, ran 2.5 s, 1 error)\n";
  const std::string json = R"("time":1795375593.001234,"type":-3,"name":"door",)";
  const struct {
    std::string arguments;
    int lines;
    std::string output, errors;
  } rows[] = {
      {"", 3, first + second + third, gaps},
      {"--slow 100", 2, second + third, gaps},
      {"--errors", 2, second + third, gaps},
      {R"x(--where 'a=b c' --where "state=$(printf '\033[2J')")x", 1, second, ""},
      {"--from aa-3", 1, time + "aa-4 door a=1... (7 bytes more) (waited 40 us, ran 1 us)\n", ""},
      {"--json --errors", 4,
       "{\"lost\":3}\n{\"id\":\"aa-9\"," + json +
           R"("fields":{"a":"b c","state":"\u001b[2J"},"wait_us":40,"run_us":100000,"errors":2})"
           "\n{\"lost\":null}\n{\"id\":\"bb-1\"," +
           json +
           R"("fields":{},"wait_us":40,"run_us":2500000,"errors":1})"
           "\n",
       gaps},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arguments);
    root.launch("export TZ=UTC; timeout 20 zelvctl --root $ROOT tail " + row.arguments + " 2>$ROOT/err | head -n " +
                std::to_string(row.lines) + " >$ROOT/out; sed -i 's/after [0-9.]* m*s/after T/' $ROOT/err");
    EXPECT_EQ(root.text_of("out"), row.output);
    EXPECT_EQ(root.text_of("err").substr(0, row.errors.size()), row.errors);
  }
  root.expect_zelvctl("tail do% 'a,b*'", 1, "", "zelvctl: bad names\n");
  root.expect_zelvctl("tail --from abc", 2, "", "zelvctl: --from 'abc': expected an ID, as in 5f3a90c1-812\n");
  root.expect_zelvctl("tail --where =a", 2, "", "zelvctl: --where '=a': expected FIELD=VALUE\n");
}

TEST(Zelvctl, ListensToPatternsOverTheControlSocket) {
  const RealDaemon root;
  const FakeControl daemon(
      root.path(""), {{"stats", "event name=door\nlistener port=1\n\n"},
                      {"scripts", "handler event=gate\n\n"},
                      {"follow", "following run=aa next=5\n" + event("aa-5", "a=1", 1, 0) + event("aa-6", "a=2", 1, 0)},
                      {"follow names=d*,ga?e,x*", "following run=aa next=5\n" + event("aa-5", "a=1", 1, 0)}});
  const std::string warning =
      "zelvctl: warning: no script handles 'x*', and no such event has come since the daemon started\n";
  const std::string gone = "zelvctl: the daemon went away\n";
  const std::string line = "1795375593.001234 door a=1\n";
  root.expect_zelvctl("listen 'd*' 'ga?e' 'x*'", 1, line, warning + gone);
  root.expect_zelvctl("listen --all --count 1", 0, line, "");
  root.expect_zelvctl("listen --all --host 192.0.2.1", 2, "",
                      "zelvctl: --all and patterns of names are for the daemon of this machine: leave out --host, "
                      "--port and --socket\n");
  root.expect_zelvctl("listen --all door", 2, "", "zelvctl: expected names of events, or --all\n");
  root.expect_zelvctl("listen door 'x'", 1, "",
                      "zelvctl: warning: no script handles 'x', and no such event has come since the daemon started\n"
                      "zelvctl: no daemon at 127.0.0.1:1: Connection refused\n");
}

// Ten seconds lie between the two answers; a client has come in the place of another.
TEST(Top, ShowsRatesAndTimesOfTheLastSeconds) {
  const std::string stats[] = {
      "daemon version=1.2 pid=12 state=ready state_since_s=60 rss=1048576 run=r\n"
      "event name=door events=100 errors=0 run_sum_us=5000 run_max_us=3000 buckets=0,100\n"
      "event name=bell%1b events=7 errors=0 run_sum_us=70 run_max_us=20 buckets=7\n"
      "tag name=front runs=100 errors=4 run_sum_us=5000 run_max_us=3000 buckets=0,100\nlistener deliveries=10\n",
      "daemon version=1.2 pid=12 state=ready state_since_s=70 rss=1048576 run=r\n"
      "loop activity=handler tag=front event=door for_us=2500000 alive_us=2500000\n"
      "queue waiting=3 highest=9 oldest_us=1500000\nwait max_us=7 buckets=0,0,100\n"
      "event name=door events=300 errors=6 run_sum_us=1005000 run_max_us=3000 buckets=0,300\n"
      "event name=bell%1b events=7 errors=0 run_sum_us=70 run_max_us=20 buckets=7\n"
      "tag name=front runs=300 errors=10 run_sum_us=1005000 run_max_us=3000 buckets=0,300\n"
      "error time=0 tag=front event=door text=/opt/s/a.lua:1:%20no%0atraceback\n"
      "timers now=1\ncoroutines now=2\nlua bytes=2048 limit=4096\n"
      "listener clients=2 owing=1 deliveries=60 skips=1\n"};
  const std::string clients[] = {
      "client id=9 address=a:1 state=subscribed events=500 bytes=5000\nclient id=8 address=a:2 events=10 bytes=100\n",
      "client id=9 address=a:3 state=owing events=20 bytes=200 waiting=2048 skipped=1 connected_s=5 wants=do%1bor\n"
      "client id=8 address=a:2 state=subscribed events=30 bytes=20580 connected_s=61 wants=a,b\n"};
  History history;
  for (int i = 0; i < 2; ++i) history.add(int64_t{10000} * i, {lines_in(stats[i]), lines_in(clients[i])});
  std::string text;
  for (const std::string& line : head_lines(history, 80, false)) text += line + "\n";
  text.erase(72, 8);  // the time of day
  for (const View view : kViews) {
    Table table = table_of(history, view);
    table.sort(first_sort_of(view), view == View::clients);
    text += table.title_line(80) + "\n";
    for (const Table::Row& row : table.rows) text += table.line(row, 80) + "\n";
  }
  EXPECT_EQ(text,
            "zelvind 1.2, process 12, ready for 1 min 10 s, 1.0 MiB of memory        \n"
            "loop    in handler 'front' of door for 2.5 s; no event taken for 2.5 s\n"
            "queue   3 waiting, highest 9, oldest 1.5 s; waited p50 5 us, p99 6 us, max 7 us\n"
            "events  20.0/s                                                  # highest 20.0/s\n"
            "errors  10, 0.6/s; last " +
                time_text(0).substr(11) +
                " front of door: a.lua:1: no\n"
                "lua     2.0 KiB of 4.0 KiB, 1 timer, 2 tasks, 0.0% of the time in collections\n"
                "clients 2, get 5.0/s, 1 behind, 1 event lost\n"
                "EVENT      PER S      TOTAL  ERRORS     P50     P99     MAX   LOOP\n"
                "door        20.0        300       6   1.5ms   3.0ms   3.0ms    35%\n"
                "bell\\x1b       -          7       0       -       -       -      -\n"
                "TAG        PER S      TOTAL  ERRORS     P50     P99     MAX   LOOP\n"
                "front       20.0        300      10   1.5ms   3.0ms   3.0ms    35%\n"
                "ADDRESS  STATE        PER S  BYTES/S     OWES    LOST    SINCE WANTS\n"
                "a:2      subscribed     2.0  2.0 KiB        -       0   1min1s a,b\n"
                "a:3      owing          2.0     20 B  2.0 KiB       1     5.0s do\\x1bor\n");
}

TEST(Top, EstimatesDurationsFromTwoHistograms) {
  const std::string zeros = ",0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0";
  const struct {
    std::string before, now;
    const char* expected;  // half, nearly all, longest
  } rows[] = {
      {"", "max=9 buckets=0,0,0" + zeros, "none"},
      {"buckets=5,0,0" + zeros, "max=9 buckets=5,0,0" + zeros, "none"},
      {"", "max=7 buckets=0,0,100" + zeros, "5 6 7"},  // 4 to 8, and none above 7
      {"buckets=0,0,99" + zeros, "max=1000 buckets=1,0,100" + zeros, "2 7 8"},
      {"", "max=1 buckets=1,0,0" + zeros, "0 0 1"},
      {"", "max=2000000 buckets=" + zeros.substr(1) + ",0,0,1", "1262144 1985242 2000000"},
  };
  for (const auto& row : rows) {
    const auto spread = spread_between(AnswerLine("tag " + row.before), AnswerLine("tag " + row.now), "max");
    const std::string text = !spread ? "none"
                                     : std::to_string(spread->half) + " " + std::to_string(spread->nearly) + " " +
                                           std::to_string(spread->longest);
    EXPECT_EQ(text, row.expected) << row.now;
  }
}

}  // namespace
