#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <thread>
#include <vector>

#include "device/counts.h"
#include "device/host/log_patience.h"
#include "device/host/log_repeats.h"
#include "device/host/log_target.h"
#include "tests/device_root_fixture.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/quiet_write.h"
#include "util/unix_socket.h"

static std::string g_dev_log;                    // the path that stands in for /dev/log
static std::function<int(int ms)> g_when_waits;  // called in place of a wait for a reader; returns what poll does
static std::atomic<int64_t> g_clock_ns{0};       // until when the log's clock waits

// In the place of the C library's, whose names for the parameters are reserved.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int connect(int fd, const sockaddr* address, socklen_t size) {
  sockaddr_un other{};
  if (address->sa_family == AF_UNIX && size <= sizeof(other)) {
    memcpy(&other, address, size);
    if (strcmp(other.sun_path, "/dev/log") == 0) g_dev_log.copy(other.sun_path, sizeof(other.sun_path) - 1);
    if (strcmp(other.sun_path, "/dev/log") != 0) address = reinterpret_cast<sockaddr*>(&other), size = sizeof(other);
  }
  return static_cast<int>(syscall(SYS_connect, fd, address, size));
}

// The linker puts these in place of the C library's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __real_poll(pollfd*, nfds_t, int);
int __wrap_poll(pollfd* wanted, nfds_t number, int timeout_ms) {
  return timeout_ms > 0 && g_when_waits ? g_when_waits(timeout_ms) : __real_poll(wanted, number, timeout_ms);
}
int __real_sem_clockwait(sem_t*, clockid_t, const timespec*);
int __wrap_sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* until) {
  g_clock_ns = int64_t{until->tv_sec} * 1000000000 + until->tv_nsec;
  return __real_sem_clockwait(semaphore, clock, until);
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

class DeviceLog : public DeviceRoot {
 protected:
  DeviceLog() { g_dev_log = root + "/dev-log"; }

  // A log daemon's socket.
  static Descriptor log_daemon(int type) {
    unlink(g_dev_log.c_str());
    Descriptor made(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    EXPECT_EQ(unix_bind(made.get(), g_dev_log), 0);
    if (type == SOCK_STREAM) listen(made.get(), 5);
    return made;
  }
  static Descriptor reader_of(const Descriptor& daemon, int type) {
    return Descriptor(type == SOCK_STREAM ? accept(daemon.get(), nullptr, nullptr) : dup(daemon.get()));
  }

  std::string fifo() const { return root + "/fifo"; }

  // A way to a reader of the log, who may be a log daemon. The writer's end, if there is one, is for standard error.
  struct Ends {
    Descriptor reader, writer;
  };
  Ends open_ends(const std::string& way) const {
    int ends[2] = {-1, -1};
    if (way == "fifo") {
      EXPECT_EQ(mkfifo(fifo().c_str(), 0600), 0);
      ends[0] = open(fifo().c_str(), O_RDONLY | O_NONBLOCK);
    } else if (way == "pipe") {
      EXPECT_EQ(pipe(ends), 0);
    } else if (way == "socket") {
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    } else if (way == "terminal") {
      ends[0] = posix_openpt(O_RDWR | O_NOCTTY);
      EXPECT_TRUE(grantpt(ends[0]) == 0 && unlockpt(ends[0]) == 0);
      ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY);
    } else {
      return {log_daemon(way == "stream" ? SOCK_STREAM : SOCK_DGRAM), Descriptor()};
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
  }

  // What `fd` has to read now; nothing if it has none.
  static std::string read_now(int fd) {
    char piece[4096];
    const ssize_t size = recv(fd, piece, sizeof(piece), MSG_DONTWAIT);
    const bool is_socket = size >= 0 || errno != ENOTSOCK;
    const ssize_t got = is_socket ? size : read(fd, piece, sizeof(piece));
    return got > 0 ? std::string(piece, static_cast<size_t>(got)) : "";
  }
  static std::string read_all(int fd) {
    std::string text;
    for (std::string piece; !(piece = read_now(fd)).empty();) text += piece;
    return text;
  }
  // The same, without the dates of syslog's records.
  static std::string read_records(int fd) {
    std::string text = read_all(fd);
    for (size_t at = 0; (at = text.find('>', at)) != std::string::npos; ++at) {
      int size = 0;
      sscanf(&text[at], ">%*[A-Z]%*2[a-z] %*2d %*2d:%*2d:%*2d %n", &size);
      if (size == 17) text.replace(at + 1, 16, "DATE ");
    }
    return text;
  }

  // A log of its own to the same place; never deleted, since its clock may still run.
  static LogTarget& own_target() {
    static auto& all = *new std::vector<LogTarget*>;
    all.push_back(new LogTarget);
    all.back()->open(3, "zelvind");
    return *all.back();
  }

  static log_counts counted() {
    log_counts counts{};
    log_counts_now(&counts);
    return counts;
  }
};

// No file gets longer than `file` is now and `more`.
class FullDisk {
 public:
  FullDisk(const std::string& file, size_t more) : former(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit full{std::filesystem::file_size(file) + more, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, former);
  }

 private:
  void (*const former)(int);
  rlimit before{};
};

TEST_F(DeviceLog, NobodyForgesALineOrDrivesATerminal) {
  const std::pair<const char*, const char*> rows[] = {
      {"2026-11-22 zelvind: forged\n", "2026-11-22 zelvind: forged\\n"},
      {"\r\t\x1b[2J\x7f", "\\r\\t\\x1b[2J\\x7f"},
      {"Tür 門 🚪", "Tür 門 🚪"},
      {"\xc2\x85 \xc2\x9b \xc2\xa0", "\\xc2\\x85 \\xc2\\x9b \xc2\xa0"},           // control characters of 8 bits
      {"\xff \xc0\x8a \xe0\x80\x8a", "\\xff \\xc0\\x8a \\xe0\\x80\\x8a"},         // overlong line ends
      {"\xed\xa0\x80 \xf4\x90\x80\x80", "\\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80"},  // no characters
      {"\xe9\x96", "\\xe9\\x96"},                                                 // cut in the middle
      // What ends a line, or turns its direction, and its neighbours.
      // NOLINTBEGIN(misc-misleading-bidirectional)
      {"\xe2\x80\xa7\xe2\x80\xa8", "\xe2\x80\xa7\\xe2\\x80\\xa8"},
      {"\xe2\x80\xae\xe2\x80\xaf", "\\xe2\\x80\\xae\xe2\x80\xaf"},
      {"\xe2\x81\xa5\xe2\x81\xa6", "\xe2\x81\xa5\\xe2\\x81\\xa6"},
      {"\xe2\x81\xa9\xe2\x81\xaa", "\\xe2\\x81\\xa9\xe2\x81\xaa"},
      // NOLINTEND(misc-misleading-bidirectional)
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
  const log_counts counts = counted();
  errno = ENOENT;
  elog(1, "nobody reads this");  // a signal would end the test
  EXPECT_EQ(errno, ENOENT);
  const log_counts after = counted();
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
  const Descriptor daemon = log_daemon(SOCK_DGRAM);
  elog(1, "to syslog");
  EXPECT_NE(read_all(daemon.get()).find("]: to syslog"), std::string::npos);
}

TEST_F(DeviceLog, TheLogDaemonGetsRecordsAndMayRestart) {
  const std::string sender = "DATE zelvind[" + std::to_string(getpid()) + "]: ";
  for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
    SCOPED_TRACE(type);
    const std::string end(type == SOCK_STREAM ? 1 : 0, '\0');
    const auto records = [&](std::initializer_list<const char*> texts) {
      std::string all;
      for (const std::string text : texts) all += text.substr(0, 4) + sender + text.substr(4) + end;
      return all;
    };
    Descriptor daemon = log_daemon(type);
    log_to("syslog");
    elog_set_level("zelvind", 3);
    for (int level = 1; level <= 3; ++level) elog(level, "a\nb");
    {
      const Descriptor reader = reader_of(daemon, type);
      EXPECT_EQ(read_records(reader.get()), records({"<29>a", "<29>b", "<30>a", "<30>b", "<31>a", "<31>b"}));
    }
    daemon.reset();
    const log_counts before = counted();
    elog(1, "nobody is there");
    daemon = log_daemon(type);
    elog(1, "it is back");
    EXPECT_EQ(read_records(reader_of(daemon, type).get()), records({"<29>log: 1 lines lost", "<29>it is back"}));
    EXPECT_EQ(counted().lost, before.lost + 1);
    EXPECT_EQ(counted().written, before.written + 1);
  }
}

TEST_F(DeviceLog, AFullDiskGluesNoLinesTogether) {
  elog(1, "before");
  const log_counts counts = counted();
  {
    const FullDisk full(root + "/log", 3);
    for (int i = 0; i < 3; ++i) elog(1, "%d does not fit", i);
  }
  for (int i = 0; i < 2; ++i) elog(1, "there is room");
  EXPECT_EQ(logged(), "<1> before\n202\n<1> log: 3 lines lost\n<1> there is room\n<1> there is room\n");
  EXPECT_EQ(counted().lost, counts.lost + 3);
}

// A reader that only reads while it is waited for loses nothing. When it reads no more, without going away, the log
// waits in vain, drops lines, says so when it is read again, and leaves the flags of what it shares as they are.
TEST_F(DeviceLog, NobodyHoldsItUp) {
  const struct {
    std::string target, way;
    bool is_opened_anew;
  } rows[] = {{"file:", "fifo", true},    {"stderr", "pipe", true},     {"stderr", "pipe", false},
              {"stderr", "socket", true}, {"stderr", "terminal", true}, {"syslog", "datagrams", true},
              {"syslog", "stream", true}};
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const rlimit none{3, descriptors.rlim_max};
  alarm(30);
  const Descriptor standard_error(dup(STDERR_FILENO));
  for (const auto& [target, way, is_opened_anew] : rows) {
    Ends ends = open_ends(way);
    if (ends.writer.get() >= 0) dup2(ends.writer.get(), STDERR_FILENO);
    if (!is_opened_anew) setrlimit(RLIMIT_NOFILE, &none);
    log_to(way == "fifo" ? target + fifo() : target);
    setrlimit(RLIMIT_NOFILE, &descriptors);
    if (way == "stream") ends.reader = reader_of(ends.reader, SOCK_STREAM);
    fcntl(ends.reader.get(), F_SETFL, O_NONBLOCK);
    const log_counts before = counted();
    int line = 0;
    int waits = 0;
    elog_set_level("zelvind", 2);  // where different lines have no limit
    const auto say_one = [&line] { elog(2, "%d %s", ++line, std::string(200, 'x').c_str()); };
    g_when_waits = [&](int) { return ++waits, read_all(ends.reader.get()).empty() ? 0 : 1; };
    while (waits < 3 && line < 5000) say_one();
    EXPECT_EQ(waits, 3) << way;
    EXPECT_EQ(counted().lost, before.lost) << way;
    g_when_waits = [&](int ms) {
      EXPECT_LE(ms, 1000);
      return ++waits, 0;
    };
    while (counted().lost < before.lost + 3) say_one();
    g_when_waits = nullptr;
    EXPECT_GT(waits, 3) << way;
    EXPECT_TRUE(ends.writer.get() < 0 || (fcntl(ends.writer.get(), F_GETFL) & O_NONBLOCK) == 0) << way;
    std::string text = read_all(ends.reader.get());
    elog(1, "read again");
    dup2(standard_error.get(), STDERR_FILENO);
    text += read_all(ends.reader.get());
    uint64_t lost = 0;  // a pipe may have room for such a line, and none for the next one
    for (size_t at = 0; (at = text.find("log: ", at)) != std::string::npos;)
      lost += strtoul(&text[at += 5], nullptr, 10);
    EXPECT_EQ(lost, counted().lost - before.lost) << way;
    EXPECT_LT(text.rfind(" lines lost"), text.find("read again")) << way;
    log_to("file:" + root + "/log");
  }
  alarm(0);
}

// Another user's may be stopped at any moment, in a write that has begun, too.
TEST_F(DeviceLog, ATerminalThatCannotBeOpenedAnewGetsNothing) {
  const std::string head = "<29>DATE zelvind[" + std::to_string(getpid()) + "]: ";
  const Descriptor standard_error(dup(STDERR_FILENO));
  for (const char* const target : {"stderr", ""}) {
    const Descriptor daemon = log_daemon(SOCK_DGRAM);
    const Ends ends = open_ends("terminal");
    const int is_locked = 1;
    ASSERT_EQ(ioctl(ends.reader.get(), TIOCSPTLCK, &is_locked), 0);
    fcntl(ends.reader.get(), F_SETFL, O_NONBLOCK);
    setenv("ELOG_TARGET", target, 1);
    if (*target == 0) unsetenv("ELOG_TARGET");
    dup2(ends.writer.get(), STDERR_FILENO);
    LogTarget& log = own_target();
    log.open(3, "zelvind");
    log.write(1, true, "one\n");
    const bool is_written = write_quietly(STDERR_FILENO, "two\n");
    dup2(standard_error.get(), STDERR_FILENO);
    EXPECT_FALSE(is_written);
    EXPECT_EQ(read_records(daemon.get()), head + "log: standard error is a terminal that cannot be opened: " +
                                              "Input/output error; using syslog" + head + "one");
    EXPECT_EQ(read_all(ends.reader.get()), "");
  }
}

TEST_F(DeviceLog, LinesThatRepeatThemselvesAreSummedUp) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::ifstream reader("/proc/self/fd/" + std::to_string(ends[0]));
  log_to("file:/proc/self/fd/" + std::to_string(ends[1]));
  close(ends[0]);
  close(ends[1]);
  const auto next = [&reader] {
    std::string line;
    std::getline(reader, line);
    return line.substr(line.find("<1> ") + 4);
  };
  const log_counts before = counted();
  alarm(20);
  for (int i = 0; i < 150; ++i) elog(1, "broken");
  elog(1, "other");
  for (int i = 0; i < 100; ++i) EXPECT_EQ(next(), "broken");
  EXPECT_EQ(next(), "log: last line repeated 50 times");
  EXPECT_EQ(next(), "other");
  // Two kinds in turns, and then silence: nothing but the time brings the last sum.
  for (int i = 0; i < 150; ++i) elog(1, "this\n"), elog(1, "that");
  EXPECT_EQ(in_child([] { elog(1, "child"); }), 0);  // which has nothing to sum up
  elog(1, "other");
  for (int i = 0; i < 100; ++i) EXPECT_EQ((next(), next()), "that");
  for (const char* const line :
       {"child", "log: last line repeated 50 times", "other", "this", "log: last line repeated 49 times"}) {
    EXPECT_EQ(next(), line);
  }
  alarm(0);
  elog(1, "everything is counted");
  EXPECT_EQ(counted().repeated, before.repeated + 50 + 50 + 49);
  EXPECT_EQ(counted().written, before.written + 100 + 1 + 200 + 1 + 1 + 1);
}

// What the end of the process cuts short: lines that were lost, their repetitions, and threads that go on.
TEST_F(DeviceLog, TheEndTellsWhatIsLeftOutOrLost) {
  LogTarget& target = own_target();
  const auto write_into_full_disk = [this, &target](const std::string& line, int times) {
    const FullDisk full(root + "/log", 0);
    for (int i = 0; i < times; ++i) target.write(1, true, line + "\n");
  };
  elog(1, "before");
  write_into_full_disk("same", 150);
  target.finish();
  std::string expected = "<1> before\n<1> log: 100 lines lost\n<1> same\n<1> log: last line repeated 49 times\n";
  EXPECT_EQ(logged(), expected);
  for (int i = 0; i < 150; ++i) target.write(1, true, "late\n"), expected += "<1> late\n";
  write_into_full_disk("last", 1);
  target.finish();
  EXPECT_EQ(logged(), expected + "<1> log: 1 lines lost\n");
}

// The clock that waits for one summary is told of another that is due before.
TEST_F(DeviceLog, NoSumWaitsForAnother) {
  LogTarget& target = own_target();
  bool is_in_time = false;
  for (int round = 0; !is_in_time && round < 20; ++round) {  // again where the machine was too slow
    const auto say = [&target, round](const std::string& name, int times) {
      const std::string line = name + std::to_string(round) + "\n";
      for (int i = 0; i < times; ++i) target.write(1, true, line);
    };
    const int64_t start_ms = steady_tick_ms();
    say("first", 1);
    while (steady_tick_ms() < start_ms + 20) continue;
    say("other", 150);
    const auto wait_for_clock = [start_ms](auto is_set) {
      while (!is_set(g_clock_ns / 1000000) && steady_ms() < start_ms + 900) std::this_thread::yield();
      return steady_ms() < start_ms + 900;
    };
    int64_t others_ms = 0;
    if (!wait_for_clock([&](int64_t until) { return (others_ms = until) > start_ms + 1000; })) continue;
    say("first", 150);
    is_in_time = wait_for_clock([&](int64_t until) { return until < others_ms; });
  }
  target.finish();
  EXPECT_TRUE(is_in_time);
}

class LogRepeatsTest : public testing::Test {
 protected:
  // How many of them are left out, `now_ms`.
  int left_out(const std::string& line, int times, int64_t now_ms, int level = 1) {
    int number = 0;
    for (int i = 0; i < times; ++i) {
      if (repeats.leaves_out(level, line, now_ms)) {
        ++number;
      } else {
        repeats.wrote();
      }
    }
    return number;
  }
  uint64_t take(int64_t now_ms) { return repeats.take(now_ms, summary) ? summary.times : 0; }

  LogRepeats repeats;
  LogRepeats::Summary summary;
};

TEST_F(LogRepeatsTest, CountsASecondOfEachLine) {
  EXPECT_EQ(left_out("a", 100, 5000), 0);
  EXPECT_EQ(repeats.due_ms(), LogRepeats::kNever);
  EXPECT_EQ(left_out("a", 20, 5999), 20);
  EXPECT_EQ(repeats.due_ms(), 6000);
  EXPECT_EQ(take(5999), 0u);
  EXPECT_FALSE(repeats.leaves_out(1, "a", 6000));  // the second is over
  EXPECT_EQ(take(6000), 20u);
  EXPECT_TRUE(summary.is_last);
  repeats.wrote();
  EXPECT_EQ(left_out("a", 99, 6500), 0);
  // As many kinds as are counted, in turns.
  constexpr int kKinds = 256;
  int kinds_left_out = 0;
  for (int turn = 0; turn < 150; ++turn) {
    for (int kind = 0; kind < kKinds; ++kind) kinds_left_out += left_out(std::to_string(kind), 1, 7000);
  }
  EXPECT_EQ(kinds_left_out, kKinds * 50);
  for (int kind = 0; kind < kKinds; ++kind) EXPECT_EQ(take(8000), 50u);
  EXPECT_EQ(take(8000), 0u);
  EXPECT_EQ(repeats.due_ms(), LogRepeats::kNever);
}

TEST(LogPatience, WaitsASecondInAnyTen) {
  constexpr int64_t kMs = 1000000;
  LogPatience patience;
  const auto waited = [&patience](int64_t start_ms, int64_t end_ms) {
    patience.waited(start_ms * kMs, end_ms * kMs);
    return patience.left_ms(end_ms * kMs);
  };
  EXPECT_EQ(patience.left_ms(5 * kMs), 1000);
  EXPECT_EQ(waited(20000, 20400), 600);
  EXPECT_EQ(waited(28900, 29400), 100);
  EXPECT_EQ(waited(29900, 30000), 0);
  EXPECT_EQ(patience.left_ms(30999 * kMs), 0);
  EXPECT_EQ(patience.left_ms(31000 * kMs), 400);  // the first wait was more than ten seconds ago
  EXPECT_EQ(patience.left_ms(38999 * kMs), 400);
  EXPECT_EQ(patience.left_ms(40000 * kMs), 1000);
  EXPECT_EQ(waited(40000, 41500), 0);  // the system was late
}

}  // namespace
