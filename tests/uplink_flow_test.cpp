// The uplink's way from the daemon to the broker: settings, payloads, the daemon link, the outbox.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "tests/fake_control.h"
#include "tests/mqtt_broker.h"
#include "tests/real_daemon.h"
#include "uplink/broker_link.h"
#include "uplink/daemon_link.h"
#include "uplink/event_payload.h"
#include "uplink/outbox.h"
#include "uplink/state_message.h"
#include "uplink/uplink_settings.h"

namespace {

template <typename Texts>
std::string joined(const Texts& texts, const char* separator = " ") {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : separator) + text;
  return all;
}

TEST(UplinkSettings, EachProblem) {
  const auto percents = [](int names) {
    std::string list;
    for (int i = 0; i < names; ++i) list += std::string(125, '%') + ",";
    return list;
  };
  const std::pair<std::string, std::string> rows[] = {
      // lines beside a good broker and device, and the problems
      {"up = door, sensor_* ,,alarm\nurgent = alarm\ndown = unlock\nfull = drop_newest\nrate = 1\nhold_ms = 0", ""},
      {"broker = ", "broker is not set: expected mqtt://HOST[:PORT] or mqtts://HOST[:PORT]"},
      {"broker = tcp://x", "broker is 'tcp://x': expected mqtt://HOST[:PORT] or mqtts://HOST[:PORT]"},
      {"broker = mqtt://[::1", "broker is 'mqtt://[::1': expected mqtt://HOST[:PORT] or mqtts://HOST[:PORT]"},
      {"broker = mqtt://h:0", "broker is 'mqtt://h:0': expected a port from 1 to 65535 behind the host"},
      // What may be a password is not shown, whatever else is wrong.
      {"broker = mqtt://u:p@h", "broker holds a user or a password: expected them in user and password_file"},
      {"broker = tcp://u:p@h\nca = /c", "broker holds a user or a password: expected them in user and password_file"},
      {"broker = mqtt:/u:p@h", "broker holds a user or a password: expected them in user and password_file"},
      {"broker = mqtts://h\nuser = u\npassword_file = p", "password_file: expected an absolute path"},
      {"broker = mqtts://h\nca = c", "ca is 'c': expected an absolute path"},
      {"spool = s", "spool is 's': expected an absolute path"},
      {"up = " + percents(8), ""},  // 8 names of 125 bytes
      {"up = " + percents(9),
       "up is too long: expected at most 31 patterns, of 3000 bytes in all, where '%' counts for three"},
      {"device = a b", "device is 'a b': expected 1 to 64 of A-Z, a-z, 0-9, '_' and '-'"},
      {"prefix = a/#", "prefix is 'a/#': expected UTF-8 without '#', '+' and control characters"},
      {"prefix = $SYS", "prefix is '$SYS': expected a topic that does not begin with '$' or '/'"},
      {"rate = 0", "rate is '0': expected a whole number from 1 to 10000"},
      {"in_flight = 21", "in_flight is '21': expected a whole number from 1 to 20"},
      {"down_type = 9999", "down_type is '9999': that type ends the daemon's event loop"},
      {"down = uplink_reply", "down: 'uplink_reply' is the name of answers"},
      {"down = a*", "down: 'a*': expected a name, not a pattern"},
      {"up = a b", "up: 'a b': the name holds a blank or a control character"},
      {"up = door\nurgent = alarm,d*", "urgent: no pattern of up matches 'alarm'"},
      {"full = x", "full is 'x': expected drop_oldest or drop_newest"},
      {"cert = /c", "cert is set, and key is not|cert is set, but broker is not an mqtts:// URL"},
      {"password_file = /p", "password_file is set, and user is not"},
      {"broker = mqtts://h\ncert = /c", "cert is set, and key is not"},
      {"spool_siz = 1\nnonsense",
       "line 4: the line is not 'key = value'|the uplink has no setting 'spool_siz'; did you "
       "mean spool_size?"},
  };
  for (const auto& [lines, problems] : rows) {
    const auto result = parse_uplink_settings("broker = mqtt://h\ndevice = d\n" + lines, "", "");
    EXPECT_EQ(joined(result.problems, "|"), problems) << lines;
  }
  EXPECT_EQ(joined(parse_uplink_settings("broker = mqtt://h", "", "").problems),
            "device is not set, and there is no machine id in /etc/machine-id");
}

TEST(UplinkSettings, Values) {
  const std::string id = "8f1c0d6d2c3b4f6a9e8d7c6b5a493827\n";
  const auto good = [&](const std::string& text, const std::string& root = "") {
    auto result = parse_uplink_settings(text, root, id);
    EXPECT_EQ(joined(result.problems), "");
    return result.settings;
  };
  const UplinkSettings plain = good("broker = mqtt://h\n");
  EXPECT_EQ(plain.host + ":" + std::to_string(plain.port), "h:1883");
  EXPECT_EQ(plain.device.size(), 16U);
  EXPECT_EQ(id.find(plain.device), std::string::npos);
  EXPECT_EQ(plain.topic("state"), "zelvind/" + plain.device + "/state");
  EXPECT_NE(good("broker = mqtt://h\n", "/r").device, plain.device);
  EXPECT_EQ(plain.spool, "/var/lib/zelvind-uplink");
  const UplinkSettings full = good("broker=mqtts://[::1]:99/\ndevice=%i\nprefix=%i/%i\ndevice=a\nup=a, b*\n");
  EXPECT_EQ(full.host + " " + std::to_string(full.port) + " " + full.prefix, "::1 99 a/a");
  EXPECT_TRUE(full.tls);
  EXPECT_EQ(joined(full.up), "a b*");
}

TEST(UplinkPayload, EachEvent) {
  const std::pair<std::string, std::string> rows[] = {
      // behind id, time and type, and the payload behind them
      {"name=door info=state=open", R"("name":"door","f":{"state":"open"}})"},
      {"name=door info=", R"("name":"door","f":{}})"},
      {"name=d info=a=1&b=&a=2 info_cut=7", R"("name":"d","f":{"a":"1","b":""},"info":"a=1&b=&a=2","cut":7})"},
      {"name=d info=free%20text", R"("name":"d","f":{},"info":"free text"})"},
      {"name=d%FF info=a=%FF%00&b=%22%C3%BC", R"("name":{"hex":"64ff"},"f":{"a":{"hex":"ff00"},"b":"\"ü"}})"},
      {"name=d info=%FF=1", R"("name":"d","f":{},"info":{"hex":"ff3d31"}})"},
  };
  for (const auto& [rest, payload] : rows) {
    const auto record = event_record(AnswerLine("event id=ab-7 time=1763928000.000001 type=-1 " + rest));
    EXPECT_EQ(record.payload, R"({"id":"ab-7","t":1763928000.000001,"type":-1,)" + payload);
  }
  EXPECT_EQ(event_record(AnswerLine("event id=ab-7 time=9.000001 type=1 name=d info=")).payload,
            R"({"id":"ab-7","t":9.000001,"t_ok":false,"type":1,"name":"d","f":{}})");
  const auto large =
      event_record(AnswerLine("event id=ab-7 time=9.0 type=1 name=d info=a=" + std::string(90000, '\x01')));
  EXPECT_LE(large.payload.size(), size_t{128} * 1024);
  EXPECT_NE(large.payload.find(R"(,"cut":70002})"), std::string::npos);
  EXPECT_EQ(topic_part("a.B/-_+#\xff"), "a%2EB%2F-_%2B%23%FF");
}

// What a link to the daemon below `root` tells, up to an event of the run "e" or to `end`.
std::string followed(const RealDaemon& root, const std::string& position, const std::string& end = "e-9 ") {
  std::string told;
  DaemonLink::Events events;
  events.on_event = [&](const AnswerLine& event) { told += event.text("id") + " "; };
  events.on_gap = [&](const std::string& first, const std::string& last, uint64_t count) {
    told += "[" + first + " " + last + " " + std::to_string(count) + "] ";
  };
  events.on_passed = [&](const std::string& id) { told += "<" + id + "> "; };
  DaemonLink link(root.path(""), {"d*", "a,b"}, position, events);
  wait_until([&] {
    std::vector<pollfd> set;
    link.add_descriptors(set);
    poll(set.data(), set.size(), link.wait_ms());
    link.run();
    return told.find(end) != std::string::npos;
  });
  return told;
}

TEST(UplinkDaemonLink, DeclaresWhatItCouldNotSee) {
  const std::string names = " names=d*,a%2Cb";
  const RealDaemon root;
  const FakeControl daemon(
      root.path(""), {{"follow" + names, "following run=aa next=5\nevent id=aa-5\npassed id=aa-70\n"},
                      {"follow from=aa-70" + names, "following run=aa next=71\nlost n=3 last=aa-80\nevent id=aa-81\n"},
                      {"follow from=aa-81" + names,
                       "following run=bb next=4\nlost n=unknown last=bb-3\nevent id=bb-4\nevent id=e-9\n"}});
  EXPECT_EQ(followed(root, ""), "<aa-4> aa-5 <aa-70> [aa-78 aa-80 3] aa-81 [aa-82 bb-3 0] bb-4 e-9 ");
}

// As after a restored image: the run is the daemon's, and the number is not.
TEST(UplinkDaemonLink, GoesOnFromAPositionThatTheDaemonDoesNotKnow) {
  RealDaemon daemon;
  ASSERT_TRUE(daemon.start());
  const std::string now = followed(daemon, "", "-0> ");  // "<RUN-0> "
  const std::string run = now.substr(1, now.find('-'));
  ASSERT_TRUE(daemon.post("1 door \n1 door \n"));
  EXPECT_EQ(followed(daemon, run + "5000", "-2 "), "[" + run + "5001 " + run + "0 0] " + run + "1 " + run + "2 ");
}

// An outbox whose broker and clock the test plays. Events are numbered; a step is
//   up, down, +MS, =N (confirms N), !N (refuses N), N or N..M (events come), uN (an urgent one), new (killed, started),
//   aN (an answer to a command), dMS (run() is due in so many ms), newboot (a new that has lost the position's
//   file), cut (the end of the spool's last file is lost)
class PlayedOutbox {
 public:
  explicit PlayedOutbox(const std::function<void(UplinkSettings&)>& change) {
    settings.prefix = "p";
    change(settings);
    begin();
  }
  void play(const std::string& steps) {
    std::istringstream words(steps);
    for (std::string word; words >> word;) {
      step(word);
      outbox->run(now, [this] { return publish_answer(); });
    }
  }
  std::string published;  // events, "a-b" for gaps
  std::unique_ptr<Spool> spool;
  std::unique_ptr<Outbox> outbox;
  TemporaryFolder folder;

 private:
  void begin() {
    outbox.reset();
    spool.reset();
    tokens.clear();
    spool = std::make_unique<Spool>(folder.file("spool"), settings.spool_bytes, settings.full);
    outbox = std::make_unique<Outbox>(settings, *spool, folder.file("position"),
                                      [this](const std::string& topic, const std::string& payload) {
                                        tokens.push_back(topic == "p/gap" ? payload : topic.substr(4));
                                        published += tokens.back() + " ";
                                        return static_cast<int>(tokens.size());
                                      });
  }
  void cut() {
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder.file("spool"))) files.insert(entry.path());
    std::filesystem::resize_file(*files.rbegin(), std::filesystem::file_size(*files.rbegin()) - 1);
  }
  bool publish_answer() {
    if (answers.empty()) return false;
    published += answers.front() + " ";
    answers.pop_front();
    return true;
  }
  void step(const std::string& word) {
    if (word == "up" || word == "down") return outbox->set_up(word == "up");
    if (word[0] == 'a') return answers.push_back(word);
    if (word[0] == 'd') {
      EXPECT_EQ(outbox->due() - now, std::stoi(word.substr(1)));
      return;
    }
    if (word == "newboot") std::filesystem::remove(folder.file("position"));
    if (word == "new" || word == "newboot") return begin();
    if (word == "cut") return cut();
    if (word[0] == '+') return static_cast<void>(now += std::stoi(word.substr(1)));
    if (word[0] == '=') return outbox->confirm(token_of(word.substr(1)));
    if (word[0] == '!') return outbox->refuse(token_of(word.substr(1)));
    const bool is_urgent = word[0] == 'u';
    const size_t dots = word.find("..");
    const int first = std::stoi(word.substr(is_urgent ? 1 : 0));
    const int last = dots == std::string::npos ? first : std::stoi(word.substr(dots + 2));
    for (int event = first; event <= last; ++event) {
      UplinkRecord record;
      record.id = "aa-" + std::to_string(event);
      record.name = std::to_string(event);
      record.payload = std::string(100, '.');
      record.urgent = is_urgent;
      outbox->add(record, now);
    }
  }
  int token_of(const std::string& event) const {  // of the last publish of that event
    return static_cast<int>(tokens.rend() - std::find(tokens.rbegin(), tokens.rend(), event));
  }

  UplinkSettings settings;
  std::vector<std::string> tokens;
  std::deque<std::string> answers;
  int64_t now = steady_ms() - 1;  // the spool reads the real clock: nothing is due before a step says so
};

TEST(UplinkOutbox, EachCourse) {
  const auto nothing = [](UplinkSettings&) {};
  const auto slow = [](UplinkSettings& s) { s.rate = 2; };
  const auto full = [](UplinkSettings& s) {
    s.spool_bytes = 65536, s.full = UplinkSettings::Full::drop_newest, s.hold = {};
  };
  const std::string gap_1 = R"({"gap":["aa-1","aa-1"],"n":1} )";
  const auto narrow = [](UplinkSettings& s) { s.in_flight = 2; };
  const struct {
    const char* what;
    std::function<void(UplinkSettings&)> change;
    const char* steps;
    std::string published;
    uint64_t records;      // in the spool
    bool is_written;       // anything on the disk
    std::string position;  // in the file
  } rows[] = {
      {"acknowledged in time", nothing, "up 1..3 +1500 =1 =3 =2 +5000", "1 2 3 ", 0, false, "aa-3"},
      {"not acknowledged in time", nothing, "up 1..2 +2000 3 +999 +1", "1 2 3 ", 2, true, "aa-2"},
      {"the acknowledgement comes later", nothing, "up 1..2 +2000 =2 =1 +1000", "1 2 ", 0, true, "aa-2"},
      {"a connection is lost", nothing, "up 1..4 =2 down up", "1 2 3 4 1 3 4 ", 0, false, "aa-0"},
      {"a connection is lost for long", nothing, "up 1..3 =1 down +2000 4 5 +100 up +1000", "1 2 3 2 3 4 5 ", 2, true,
       ""},
      {"what waits longest goes first", narrow, "1..3 +2000 +1000 4 up =1 =2 =3 =4", "1 2 3 4 ", 0, true, ""},
      {"no more than in_flight", narrow, "up 1..5 =2 =1", "1 2 3 4 ", 0, false, ""},
      {"no more than rate", slow, "up 1..5 =1 =2 +999 +1 =3 =4", "1 2 3 4 ", 0, false, ""},
      {"answers and events take turns", slow, "up a1 a2 a3 d1000 1..3 +1000 +1000 a4 a5 a6 d1000", "a1 a2 1 a3 2 3 ", 3,
       true, ""},
      {"urgent", nothing, "1 u2 up", "1 2 ", 2, true, "aa-2"},
      {"refused", nothing, "up 1..2 !1 =2", "1 2 " + gap_1, 0, false, ""},
      {"refused, and its gap not confirmed", slow, "up 1..3 !1 +1000", "1 2 " + gap_1 + "3 ", 0, false, "aa-0"},
      {"refused in the spool, then killed", nothing, "up 1..2 +2000 =2 !1 +1000 new up !1",
       "1 2 " + gap_1 + "1 2 " + gap_1, 2, true, ""},
      {"what is refused when full is asked for again", full, "1..900 +1000 +1000 new", "", 460, true, "aa-460"},
      {"killed while records wait", nothing, "up 1 =1 +1000 2 down +2000 +1000 3 +100 new up", "1 2 2 ", 1, true,
       "aa-2"},
      {"killed at once after a reboot", nothing, "newboot", "", 0, true, "aa-0"},
      {"a reboot leaves the spool's position", nothing, "up 1..2 =2 +2000 +1000 newboot", "1 2 ", 1, true, "aa-2"},
      {"the power is cut in a write", nothing, "up u1 u2 +1000 cut new", "1 2 ", 2, true, "aa-1"},
      {"a flood while there is no broker", nothing, "1..2000", "", 1138, false, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    PlayedOutbox played(row.change);
    played.outbox->pass("aa-0");  // the position is on the disk: the first one always is
    const uint64_t before = played.spool->state().written;
    played.play(row.steps);
    EXPECT_EQ(played.published, row.published);
    EXPECT_EQ(played.spool->state().records, row.records);
    if (std::string(row.steps).find("new") == std::string::npos) {
      EXPECT_EQ(played.spool->state().written > before, row.is_written);
    }
    if (!row.position.empty()) {
      EXPECT_EQ(read_file(played.folder.file("position")), row.position);
    }
    if (played.spool->state().records == 0) {
      EXPECT_LE(played.outbox->state().waiting, 4U);
    }
  }
}

// A broker that takes and never confirms has the loop sleep, and not try the state's message again and again.
TEST(UplinkStateMessage, WaitsWhileTheBrokerTakesNothing) {
  StateMessage message;
  EXPECT_EQ(message.due({}), 0);
  message.tell({}, 5000);
  EXPECT_EQ(message.due({}), -1);
  EXPECT_EQ(message.due({1, 0, false}), 15000);
  for (const bool is_new_connection : {false, true}) {
    message.hold_up();
    EXPECT_EQ(message.due({2, 0, false}), -1);
    is_new_connection ? message.begin() : message.go_on();
    EXPECT_EQ(message.due({2, 0, false}), is_new_connection ? 0 : 15000);
  }
}

}  // namespace
