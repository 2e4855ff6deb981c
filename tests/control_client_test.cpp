// zelvctl's side of the control socket, against a daemon that the test plays.

#include <gtest/gtest.h>
#include <unistd.h>

#include "ctl/control_client.h"
#include "ctl/failure.h"
#include "tests/fake_control.h"
#include "tests/real_daemon.h"
#include "util/control_paths.h"

namespace {

using namespace std::string_literals;

// What `action` throws, or what it returns.
template <typename Action>
std::string result_of(Action action) {
  try {
    return action();
  } catch (const Failure& failure) {
    return failure.what();
  }
}

TEST(ControlClient, ReadsAnswersAndSaysHowTheDaemonFails) {
  const RealDaemon root;
  const std::string large(300000, 'x');
  std::string endless;
  while (endless.size() < size_t{3} << 20) endless += "event name=a\n";
  const struct {
    std::string request, answer, result;
  } rows[] = {
      {"values", "event name=a%20b%3d info=%zz%4 bare n=12 m=-3 l=1,%2C,,x n=9 large=" + large + "\n\n",
       "event|a b=|%zz%4|12|7|[1][,][][x]|" + std::to_string(large.size())},
      {"nothing", "\n", "0 lines"},
      {"refused", "error: no such \x1b[2J\n\n", R"(no such \x1b[2J)"},
      {"cut", "event name=a\nevent na", "the daemon went away in the middle of its answer"},
      {"unended", "event name=a\n", "the daemon went away in the middle of its answer"},
      {"gone", "", "the daemon closed the connection"},
      {"endless", endless, "the daemon's answer is longer than 2 MiB"},
  };
  std::map<std::string, std::string> answers;
  for (const auto& row : rows) answers[row.request] = row.answer;
  const FakeControl daemon(root.path(""), answers);
  for (const auto& row : rows) {
    EXPECT_EQ(result_of([&] {
                ControlClient client(root.path(""));
                const auto answer = client.ask(row.request);
                if (answer.empty()) return std::to_string(answer.size()) + " lines";
                const AnswerLine& line = line_of(answer, "event");
                std::string items;
                for (const std::string& item : line.items("l")) items += "[" + item + "]";
                return line.kind() + "|" + line.text("name") + "|" + line.text("info") + "|" +
                       std::to_string(line.count("n")) + "|" + std::to_string(line.count("m", 7)) + "|" + items + "|" +
                       std::to_string(line.text("large").size());
              }),
              row.result);
  }
  EXPECT_EQ(encoded("a b%\n"), "a%20b%25%0A");
}

TEST(ControlClient, TellsAbsenceFromRightsAndFromOwners) {
  const RealDaemon root;
  const std::string socket = root.path(kControlSocketPath);
  const auto connect = [&] { return result_of([&] { return ControlClient(root.path("")).ask("stats"), "done"s; }); };
  EXPECT_EQ(connect(), "no daemon at " + socket + ": No such file or directory");
  const FakeControl daemon(root.path(""), {{"stats", "daemon pid=1\n\n"}});
  EXPECT_EQ(connect(), "done");
  if (geteuid() != 0) GTEST_SKIP() << "the rest needs root";
  root.launch("chmod 755 $ROOT; chgrp 65534 $ROOT/run/zelvind");
  const auto connect_as_other = [&] {
    EXPECT_EQ(seteuid(65534), 0);
    const std::string result = connect();
    EXPECT_EQ(seteuid(0), 0);
    return result;
  };
  EXPECT_EQ(connect_as_other(), socket + ": not allowed (group root)");
  root.launch("chmod 700 $ROOT/run/zelvind");
  EXPECT_EQ(connect_as_other(), socket + ": not allowed (group nogroup)");
}

// A daemon that is not trusted must not send zelvctl's subscription to somebody else's socket.
TEST(ControlClient, ADaemonNamesItsOwnSocketsOnly) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const RealDaemon root;
  root.launch("chmod 755 $ROOT; mkdir -p $ROOT/run/zelvind; chmod 777 $ROOT/run/zelvind");
  const FakeControl of_root(root.path(""), {}, "/root.sock");
  EXPECT_EQ(seteuid(12345), 0);
  const FakeControl daemon(root.path(""), {{"stats", "listener port=0 address=/root.sock\n\n"}, {"scripts", "\n"}});
  EXPECT_EQ(seteuid(0), 0);
  root.launch("chmod 755 $ROOT/run/zelvind");
  root.expect_zelvctl("listen door 2>&1 | tail -n 1", 0,
                      "zelvctl: the daemon of user 12345 names ROOT/root.sock, where user 0 listens\n", "");
}

// `make` stands in ROOT/a/run/zelvind, the folder of a socket at which user `listener` listens. ROOT is root's.
TEST(ControlClient, RefusesWhatAStrangerCouldHavePutThere) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const struct {
    const char* make;
    uid_t listener;
    const char* refused;  // the reason
  } rows[] = {
      {"", 0, nullptr},
      {"chown 12345 .", 12345, nullptr},
      {"chown -R 12345 $ROOT/a", 12345, nullptr},
      {"chgrp 12345 .; chmod 775 .", 12345, nullptr},  // its owner lets this group put a socket there
      {"chmod 1777 $ROOT/a . control.sock", 0, nullptr},
      {"chmod 1777 ../..; chown 12345 . ..", 12345,
       "ROOT/a/run belongs to user 12345, in a folder that all users may write to"},
      {"chmod 1777 .", 12345,
       "ROOT/a/run/zelvind/control.sock belongs to user 12345, in a folder that all users may write to"},
      {"chmod 777 .", 0, "all users may write to ROOT/a/run/zelvind"},
      {"chmod 777 ../..", 0, "all users may write to ROOT/a"},
      {"chown 12345 control.sock", 0, "ROOT/a/run/zelvind/control.sock belongs to user 12345"},
      {"chown 12345 .", 0, "ROOT/a/run/zelvind belongs to user 12345"},
      {"chown 4711 .", 12345, "ROOT/a/run/zelvind belongs to user 4711"},
      {"cd $ROOT; mv a b; ln -s b/../b/. a; chown -h 4711 a", 0, "ROOT/a belongs to user 4711"},
      {"cd $ROOT; mv a b; ln -s $ROOT/b/../c a; ln -s b c; chown 4711 b/run", 0, "ROOT/b/run belongs to user 4711"},
      {"cd $ROOT; mv a b; ln -s b a; chown -h 12345 a; chmod 1777 .", 12345,
       "ROOT/a belongs to user 12345, in a folder that all users may write to"},
  };
  for (const auto& row : rows) {
    const RealDaemon root;
    root.launch("chmod 755 $ROOT; mkdir -p $ROOT/a/run/zelvind; chmod 777 $ROOT/a/run/zelvind");
    EXPECT_EQ(seteuid(row.listener), 0);
    const FakeControl daemon(root.path("a"), {{"stats", "daemon pid=1\n\n"}});
    EXPECT_EQ(seteuid(0), 0);
    root.launch("cd $ROOT/a/run/zelvind; chmod 755 .; " + std::string(row.make));
    const std::string result = result_of([&] { return ControlClient(root.path("a")).ask("stats", 1000), "done"s; });
    root.write("result", result);
    EXPECT_EQ(root.text_of("result"),
              row.refused == nullptr
                  ? "done"
                  : row.refused + ": what listens at ROOT/a/run/zelvind/control.sock might not be the daemon"s)
        << row.make;
  }
}

}  // namespace
