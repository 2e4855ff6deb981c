#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <thread>
#include <vector>

#include "device/counts.h"
#include "tests/device_root_fixture.h"

static std::string g_syslog;  // what went there: "PRIORITY LINE|" each

// In the place of the C library's two.
extern "C" {
void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char line[100];
  vsnprintf(line, sizeof(line), format, arguments);
  va_end(arguments);
  g_syslog += std::to_string(priority) + " " + line + "|";
}
void __syslog_chk(int priority, int, const char*, int size, const char* line) {
  syslog(priority, "%.*s", size, line);
}
}

namespace {

using DeviceLog = DeviceRoot;

TEST_F(DeviceLog, NobodyForgesALineOrDrivesATerminal) {
  const std::pair<const char*, const char*> rows[] = {
      {"2026-11-22 zelvind: forged\n", "2026-11-22 zelvind: forged\\n"},
      {"\r\t\x1b[2J\x7f", "\\r\\t\\x1b[2J\\x7f"},
      {"Tür 門 🚪", "Tür 門 🚪"},
      {"\xc2\x85 \xc2\x9b \xc2\xa0", "\\xc2\\x85 \\xc2\\x9b \xc2\xa0"},           // control characters of 8 bits
      {"\xff \xc0\x8a \xe0\x80\x8a", "\\xff \\xc0\\x8a \\xe0\\x80\\x8a"},         // overlong line ends
      {"\xed\xa0\x80 \xf4\x90\x80\x80", "\\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80"},  // no characters
      {"\xe9\x96", "\\xe9\\x96"},                                                 // cut in the middle
  };
  std::string expected;
  for (const auto& [text, line] : rows) {
    elog(1, "%s", text);
    expected += std::string("<1> ") + line + "\n";
  }
  const std::string long_text(100000, 'x');
  elog(1, "[%c] %s!", 0, long_text.c_str());
  elog(1, "a\n%s\n\t\n", "b\nc\n");
  elog(1, "100%%\nall of it is ours\n");
  setlocale(LC_ALL, "C.UTF-8");  // as a script may
  elog(1, "%ls", L"\u9580");     // the log's own locale has no such character
  EXPECT_EQ(logged(),
            expected + "<1> [\\x00] " + long_text + "!\n<1> a\\nb\\nc\\n\n\\t\n<1> 100%\nall of it is ours\n<1> %ls\n");
}

TEST_F(DeviceLog, LinesPiecesAndLevels) {
  elog_set_level("zelvind", 2);
  elog(1, "no end");
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
  log_counts counts{}, after{};
  log_counts_now(&counts);
  errno = ENOENT;
  elog(1, "nobody reads this");  // a signal would end the test
  EXPECT_EQ(errno, ENOENT);
  log_counts_now(&after);
  EXPECT_GE(counts.written, 80u);
  EXPECT_EQ(after.written, counts.written);
  EXPECT_EQ(after.lost, counts.lost + 1);
}

TEST_F(DeviceLog, FilesAndWhatIsNone) {
  const mode_t before = umask(0);
  log_to("file:" + root + "/new");
  umask(before);
  EXPECT_EQ(static_cast<int>(std::filesystem::status(root + "/new").permissions()), 0640);
  log_to("file:" + root + "/log");
  elogr(1, "%s", std::string(1024 * 1024 + 1, 'x').c_str());  // too long to wait for its end
  EXPECT_EQ(logged(), std::string(1024 * 1024 + 1, 'x') + "\n");
  testing::internal::CaptureStderr();
  for (int i = 0; i < 2; ++i) log_to("file:/no/such/\x1b[2Jfile");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "log: failed to open '/no/such/\\x1b[2Jfile' of ELOG_TARGET: No such file or directory; using syslog\n");
  elog_set_level("zelvind", 3);
  for (int level = 1; level <= 3; ++level) elog(level, "a\nb");
  EXPECT_EQ(g_syslog, "5 a|5 b|6 a|6 b|7 a|7 b|");
}

}  // namespace
