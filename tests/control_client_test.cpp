// zelvctl's side of the control socket, against a daemon that the test plays.

#include <gtest/gtest.h>
#include <unistd.h>

#include "control/control_paths.h"
#include "ctl/control_client.h"
#include "ctl/failure.h"
#include "tests/fake_control.h"
#include "tests/real_daemon.h"

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
  const auto connect = [&] {
    return result_of([&] { return ControlClient(root.path("")).ask("stats", 100), "done"s; });
  };
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
  for (const std::string& place : {socket, root.path("/run/zelvind")}) {
    EXPECT_EQ(chown(place.c_str(), 12345, 0), 0);
    EXPECT_EQ(connect(), place + " belongs to user 12345, who is neither root nor you nor the daemon's user");
    EXPECT_EQ(chown(place.c_str(), 0, 0), 0);
  }
  EXPECT_EQ(connect(), "done");
}

}  // namespace
