// Commands of a broker: what becomes an event, what is refused and why, and what is remembered.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "standin_device.h"
#include "uplink/answers.h"
#include "uplink/broker_link.h"
#include "uplink/command_payload.h"
#include "uplink/commands.h"
#include "uplink/uplink_status.h"
#include "util/clock.h"
#include "util/quiet_write.h"
#include "util/unix_socket.h"

namespace {

std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
}

// A folder, and the uplink's commands over it, which can be started anew.
class UplinkCommandTest : public testing::Test {
 protected:
  UplinkCommandTest() {
    standin::reset();
    std::string made = testing::TempDir() + "uplink-XXXXXX";
    folder = mkdtemp(made.data());
    settings.down = {"unlock", "a.b"};
    settings.down_rate = 1000;
    start();
  }
  ~UplinkCommandTest() override { std::filesystem::remove_all(folder); }

  void start() {
    commands.reset();  // the one before has to be gone
    commands = std::make_unique<Commands>(settings, folder,
                                          Commands::Ways{[this] { return can_post; },
                                                         [this](const std::string& line) {
                                                           posted.push_back(line);
                                                           on_disk = read_file();
                                                           return daemon_takes;
                                                         },
                                                         [this](const std::string& id, const std::string& answer) {
                                                           EXPECT_TRUE(is_command_id(id));
                                                           answers.push_back(id + " " + answer);
                                                         }});
  }

  std::string file() const { return folder + "/commands"; }
  std::string read_file() const {
    std::ostringstream text;
    text << std::ifstream(file()).rdbuf();
    return text.str();
  }
  void write_file(const std::string& text) const { std::ofstream(file()) << text; }

  // What a command gets: the line that was posted, or the answer, or both.
  std::string given(const std::string& payload, const std::string& name = "unlock", bool retained = false) {
    posted.clear();
    answers.clear();
    commands->take(name, payload, retained);
    std::string all;
    for (const std::string& line : posted) all += line;
    for (const std::string& answer : answers) all += (all.empty() ? "" : ", ") + answer;
    return all;
  }

  static std::string refused(const std::string& reason) {
    return R"(q1 {"id":"q1","status":"refused","reason":")" + reason + R"("})";
  }

  std::string folder;
  UplinkSettings settings;
  std::unique_ptr<Commands> commands;
  bool can_post = true, daemon_takes = true;
  std::vector<std::string> posted, answers;
  std::string on_disk;  // the file when the last line was posted
};

TEST(UplinkCommandPayload, EachPayload) {
  const std::string nested(8000, '[');
  const struct {
    std::string payload, info, id, refusal;
  } kCases[] = {
      {R"({"id":"q1"})", "cmd_id=q1", "q1", ""},
      {R"({"id":"A-z_09","f":{"door":"front","n":5,"b":true,"no":false,"e":""}})",
       "cmd_id=A-z_09&door=front&n=5&b=true&no=false&e=", "A-z_09", ""},
      {R"({"f":{"a":-1,"b":1.50,"c":1E3,"d":18446744073709551615},"id":"q1","until":2e9})",
       "cmd_id=q1&a=-1&b=1.50&c=1E3&d=18446744073709551615", "q1", ""},
      {R"({"id":"q1","f":{"big":123456789012345678901234567890}})", "cmd_id=q1&big=123456789012345678901234567890",
       "q1", ""},
      {R"({"id":"q1","f":{"ü":"\u00fc= \ud83d\ude00"}})", "cmd_id=q1&ü=ü= 😀", "q1", ""},
      {R"({"id":"q1","f":{}})", "cmd_id=q1", "q1", ""},
      // Not JSON: answered only when the id came first.
      {"", "", "", "the payload is not JSON: byte 1"},
      {R"({"id":"q1")", "", "q1", "the payload is not JSON: byte 11"},
      {R"({"id":"q1"} x)", "", "q1", "the payload is not JSON: byte 13"},
      {"{\"f\":{\"a\":\"\xff\"},\"id\":\"q1\"}", "", "", "the payload is not JSON: byte 12"},
      {R"({"id":"q1","f":{"a":1e999}})", "", "q1", "the payload is not JSON: byte 25"},
      {R"({"id":"q1","f":{"a":)" + nested, "", "q1", "the field 'a' cannot be an array"},
      {nested, "", "", "the payload is not an object but an array"},
      {R"({"id":"q1","f":{"a":")" + std::string(17000, 'x') + "\"}}", "", "q1",
       "the payload is longer than 16384 bytes"},
      // Not a command.
      {"5", "", "", "the payload is not an object"},
      {"null", "", "", "the payload is not an object but null"},
      {R"([{"id":"q1"}])", "", "", "the payload is not an object but an array"},
      {"{}", "", "", "the id is missing"},
      {R"({"id":5})", "", "", "the id is not 1 to 64 of A-Z a-z 0-9 _ -"},
      {R"({"id":""})", "", "", "the id is not 1 to 64 of A-Z a-z 0-9 _ -"},
      {R"({"id":"a/b"})", "", "", "the id is not 1 to 64 of A-Z a-z 0-9 _ -"},
      {R"({"id":")" + std::string(64, 'i') + "\"}", "cmd_id=" + std::string(64, 'i'), std::string(64, 'i'), ""},
      {R"({"id":")" + std::string(65, 'i') + "\"}", "", "", "the id is not 1 to 64 of A-Z a-z 0-9 _ -"},
      {R"({"id":"q1","id":"q2"})", "", "q1", "'id' is there twice"},
      {R"({"untill":5,"id":"q1"})", "", "q1", "there is no key 'untill'"},
      {R"({"id":"q1","f":{"x)" + repeated("ü", 40) + R"(":null}})", "", "q1",  // cut at a character
       "the field 'x" + repeated("ü", 31) + "' cannot be null"},
      {R"({"until":"5","id":"q1"})", "", "q1", "'until' is not a number"},
      {R"({"until":null,"id":"q1"})", "", "q1", "'until' cannot be null"},
      {R"({"f":"x","id":"q1"})", "", "q1", "'f' is not an object"},
      {R"({"f":[{"a":"1"}],"id":"q1"})", "", "q1", "'f' cannot be an array"},
      // Not a field.
      {R"({"f":{"a":{"b":"1","id":"q2"}},"id":"q1"})", "", "q1", "the field 'a' cannot be an object"},
      {R"({"f":{"a":["1"]},"id":"q1"})", "", "q1", "the field 'a' cannot be an array"},
      {R"({"f":{"a":null},"id":"q1"})", "", "q1", "the field 'a' cannot be null"},
      {R"({"f":{"a":"1","a":"2"},"id":"q1"})", "", "q1", "the field 'a' is there twice"},
      {R"({"f":{"cmd_id":"1"},"id":"q1"})", "", "q1", "a field cannot be named cmd_id"},
      {R"({"f":{"":"1"},"id":"q1"})", "", "q1", "the field '': the field's name is missing"},
      {R"({"f":{"a=b":"1"},"id":"q1"})", "", "q1", "the field 'a=b': a field's name cannot contain '='"},
      {R"({"f":{"a":"1&b=2"},"id":"q1"})", "", "q1", "the field 'a': a field's value cannot contain '&'"},
      {R"({"f":{"a":"1\n1 quit"},"id":"q1"})", "", "q1", "the field 'a': a field cannot contain a line end"},
      {R"({"f":{"a":"1\u0000"},"id":"q1"})", "", "q1", "the field 'a': a field cannot contain a zero byte"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.payload.substr(0, 100));
    const CommandPayload command = parse_command(row.payload);
    EXPECT_EQ(command.info, row.info);
    EXPECT_EQ(command.id, row.id);
    EXPECT_EQ(command.refusal, row.refusal);
  }
}

TEST(UplinkCommandPayload, LateIsJudgedByAClockThatWasSet) {
  constexpr int64_t k2024 = 1704067200;
  EXPECT_FALSE(is_late(5, k2024 - 1));
  EXPECT_TRUE(is_late(5, k2024));
  EXPECT_FALSE(is_late(k2024, k2024));
  EXPECT_TRUE(is_late(k2024, k2024 + 1));
  EXPECT_FALSE(is_late(1e300, k2024));
}

TEST_F(UplinkCommandTest, IsAnEventOrIsRefused) {
  const struct {
    std::string payload, name;
    bool retained;
    std::string expected;
  } kCases[] = {
      {R"({"id":"q0","until":9e9,"f":{"door":"front"}})", "unlock", false, "20 unlock cmd_id=q0&door=front"},
      {R"({"id":"q1"})", "report", false, refused("the name is not among those of `down`")},
      {R"({"id":"q1"})", "", false, refused("the name is not among those of `down`")},
      {R"({"id":"q1"})", "unlock/x", false, refused("the name is not among those of `down`")},
      {R"({"id":"q1"})", "unlock", true, refused("it is retained: commands are published without")},
      {R"({"id":"q1","until":5})", "unlock", false, refused("it is late: `until` has passed")},
      {R"({"id":"q1","f":5})", "unlock", false, refused("'f' is not an object")},
      {R"({"id":"q 1"})", "unlock", false, ""},                // nobody can be answered
      {R"({"id":"q1"})", "a%2Eb", false, "20 a.b cmd_id=q1"},  // a refused command may come again and be good
      // What is known is answered from memory, whatever else is wrong with it now.
      {R"({"id":"q1"})", "unlock", false, R"(q1 {"id":"q1","status":"pending"})"},
      {R"({"id":"q1","until":5)", "report", true, R"(q1 {"id":"q1","status":"pending"})"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.payload + " " + row.name);
    EXPECT_EQ(given(row.payload, row.name, row.retained), row.expected);
  }
  const Commands::State state = commands->state();
  EXPECT_EQ(state.taken, 2U);
  EXPECT_EQ(state.refused, 7U);
  EXPECT_EQ(state.repeated, 2U);
  EXPECT_EQ(state.last_refusal, "command '' for 'unlock': the id is not 1 to 64 of A-Z a-z 0-9 _ -");
}

TEST_F(UplinkCommandTest, IsOnTheDiskBeforeItIsPosted) {
  given(R"({"id":"q1"})");
  EXPECT_EQ(on_disk, "zelvind-uplink commands 1\nq1\n");
}

TEST_F(UplinkCommandTest, TellsTheScriptsAnswerAlsoAfterARestart) {
  const struct {
    std::string info, answer, remembered;
  } kCases[] = {
      {"cmd_id=q1", R"({"id":"q1","status":"ok"})", ""},
      {"cmd_id=q1&status=busy&n=5&status=ok&n=6&odd",
       R"({"id":"q1","status":"busy","f":{"n":"5"},"info":"n=5&n=6&odd"})", ""},
      {"status=ok&a=\"\\&cmd_id=q1&b=\xff",
       "{\"id\":\"q1\",\"status\":\"ok\",\"f\":{\"a\":\"\\\"\\\\\",\"b\":{\"hex\":\"ff\"}}}", ""},
      {"cmd_id=q1&status=no&log=" + std::string(2000, 'x'),
       R"({"id":"q1","status":"no","f":{"log":")" + std::string(2000, 'x') + "\"}}",
       R"({"id":"q1","status":"no","f_cut":true})"},
      // In JSON it would be more than brokers take.
      {"cmd_id=q1&status=" + repeated("ü", 60) + "&log=" + std::string(30000, '\x01'),
       R"({"id":"q1","status":")" + repeated("ü", 50) + R"(","f_cut":true})", ""},
  };
  const std::string command = R"({"id":"q1"})";
  given(command);
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.info.substr(0, 60));
    answers.clear();
    commands->reply(row.info);
    EXPECT_EQ(answers, std::vector<std::string>{"q1 " + row.answer});
    const std::string remembered = "q1 " + (row.remembered.empty() ? row.answer : row.remembered);
    EXPECT_EQ(given(command), remembered);
    start();
    EXPECT_EQ(given(command), remembered);
  }
}

TEST_F(UplinkCommandTest, ReplyToNoCommandIsCounted) {
  for (const char* info : {"cmd_id=q9&status=ok", "status=ok", "", "cmd_id=&&=", "cmd_id"}) commands->reply(info);
  EXPECT_TRUE(answers.empty());
  EXPECT_EQ(commands->state().stray_replies, 5U);
  EXPECT_GE(standin::log_lines_with("a script replies to 'q9', which is not a command it was given").size(), 1U);
}

TEST_F(UplinkCommandTest, IsNotPostedAgainWhenThePostFailed) {
  can_post = false;  // nothing is tried, so the id may come again
  EXPECT_EQ(given(R"({"id":"q1"})"), refused("the daemon takes no commands at present"));
  can_post = true;
  daemon_takes = false;
  const std::string failed =
      R"(q1 {"id":"q1","status":"failed","reason":"the daemon is not known to have taken it in"})";
  EXPECT_EQ(given(R"({"id":"q1"})"), "20 unlock cmd_id=q1, " + failed);
  daemon_takes = true;
  start();
  EXPECT_EQ(given(R"({"id":"q1"})"), failed);
  commands->reply("cmd_id=q1&status=ok");  // it was taken in after all
  EXPECT_EQ(given(R"({"id":"q1"})"), R"(q1 {"id":"q1","status":"ok"})");
}

TEST_F(UplinkCommandTest, RemembersTheLast256) {
  const auto command = [](int i) { return "{\"id\":\"q" + std::to_string(i) + "\"}"; };
  std::string file = "zelvind-uplink commands 1\n";
  for (int i = 0; i < 256; ++i) file += "q" + std::to_string(i) + "\n";
  write_file(file);
  start();
  EXPECT_EQ(given(command(0)), R"(q0 {"id":"q0","status":"pending"})");
  EXPECT_EQ(given(command(256)), "20 unlock cmd_id=q256");
  start();
  EXPECT_EQ(given(command(1)), R"(q1 {"id":"q1","status":"pending"})");
  EXPECT_EQ(given(command(256)), R"(q256 {"id":"q256","status":"pending"})");
  EXPECT_EQ(given(command(0)), "20 unlock cmd_id=q0");
  EXPECT_EQ(given(command(1)), "20 unlock cmd_id=q1");  // q0 took its place
}

// The folder is of a disk that is mounted late: what that one holds and what came before it are both known.
TEST_F(UplinkCommandTest, KnowsTheIdsOfAFolderThatComesLate) {
  const std::string late = folder + "-late";
  const std::string early = folder + "-early";
  given(R"({"id":"q1"})");
  given(R"({"id":"q2"})");
  commands->reply("cmd_id=q1&status=open");
  std::filesystem::rename(folder, late);
  std::filesystem::create_directory(folder);
  start();
  EXPECT_EQ(given(R"({"id":"q3"})"), "20 unlock cmd_id=q3");
  std::filesystem::rename(folder, early);
  std::filesystem::rename(late, folder);
  for (const bool is_restarted : {false, true}) {
    if (is_restarted) start();
    EXPECT_EQ(given(R"({"id":"q1"})"), R"(q1 {"id":"q1","status":"open"})");
    EXPECT_EQ(given(R"({"id":"q2"})"), R"(q2 {"id":"q2","status":"pending"})");
    EXPECT_EQ(given(R"({"id":"q3"})"), R"(q3 {"id":"q3","status":"pending"})");
  }
  std::filesystem::remove_all(early);
}

TEST_F(UplinkCommandTest, MoreThanTheRateIsRefused) {
  settings.down_rate = 2;
  start();
  const int64_t begin = steady_ms();
  for (int i = 0; i < 50; ++i) given("{\"id\":\"q" + std::to_string(i) + "\"}");
  const uint64_t most = 2 + static_cast<uint64_t>(steady_ms() - begin) * 2 / 1000;
  const Commands::State state = commands->state();
  EXPECT_GE(state.taken, 2U);
  EXPECT_LE(state.taken, most);
  EXPECT_EQ(state.taken + state.refused, 50U);
  EXPECT_EQ(answers, std::vector<std::string>{
                         R"(q49 {"id":"q49","status":"refused","reason":"more than 2 commands a second"})"});
}

TEST_F(UplinkCommandTest, WhatCannotBeRememberedIsRefused) {
  given(R"({"id":"q0"})");
  const std::string kept = read_file();
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const auto handler = signal(SIGXFSZ, SIG_IGN);
  const rlimit tiny{10, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &tiny);
  EXPECT_EQ(given(R"({"id":"q1"})"), refused("failed to write " + file() + ": File too large"));
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, handler);
  EXPECT_EQ(read_file(), kept);
  EXPECT_EQ(given(R"({"id":"q1"})"), "20 unlock cmd_id=q1");

  std::filesystem::remove_all(folder);
  EXPECT_EQ(given(R"({"id":"q2"})"),
            "q2 " + refused("failed to write " + file() + ": No such file or directory").substr(3).replace(8, 1, "2"));
  std::filesystem::create_directories(file());  // a file that cannot be read: nobody knows what was done
  start();
  EXPECT_EQ(given(R"({"id":"q1"})"), refused("failed to read " + file() + ": Is a directory"));
  std::filesystem::remove(file());
  EXPECT_EQ(given(R"({"id":"q1"})"), "20 unlock cmd_id=q1");
}

// Each byte of the file lost, with all behind it, or turned: an id that is whole is known.
TEST_F(UplinkCommandTest, DamageCostsOnlyWhatItHits) {
  given(R"({"id":"q1"})");
  given(R"({"id":"q2"})");
  commands->reply("cmd_id=q2&status=ok");
  const std::string whole = read_file();
  const size_t first_end = whole.find("\nq1") + 3;
  const size_t second_end = whole.find("\nq2") + 3;
  settings.down = {};  // what is not known is refused
  const auto is_known = [&](const std::string& id, const std::string& text) {
    write_file(text);
    start();
    return given("{\"id\":\"" + id + "\"}").find("refused") == std::string::npos;
  };
  for (size_t at = 0; at < whole.size(); ++at) {
    SCOPED_TRACE(at);
    EXPECT_EQ(is_known("q1", whole.substr(0, at)), at >= first_end);
    EXPECT_EQ(is_known("q2", whole.substr(0, at)), at >= second_end);
    std::string turned = whole;
    turned[at] = static_cast<char>(turned[at] ^ 0x81);
    EXPECT_EQ(is_known("q1", turned), at < first_end - 3 || at > first_end) << turned;
    EXPECT_EQ(is_known("q2", turned), at < second_end - 3 || at > second_end) << turned;
  }
  EXPECT_FALSE(standin::log_lines_with("lines of " + file() + " are damaged").empty());
}

// Requests of one client that come together, and one client too many for our descriptors.
TEST_F(UplinkCommandTest, StatusIsToldInOrderAndWithoutSpinning) {
  setenv("DEVICE_ROOT", folder.c_str(), 1);
  int answered = 0;
  StatusSocket status([&] { return "n=" + std::to_string(++answered) + "\n\n"; });
  const auto client = [&] {
    Descriptor socket(unix_stream_socket());
    EXPECT_EQ(unix_connect(socket.get(), folder + kUplinkSocketPath), 0);
    return socket;
  };
  const auto turn = [&] {
    std::vector<pollfd> set;
    status.add_descriptors(set);
    const int ready = poll(set.data(), set.size(), status.wait_ms() < 0 ? 10000 : status.wait_ms());
    status.run();
    return ready;
  };
  const auto answer = [&](const Descriptor& socket) {
    pollfd readable{socket.get(), POLLIN, 0};
    for (int i = 0; i < 100 && poll(&readable, 1, 0) == 0; ++i) turn();
    char bytes[500];
    const ssize_t size = recv(socket.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
    return std::string(bytes, static_cast<size_t>(std::max<ssize_t>(size, 0)));
  };
  const Descriptor one = client();
  write_fully(one.get(), "stats\r\nnix\nsta", 14);
  EXPECT_EQ(answer(one), "n=1\n\nerror: unknown request: expected stats\n\n");
  write_fully(one.get(), "ts\nstats\n", 9);
  EXPECT_EQ(answer(one), "n=2\n\nn=3\n\n");
  write_fully(one.get(), std::string(200, 'x').data(), 200);
  turn();
  char end = 0;
  EXPECT_EQ(recv(one.get(), &end, 1, MSG_DONTWAIT), 0);

  const Descriptor other = client();
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{3, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  int turns = 0;
  while (turn() != 0 && turns < 10) ++turns;
  EXPECT_LT(turns, 10);
  EXPECT_FALSE(standin::log_lines_with("uplink: cannot accept a client of its socket: Too many open files").empty());
  setrlimit(RLIMIT_NOFILE, &before);
  write_fully(other.get(), "stats\n", 6);
  EXPECT_EQ(answer(other), "n=4\n\n");
  unsetenv("DEVICE_ROOT");
}

// The broker is played: it takes `free` messages more.
TEST(UplinkAnswers, AreBoundedAndGoInOrder) {
  int free = 0;
  std::string published;
  Answers answers([&](const std::string& topic, const std::string&) {
    if (topic == "never") return static_cast<int>(BrokerLink::kNever);
    if (free-- <= 0) return static_cast<int>(BrokerLink::kNotNow);
    published += topic + " ";
    return std::stoi(topic);
  });
  for (const char* topic : {"1", "never", "2", "3"}) answers.add(topic, "");
  free = 2;
  while (answers.publish_next()) {
  }
  EXPECT_EQ(published, "1 2 ");
  answers.forget(1);
  answers.forget(3);  // somebody else's
  answers.begin_again();
  free = 9;
  while (answers.publish_next()) {
  }
  EXPECT_EQ(published, "1 2 2 3 ");
  answers.forget(2);
  for (int i = 0; i < 256; ++i) answers.add("4", "");  // 3 is under way, and goes
  EXPECT_EQ(answers.dropped(), 1U);
  answers.add("5", std::string(1024 * 1024 - 1, 'x'));
  EXPECT_EQ(answers.dropped(), 257U);
  published.clear();
  free = 9;
  while (answers.publish_next()) {
  }
  EXPECT_EQ(published, "5 ");
}

}  // namespace
