// The control socket: the words of its protocol, the ring of recent events, the server under well and badly behaved
// clients, and the real daemon while a script hangs.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "control/answer.h"
#include "control/control_server.h"
#include "control/event_ring.h"
#include "control/loop_stats.h"
#include "device/event_queue.h"
#include "tests/device_root_fixture.h"
#include "tests/real_daemon.h"
#include "util/clock.h"
#include "util/control_paths.h"
#include "util/text.h"
#include "util/unix_socket.h"

namespace {

TEST(ControlProtocol, ValuesAreEncoded) {
  const std::pair<std::string, std::string> kCases[] = {
      {"door", "door"},
      {"state=open&by=front", "state=open&by=front"},
      {"a b", "a%20b"},
      {"50%", "50%25"},
      {std::string("\0\n\x7f", 3), "%00%0A%7F"},
      {"gr\xc3\xbc\xc3\x9f", "gr\xc3\xbc\xc3\x9f"},
      {"\xc3", "%C3"},
      {"\xff\xe2\x82", "%FF%E2%82"},
      {"\xc0\x80", "%C0%80"},
  };
  for (const auto& [value, expected] : kCases) {
    std::string encoded;
    append_encoded(encoded, value);
    EXPECT_EQ(encoded, expected);
    std::string decoded;
    EXPECT_TRUE(append_decoded(decoded, encoded));
    EXPECT_EQ(decoded, value);
  }
  std::string ignored;
  for (const char* wrong : {"%", "a%2", "%2x", "%%20"}) EXPECT_FALSE(append_decoded(ignored, wrong)) << wrong;
}

TEST(ControlProtocol, AnAnswerIsBounded) {
  Answer answer;
  answer.line("first").key("n", -1).key("text", "a b");
  EXPECT_EQ(answer.take_lines(), "first n=-1 text=a%20b\n");
  const std::string large(1000, 'x');
  for (int i = 0; i < 2000; ++i) answer.line("row").key("text", large);
  const std::string lines = answer.take_lines();
  EXPECT_LT(lines.size(), Answer::kMost + 100);
  EXPECT_EQ(lines.substr(lines.rfind("cut ")), "cut bytes=" + std::to_string(2000 * 1010 - 1038 * 1010) + "\n");
  EXPECT_FALSE(answer.is_full());
  Answer outer;
  answer.leave_out(3);
  outer.line("first");
  outer.add_lines(lines + answer.take_lines());
  EXPECT_EQ(outer.take_lines(), "first\n" + lines + "cut bytes=0 lines=3\n");
  answer.line("row").key("text", "lost");
  answer.fail("no\nway");
  EXPECT_EQ(answer.take_lines(), "error: no\\nway\n");
}

TEST(ControlProtocol, PatternsMatchWholeNames) {
  struct {
    const char *pattern, *name;
    bool matches;
  } const kCases[] = {
      {"door", "door", true}, {"door", "doors", false}, {"door", "doo", false},  {"*", "", true},
      {"d*r", "door", true},  {"d*r", "doors", false},  {"*o*r*", "door", true}, {"d??r", "door", true},
      {"d?r", "door", false}, {"**", "door", true},     {"*ab", "aab", true},    {"a*b*c", "abbcbc", true},
      {"?", "", false},       {"", "", true},           {"", "a", false},        {"*a*a*a*b", "aaaaaaaaa", false},
  };
  for (const auto& row : kCases) EXPECT_EQ(matches_pattern(row.pattern, row.name), row.matches) << row.pattern;
}

TEST(ControlProtocol, ArgumentsOfFollow) {
  const std::string no_id = ": expected RUN-NUMBER, as in an event's id";
  const std::pair<std::vector<std::string>, std::string> kCases[] = {
      {{}, ""},
      {{"from=5f3a90c1-812", "names=door,h%2Ct*"}, ""},
      {{"from=5f3a90c1-"}, "from is '5f3a90c1-'" + no_id},
      {{"from=5f3a90c1-1x"}, "from is '5f3a90c1-1x'" + no_id},
      {{"from=5f3a90c1-99999999999999999999"}, "from is '5f3a90c1-99999999999999999999'" + no_id},
      {{"from=../../90-1"}, "from is '../../90-1'" + no_id},
      {{"names=%4"}, "names: two hexadecimal digits must follow a %"},
      {{"names=" + std::string(256, 'a')}, "names: a pattern has more than 255 bytes"},
      {{"names=a,b", "max=1"}, "unknown argument 'max=1': expected from=ID or names=GLOB,..."},
  };
  for (const auto& [arguments, problem] : kCases) {
    FollowRequest follow;
    EXPECT_EQ(parse_follow(arguments, follow), problem);
    if (arguments.size() != 2 || !problem.empty()) continue;
    EXPECT_EQ(follow.run + "/" + std::to_string(follow.sequence), "5f3a90c1/812");
    EXPECT_TRUE(follow.wants("door") && follow.wants("h,tx") && !follow.wants("heat"));
  }
}

event_item item(const char* name, const std::string& info) {
  event_item event{1, {-1, 7}, "", info.c_str()};
  copy_text(event.type_name, sizeof(event.type_name), name);
  return event;
}

void add(EventRing& ring, const std::string& info, const char* name = "door") {
  ring.add(item(name, info), 1500, 2500, 3);
}

// What a reader gets, until there is nothing: infos, and what it has lost as "-N".
std::vector<std::string> read_all(const EventRing& ring, uint64_t& next) {
  std::vector<std::string> all;
  EventRecordCopy event;
  for (uint64_t lost = 0;;) {
    const EventRing::Read result = ring.read(next, event, lost);
    if (result == EventRing::Read::nothing) return all;
    all.push_back(result == EventRing::Read::lost ? "-" + std::to_string(lost) : event.info);
  }
}

TEST(EventRing, GivesBackWhatWasAdded) {
  EventRing ring(4096);
  uint64_t next = 1;
  EXPECT_EQ(read_all(ring, next), std::vector<std::string>());
  const std::string large(5000, 'x');
  add(ring, "");
  add(ring, large, std::string(127, 'n').c_str());
  EventRecordCopy event;
  uint64_t lost = 0;
  ASSERT_EQ(ring.read(next, event, lost), EventRing::Read::entry);
  EXPECT_EQ(event.seconds, UINT32_MAX);
  EXPECT_EQ(event.microseconds, 7U);
  EXPECT_EQ(event.wait_ns + event.run_ns + event.errors + event.type, 4004);
  ASSERT_EQ(ring.read(next, event, lost), EventRing::Read::entry);
  EXPECT_EQ(event.name.size(), 127U);
  EXPECT_EQ(event.info + std::string(event.info_cut, 'x'), large);
  EXPECT_GT(event.info_cut, 0U);
  EXPECT_EQ(next, 3U);
}

TEST(EventRing, SaysWhatIsLost) {
  EventRing ring(4096);
  for (int i = 1; i <= 1000; ++i) add(ring, std::to_string(i) + std::string(static_cast<size_t>(i % 90), '.'));
  const uint64_t oldest = ring.oldest();
  EXPECT_GT(oldest, 900U);
  EXPECT_LT(oldest, 990U);
  uint64_t next = 5;
  const std::vector<std::string> all = read_all(ring, next);
  ASSERT_EQ(all.size(), 1 + 1001 - oldest);
  EXPECT_EQ(all[0], "-" + std::to_string(oldest - 5));
  for (uint64_t i = oldest; i <= 1000; ++i) EXPECT_EQ(std::stoul(all[1 + i - oldest]), i);

  EventRing numbers_only(0);
  add(numbers_only, "x");
  EXPECT_EQ(numbers_only.last(), 1U);
  EXPECT_EQ(numbers_only.oldest(), 2U);
}

// Every entry that a reader gets is whole, and none is missing without notice.
TEST(EventRing, WriterAndReadersMeet) {
  constexpr uint64_t kEvents = 200000;
  EventRing ring(2048);
  const auto read = [&] {
    uint64_t next = 1;
    uint64_t lost = 0;
    EventRecordCopy event;
    while (next <= kEvents) {
      if (ring.read(next, event, lost) != EventRing::Read::entry) continue;
      const std::string expected(event.sequence % 60, static_cast<char>('a' + event.sequence % 26));
      ASSERT_EQ(event.info, expected);
      ASSERT_EQ(event.sequence, next - 1);
    }
  };
  std::thread first(read);
  std::thread second(read);
  for (uint64_t i = 1; i <= kEvents; ++i) add(ring, std::string(i % 60, static_cast<char>('a' + i % 26)));
  first.join();
  second.join();
}

// A pass of many calls counts as silence until the loop takes an event.
TEST(LoopStats, WhatIsASignOfLifeAndACall) {
  const auto stats = std::make_unique<LoopStats>();
  EXPECT_EQ(stats->silent_ns(), 0);
  stats->looks_around();
  const int64_t since = steady_ns();
  ASSERT_TRUE(stats->begin_call(Activity::timer, "t"));
  stats->end_call();
  const int64_t called = steady_ns();
  EXPECT_GE(stats->silent_ns(), called - since);
  stats->takes_event("door");
  const int64_t silent = stats->silent_ns();
  EXPECT_LE(silent, steady_ns() - since);
  stats->set_loading(true);  // on the main thread, while the loop may take an event: its words are not to be touched
  EXPECT_FALSE(stats->begin_call(Activity::coroutine, "t"));
}

// A client of the control socket.
struct Client {
  explicit Client(const std::string& root) : fd(unix_stream_socket()) {
    connected = unix_connect(fd.get(), root + kControlSocketPath) == 0;
    const timeval limit{20, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  }
  // What cannot be sent is missed in the answer.
  void put(const std::string& bytes) const { ::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  // Up to the end of the text or of the connection.
  std::string read_to(const std::string& end) {
    size_t found = 0;
    while ((found = held.find(end)) == std::string::npos) {
      char bytes[4096];
      const ssize_t got = recv(fd.get(), bytes, sizeof(bytes), 0);
      if (got <= 0) return std::exchange(held, "") + (got == 0 ? "<end>" : "<nothing>");
      held.append(bytes, static_cast<size_t>(got));
    }
    std::string text = held.substr(0, found);
    held.erase(0, found + end.size());
    return text;
  }
  std::string ask(const std::string& request) {
    put(request + "\n");
    return read_to("\n\n");
  }

  Descriptor fd;
  bool connected = false;
  std::string held;
};

class Control : public DeviceRoot {
 protected:
  Control() { server.start(); }

  EventRing ring{4096};
  std::atomic<int> waiting{0};
  std::atomic<int> gave_up{0};
  std::atomic<bool> release{false};
  ControlServer server{ring,
                       {{"echo",
                         [](const ControlRequest& request, Answer& answer) {
                           answer.line("echo").key("process", request.process);
                           for (const std::string& argument : request.arguments) answer.key("argument", argument);
                           return true;
                         },
                         nullptr},
                        {"large",
                         [](const ControlRequest&, Answer& answer) {
                           for (int i = 0; i < 900; ++i) answer.line("row").key("text", std::string(1000, 'x'));
                           return true;
                         },
                         nullptr},
                        {"wait", nullptr,
                         [this](const ControlRequest&, Answer& answer, const std::function<bool()>& given_up) {
                           ++waiting;
                           while (!release && !given_up()) usleep(1000);
                           if (given_up()) ++gave_up;
                           answer.line("waited");
                         }},
                        {"fail", nullptr, [](const ControlRequest&, Answer&, const std::function<bool()>&) {
                           throw std::runtime_error("no luck");
                         }}}};
};

TEST_F(Control, RequestsAndTheirFaults) {
  struct stat status {};
  ASSERT_EQ(stat((root + kControlSocketPath).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0660U);
  const std::string echo = "echo process=" + std::to_string(getpid());
  const std::string fit = std::string(4096 - 6, 'x');
  const std::pair<std::string, std::string> kCases[] = {
      {"echo\n", echo + "\n\n"},
      {"  echo  a b=%20\r\n", echo + " argument=a argument=b=%2520\n\n"},
      {"echo " + fit + "\n", echo + " argument=" + fit + "\n\n"},
      {"echo " + fit + "x\necho\n", "error: the request is longer than 4096 bytes\n\n" + echo + "\n\n"},
      {std::string(9000, 'x') + "\necho\n", "error: the request is longer than 4096 bytes\n\n" + echo + "\n\n"},
      {"\n", "error: the request is empty\n\n"},
      {std::string("ec\0ho\n", 6), "error: a request has no control characters\n\n"},
      {"ECHO \xff\n", "error: unknown request 'ECHO': expected echo, large, wait, fail or follow\n\n"},
      {"fail\n", "error: no luck\n\n"},
      {"follow max=1\n", "error: unknown argument 'max=1': expected from=ID or names=GLOB,...\n\n"},
      {"echo 1\nnope\necho 2", echo +
                                   " argument=1\n\nerror: unknown request 'nope': expected echo, large, wait, fail"
                                   " or follow\n\n" +
                                   echo + " argument=2\n\n"},
      {"", ""},
  };
  for (const auto& [sent, expected] : kCases) {
    Client client(root);
    client.put(sent.substr(0, sent.size() / 2));
    client.put(sent.substr(sent.size() / 2));
    shutdown(client.fd.get(), SHUT_WR);
    EXPECT_EQ(client.read_to("<no end>"), expected + "<end>");
  }
}

TEST_F(Control, NobodyWaitsForAnother) {
  Client waits(root);
  Client leaves(root);
  Client reads_nothing(root);
  Client asks(root);
  waits.put("wait\necho\n");
  leaves.put("wait\n");
  for (int i = 0; i < 10; ++i) reads_nothing.put("large\n");
  ASSERT_TRUE(wait_until([&] { return waiting == 2; }));
  leaves.fd.reset();
  EXPECT_EQ(asks.ask("echo").substr(0, 5), "echo ");
  EXPECT_TRUE(wait_until([&] { return gave_up == 1; }));
  release = true;
  EXPECT_EQ(waits.read_to("\n\n"), "waited");
  EXPECT_EQ(waits.read_to("\n\n").substr(0, 5), "echo ");
  for (int i = 0; i < 10; ++i) EXPECT_EQ(reads_nothing.read_to("\n\n").size(), 900 * 1010 - 1U);
}

// Who reads keeps its place; who does not read what it follows, or never ends a request, gives it up.
TEST_F(Control, SixteenClients) {
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 16; ++i) {
    clients.push_back(std::make_unique<Client>(root));
    if (i == 4) continue;
    clients.back()->put(i == 3 ? "follow\n" : "follow names=quiet\n");
    EXPECT_EQ(clients.back()->read_to("\n").substr(0, 9), "following");
  }
  EXPECT_EQ(Client(root).read_to("\n\n"), "error: 16 clients are connected already");
  const std::string process = "process " + std::to_string(getpid());
  const std::string whose = process + " of user " + std::to_string(getuid());
  EXPECT_EQ(logged(), "<1> control: refused " + whose + ", since 16 clients are connected\n");
  const std::string info(1000, 'x');
  std::vector<std::unique_ptr<Client>> newcomers;
  for (int i = 0; i < 2; ++i) {
    newcomers.emplace_back();
    ASSERT_TRUE(wait_until([&] {
      add(ring, info);
      clients[4]->put("x");
      newcomers.back() = std::make_unique<Client>(root);
      return newcomers.back()->ask("echo").substr(0, 5) == "echo ";
    }));
  }
  EXPECT_EQ(clients[4]->read_to("<no end>"), "<end>");
  EXPECT_NE(logged().find("control: closed the connection of " + whose + ", idle for 2 s, for " + process),
            std::string::npos);
  const std::string rest = clients[3]->read_to("<no end>");
  EXPECT_EQ(rest.substr(rest.size() - 5), "<end>");
  newcomers.back()->put("wait\n");
  ASSERT_TRUE(wait_until([&] { return waiting == 1; }));
  add(ring, "seen", "quiet");
  std::string next = clients[0]->read_to("\n");
  while (next.compare(0, 7, "passed ") == 0) next = clients[0]->read_to("\n");
  EXPECT_NE(next.find("info=seen"), std::string::npos);
}

// Whoever has all places gives one up to each of the others.
TEST_F(Control, UsersShareThePlaces) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  namespace fs = std::filesystem;
  fs::permissions(root, fs::perms{0755});
  fs::permissions(root + kControlSocketPath, fs::perms{0666});
  std::vector<std::unique_ptr<Client>> clients;
  const auto come = [&](uid_t user) {
    EXPECT_EQ(seteuid(user), 0);
    clients.push_back(std::make_unique<Client>(root));
    EXPECT_EQ(seteuid(0), 0);
    clients.back()->put("follow\n");
    return clients.back()->read_to("\n").substr(0, 9);
  };
  for (int i = 0; i < 16; ++i) EXPECT_EQ(come(12345), "following");
  for (int i = 0; i < 8; ++i) EXPECT_EQ(come(0), "following") << i;
  EXPECT_EQ(come(0), "error: 16");
  EXPECT_NE(logged().find(", which has 16, for process "), std::string::npos);
  add(ring, "seen");
  for (size_t i = 0; i < 24; ++i) EXPECT_EQ(clients[i]->read_to("\n").substr(0, 5), i < 8 ? "<end>" : "event") << i;
}

TEST_F(Control, TheSocketIsMadeAgain) {
  Client before(root);
  EXPECT_EQ(before.ask("echo").substr(0, 5), "echo ");
  std::filesystem::remove(root + kControlSocketPath);
  ASSERT_TRUE(wait_until([&] { return Client(root).connected; }));
  EXPECT_EQ(Client(root).ask("echo").substr(0, 5), "echo ");
  EXPECT_EQ(before.ask("echo").substr(0, 5), "echo ");
  server.stop();
  EXPECT_FALSE(std::filesystem::exists(root + kControlSocketPath));
  EXPECT_EQ(before.read_to("\n"), "<end>");
}

TEST_F(Control, Followers) {
  const std::string run = ring.run();
  const auto line = [&](int n, const std::string& info, const std::string& name = "door") {
    return "event id=" + run + "-" + std::to_string(n) + " time=4294967295.000007 type=1 name=" + name +
           " info=" + info + " wait_us=1 run_us=2 errors=3";
  };
  add(ring, "old");
  Client all(root);
  all.put("follow\necho\n");
  EXPECT_EQ(all.read_to("\n"), "following run=" + run + " next=2");
  Client some(root);
  some.put("follow from=" + run + "-0 names=d*,heat\n");
  EXPECT_EQ(some.read_to("\n"), "following run=" + run + " next=1");
  EXPECT_EQ(some.read_to("\n"), line(1, "old"));
  ASSERT_TRUE(wait_until([&] { return server.counts().followers == 2; }));
  for (int n = 2; n < 50; ++n) {  // with and without a silence before it
    const bool is_known = n % 3 != 0;
    add(ring, "a b", is_known ? "door" : "noise");
    EXPECT_EQ(all.read_to("\n"), line(n, "a%20b", is_known ? "door" : "noise"));
    if (is_known) {
      EXPECT_EQ(some.read_to("\n"), line(n, "a%20b"));
    }
    if (n % 10 == 0) usleep(20000);
  }
  EXPECT_EQ(Client(root).ask("follow from=" + run + "-50"), "error: from: that event has not come yet");
  Client former(root);
  former.put("follow from=00000000-7\n");
  EXPECT_EQ(former.read_to("\n").substr(0, 22), "following run=" + run);
  EXPECT_EQ(former.read_to("\n"), "lost n=unknown last=" + run + "-0");
  EXPECT_EQ(former.read_to("\n"), line(1, "old"));
  for (int n = 50; n < 50 + 64; ++n) {
    add(ring, "", "noise");
    EXPECT_EQ(all.read_to("\n"), line(n, "", "noise"));
  }
  EXPECT_EQ(some.read_to("\n"), "passed id=" + run + "-113");
  usleep(20000);  // so that the thread sleeps, as a rule
  ring.end();
  EXPECT_EQ(all.read_to("\n\n"), "error: the event loop has ended");
  EXPECT_EQ(all.read_to("\n\n").substr(0, 5), "echo ");
  EXPECT_EQ(Client(root).ask("follow from=" + run + "-112"),
            "following run=" + run + " next=113\n" + line(113, "", "noise") + "\nerror: the event loop has ended");
}

// A follower that reads nothing holds up nobody, and is told what it has lost.
TEST_F(Control, AFollowerThatLags) {
  Client lags(root);
  lags.put("follow\n");
  lags.read_to("\n");
  Client asks(root);
  const std::string info(1000, 'x');
  for (int i = 0; i < 3000; ++i) {
    add(ring, info);
    if (i % 100 == 0) {
      EXPECT_EQ(asks.ask("echo").substr(0, 5), "echo ");
    }
  }
  uint64_t seen = 0;
  bool has_lost = false;
  while (seen < 3000) {
    const std::string next = lags.read_to("\n");
    if (next.compare(0, 7, "lost n=") == 0) {
      has_lost = true;
      seen += std::stoul(next.substr(7));
      EXPECT_EQ(std::stoul(next.substr(next.find('-') + 1)), seen);
    } else {
      ASSERT_EQ(std::stoul(next.substr(next.find('-') + 1)), ++seen);
    }
  }
  EXPECT_TRUE(has_lost);
}

// The value of a key in the first line of a kind.
std::string value(const std::string& answer, const std::string& kind, const std::string& key) {
  std::istringstream lines(answer);
  for (std::string line; std::getline(lines, line);) {
    const size_t at = line.find(" " + key + "=");
    if (line.compare(0, kind.size() + 1, kind + " ") != 0 || at == std::string::npos) continue;
    const size_t start = at + key.size() + 2;
    return line.substr(start, line.find(' ', start) - start);
  }
  return "<none>";
}

// The real daemon answers whatever its scripts do: while they load, hang, and after the quit event.
TEST(ControlOfTheDaemon, AnswersWhileScriptsHang) {
  RealDaemon daemon;
  const std::string hang = "while not io.open('" + daemon.path("go") + "') do end";
  daemon.write("scripts/door.lua",
               "es_door = { list_func = { { 'front', function()\n" + hang + "\nerror('oops') end } } }\n" + hang);
  ASSERT_EQ(daemon.launch("$ZELVIND -p $ROOT/pid >/dev/null"), 0);
  ASSERT_TRUE(daemon.read_pid());
  ASSERT_TRUE(wait_until([&] { return Client(daemon.path("")).connected; }));
  Client client(daemon.path(""));
  ASSERT_TRUE(wait_until([&] { return value(client.ask("stats"), "loop", "activity") == "loading"; }));
  EXPECT_EQ(value(client.ask("stats"), "daemon", "state"), "loading");
  daemon.write("go", "");
  ASSERT_TRUE(daemon.wait_for("zelvind: complete to start program"));
  std::filesystem::remove(daemon.path("go"));

  ASSERT_TRUE(daemon.post("1 heat x=1\n1 door state=open\n"));
  std::string stats;
  ASSERT_TRUE(wait_until([&] {
    stats = client.ask("stats");
    return value(stats, "loop", "where") == daemon.path("scripts/door.lua:2");
  }));
  EXPECT_EQ(value(stats, "loop", "activity") + value(stats, "loop", "tag") + value(stats, "loop", "event"),
            "handlerfrontdoor");
  EXPECT_EQ(value(stats, "daemon", "state") + value(stats, "daemon", "pid"),
            "ready" + std::to_string(daemon.process()));
  Client reloads(daemon.path(""));
  reloads.put("reload\n");
  EXPECT_EQ(client.ask("scripts").substr(0, 55), "error: the loop is busy: in handler 'front' of door for");
  for (const char* wrong : {"-1", "100", "x"}) {
    EXPECT_EQ(client.ask(std::string("log_level ") + wrong),
              "error: log_level is '" + std::string(wrong) + "': expected a whole number from 0 to 99");
  }
  const std::string says =
      "control: process " + std::to_string(getpid()) + " of user " + std::to_string(getuid()) + " sets log_level to ";
  EXPECT_EQ(client.ask("log_level 0"), "log_level now=0");
  EXPECT_TRUE(daemon.wait_for(says + "0"));
  // The others of that second are counted; one that changes nothing says nothing.
  int changes = 1;
  EXPECT_TRUE(wait_until([&] {
    for (const std::string level : {"0", "2", "2"}) {
      EXPECT_EQ(client.ask("log_level " + level), "log_level now=" + level);
    }
    changes += 2;
    return daemon.count(" more)") > 0;
  }));
  EXPECT_LE(daemon.last_number_behind("(and "), changes);
  Client follows(daemon.path(""));
  follows.put("follow from=00000000-0 names=h*,door\n");
  follows.read_to("lost n=unknown last=");
  follows.read_to("\n");
  EXPECT_EQ(value(follows.read_to("\n"), "event", "info"), "x=1");

  daemon.write("go", "");
  EXPECT_EQ(reloads.read_to("\n\n"), "reload result=done");
  EXPECT_EQ(value(follows.read_to("\n"), "event", "errors"), "1");
  EXPECT_NE(client.ask("scripts").find("handler event=door tag=front module= where="), std::string::npos);
  daemon.write("scripts/door.lua", "error('no way')");
  reloads.put("reload\nclients\n");
  EXPECT_NE(value(reloads.read_to("\n\n"), "reload", "text").find("no%20way"), std::string::npos);
  EXPECT_EQ(reloads.read_to("\n"), "");
  ASSERT_TRUE(daemon.post("9999 quit\n"));
  EXPECT_TRUE(wait_until([&] { return value(client.ask("stats"), "daemon", "state") == "ended"; }));
  for (const char* request : {"reload", "scripts"}) EXPECT_EQ(client.ask(request), "error: the event loop has ended");
  EXPECT_EQ(follows.read_to("\n\n"), "error: the event loop has ended");
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_EQ(client.read_to("\n"), "<end>");
}

}  // namespace
