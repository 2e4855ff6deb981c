#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "device/host/log_text.h"
#include "tests/device_root_fixture.h"

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

TEST_F(DeviceLog, APipeGetsWholeLinesOfThreadsAndADeadOneNoSignal) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::ifstream reader("/proc/self/fd/" + std::to_string(ends[0]));
  close(ends[0]);
  log_to("file:/proc/self/fd/" + std::to_string(ends[1]));
  close(ends[1]);
  const auto write_lines = [](char letter) {
    for (int i = 0; i < 20; ++i) elog(1, "%s", std::string(9000, letter).c_str());
  };
  std::vector<std::thread> threads;
  for (const char letter : {'a', 'b', 'c', 'd'}) threads.emplace_back(write_lines, letter);
  std::string line;
  for (int i = 0; i < 80 && std::getline(reader, line); ++i) {
    EXPECT_EQ(line.substr(line.find("<1> ") + 4), std::string(9000, line.back()));
  }
  for (std::thread& thread : threads) thread.join();
  reader.close();
  elog(1, "nobody reads this");  // a signal would end the test
}

TEST_F(DeviceLog, TargetsThatFail) {
  const std::string said = root + "/stderr";
  const std::pair<std::string, std::string> rows[] = {
      {"nowhere\n", "log: ELOG_TARGET is none of stderr, file:PATH and syslog, but 'nowhere?': using syslog\n"},
      {"file:" + root, "log: cannot open the file of ELOG_TARGET (Is a directory) 'file:" + root + "': using syslog\n"},
      {"syslog", ""},
  };
  for (const auto& [target, text] : rows) {
    const auto fail = [&, &name = target] {
      ASSERT_NE(freopen(said.c_str(), "w", stderr), nullptr);
      log_to(name);
      log_to(name);
      elog(1, "lost or in syslog");
    };
    EXPECT_EQ(in_child(fail), 0);
    EXPECT_EQ(read_file(said), text);
  }
}

}  // namespace
