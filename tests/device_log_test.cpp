#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

#include "device/host/log_text.h"
#include "tests/device_root_fixture.h"
#include "util/descriptor.h"
#include "util/rate_limit.h"

namespace {

__attribute__((format(printf, 1, 2))) std::string text_of(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = log_text(format, arguments);
  va_end(arguments);
  return text;
}

TEST(LogText, NobodyForgesALineOrDrivesATerminal) {
  struct {
    std::string text;
    const char* expected;
  } const rows[] = {
      {text_of("lua stack %s(%d)---\n  ", "x", 1), "lua stack x(1)---\n  "},
      {text_of("\n---\n"), "\n---\n"},
      {text_of("100%%\nall of it is ours\n"), "100%\nall of it is ours\n"},
      {text_of("a\n%s\n\t\n", "b\nc\n"), "a\\nb\\nc\\n\n\\t\n"},
      {text_of("%s", "2026-11-22 zelvind: forged\n"), "2026-11-22 zelvind: forged\\n"},
      {text_of("%s", "\r\t\x1b[2J\x7f"), "\\r\\t\\x1b[2J\\x7f"},
      {text_of("[%c]", 0), "[\\x00]"},
      {text_of("%s", "Tür 門 🚪"), "Tür 門 🚪"},
      {text_of("%s", "\xc2\x85 \xc2\x9b \xc2\xa0"), "\\xc2\\x85 \\xc2\\x9b \xc2\xa0"},  // control characters of 8 bits
      {text_of("%s", "\xff \xc0\x8a \xe0\x80\x8a"), "\\xff \\xc0\\x8a \\xe0\\x80\\x8a"},         // overlong line ends
      {text_of("%s", "\xed\xa0\x80 \xf4\x90\x80\x80"), "\\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80"},  // no characters
      {text_of("%s\n", "\xe9\x96"), "\\xe9\\x96\n"},                                             // cut in the middle
  };
  for (const auto& row : rows) EXPECT_EQ(row.text, row.expected);
  EXPECT_EQ(text_of("%s!", std::string(100000, 'x').c_str()), std::string(100000, 'x') + "!");
}

using DeviceLog = DeviceRoot;

TEST_F(DeviceLog, LinesPiecesAndLevels) {
  elog_set_level("zelvind", 2);
  errno = ENOENT;
  elog(1, "no end");
  EXPECT_EQ(errno, ENOENT);
  elog(2, "one end\n");
  elog(3, "filtered");
  elog(1, "head %d\n  ", 1);
  elogr(1, "'%s'    ", "x\ny");
  elogr(3, "filtered");
  std::thread([] { elog(1, "another thread"), elogr(1, "never ended"); }).join();
  elogr(1, "\n---\n");
  elog(1, "head 2\n  ");
  elog(1, "next");
  EXPECT_EQ(logged(),
            "<1> no end\n<2> one end\n<1> another thread\nnever ended\n"
            "<1> head 1\n  'x\\ny'    \n---\n<1> head 2\n  \n<1> next\n");
}

TEST_F(DeviceLog, LongLinesOfThreadsStayWhole) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const Descriptor reader(ends[0]);
  log_to("file:/proc/self/fd/" + std::to_string(ends[1]));
  close(ends[1]);
  std::atomic<int> alive{4};
  const auto write_lines = [&](char letter) {
    for (int i = 0; i < 20; ++i) elog(1, "%s", std::string(9000, letter).c_str());
    if (--alive == 0) log_to("stderr");  // closes the pipe
  };
  std::vector<std::thread> threads;
  for (const char letter : {'a', 'b', 'c', 'd'}) threads.emplace_back(write_lines, letter);
  std::istringstream stream(read_file("/proc/self/fd/" + std::to_string(reader.get())));
  for (std::thread& thread : threads) thread.join();
  int lines = 0;
  for (std::string line; std::getline(stream, line); ++lines) {
    ASSERT_GT(line.size(), 9000u);
    EXPECT_EQ(line.substr(line.size() - 9000), std::string(9000, line.back()));
  }
  EXPECT_EQ(lines, 80);
}

TEST_F(DeviceLog, TargetsThatFail) {
  struct {
    std::string target;
    std::string said;
  } const rows[] = {
      {"nowhere\n", "log: ELOG_TARGET is none of stderr, file:PATH and syslog, but 'nowhere?': using syslog\n"},
      {"file:" + root, "log: cannot open the file of ELOG_TARGET (Is a directory) 'file:" + root + "': using syslog\n"},
      {"syslog", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.target);
    const std::string said = root + "/stderr";
    EXPECT_EQ(in_child([&] {
                dup2(Descriptor(open(said.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)).get(), 2);
                log_to(row.target);
                log_to(row.target);
                elog(1, "lost or in syslog");
              }),
              0);
    EXPECT_EQ(read_file(said), row.said);
  }
}

TEST_F(DeviceLog, ADeadReaderRaisesNoSignal) {
  EXPECT_EQ(in_child([&] {
              int ends[2];
              ASSERT_EQ(pipe(ends), 0);
              dup2(ends[1], 2);
              close(ends[0]);
              signal(SIGPIPE, SIG_DFL);
              log_to("stderr");
              elog(1, "nobody reads this");
            }),
            0);
}

TEST(RateLimit, OneASecondAndTheNumberLeftOut) {
  RateLimit limit;
  LeftOut left_out;
  EXPECT_TRUE(limit.allow(7, left_out));
  EXPECT_STREQ(left_out.text, "");
  EXPECT_FALSE(limit.allow(7, left_out));
  EXPECT_FALSE(limit.allow(7, left_out));
  EXPECT_TRUE(limit.allow(8, left_out));
  EXPECT_STREQ(left_out.text, " (and 2 more)");
}

}  // namespace
