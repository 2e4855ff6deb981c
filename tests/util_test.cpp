#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <climits>
#include <csignal>
#include <ctime>

#include "device/event_line.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/exe_dir.h"
#include "util/quiet_write.h"
#include "util/safe_text.h"
#include "util/socket.h"
#include "util/text.h"

namespace {

TEST(QueryField, FirstMatchingItemDecides) {
  const struct {
    const char *text, *key;
    int max, result;
    const char* value;
  } rows[] = {
      {"cmd=type&test=33&data=aaa", "data=", 3, 25, "aaa"},
      {"a=1&a=2", "a=", 63, 3, "1"},      // the first wins
      {"a=long&a=2", "a=", 1, -2, ""},    // also when it is too long
      {"x=a=b&y=1", "x=", 63, 5, "a=b"},  // "=" inside a value
      {"&&a=1", "a=", 63, 5, "1"},        // empty items
      {"a", "a=", 63, -1, ""},            // key longer than the item
      {"a=&b=1", "a=", 63, 2, ""},        // an empty value
      {"ab=1&b=2", "b=", 63, 8, "2"},     // the key inside an item
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.key << " in " << row.text);
    char out[64] = "left over";
    EXPECT_EQ(query_field(row.text, row.key, out, row.max), row.result);
    EXPECT_STREQ(out, row.value);
  }
}

TEST(EventLine, GoodAndBadLines) {
  const std::string name_127(127, 'n');
  const std::pair<std::string, std::string> rows[] = {
      // a line, and the error or "type|name|info"
      {"-2147483648 n", "-2147483648|n|"},
      {"1 door  two blanks\t\x01", "1|door| two blanks\t\x01"},
      {"1 " + name_127 + " ", "1|" + name_127 + "|"},
      {"1 " + name_127 + "n", "the name is longer than 127 bytes"},
      {"", "the line is empty"},
      {"7", "the name is missing"},
      {"7door x", "the type is not a whole number"},
      {"+1 door", "the type is not a whole number"},
      {"2147483648 door", "the type is out of range"},
      {"1 do\tor", "the name holds a blank or a control character"},
      {std::string("1 door a\0b", 10), "the line holds a zero byte"},
      {"1 n " + std::string(64996, 'x'), "1|n|" + std::string(64996, 'x')},
      {"1 n " + std::string(64997, 'x'), "the line is longer than 65000 bytes"},
  };
  for (const auto& [line, wanted] : rows) {
    SCOPED_TRACE(line.substr(0, 40));
    EventLine event{};
    const char* error = parse_event_line(line, event);
    const std::string parts = sstr("%d|", event.type) + std::string(event.name) + "|" + std::string(event.info);
    EXPECT_EQ(error == nullptr ? parts : error, wanted);
  }
}

TEST(SafeText, ReadsNothingBehindItsEnd) {
  EXPECT_EQ(escaped(std::string_view("\xe9\x96\x80", 2)), "\\xe9\\x96");
}

TEST(Clock, WrapsInThirtyTwoBits) {
  EXPECT_EQ(clock_ms(1000000000, 500000), -727379468);
  EXPECT_EQ(ms_between(INT_MAX, INT_MIN), 1);
}

TEST(QuietWrite, TakesAwayItsOwnSignalAndNoOther) {
  const auto is_pending = [] {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
  };
  sigset_t pipe_only;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_only, nullptr);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  EXPECT_FALSE(write_quietly(ends[1], "x"));
  EXPECT_FALSE(is_pending());
  raise(SIGPIPE);
  EXPECT_FALSE(write_quietly(ends[1], "x"));
  EXPECT_TRUE(is_pending());
  const timespec at_once{};
  sigtimedwait(&pipe_only, nullptr, &at_once);
  pthread_sigmask(SIG_UNBLOCK, &pipe_only, nullptr);
  close(ends[1]);
}

TEST(ExeDir, Rule) {
  const std::pair<const char*, const char*> rows[] = {
      {"/usr/bin/zelvind", "/usr/bin"}, {"/a/zelvind", "/a/"}, {"/zelvind", ""}, {"/a/", "/a/"}, {"zelvind", "zelvind"},
  };
  for (const auto& [path, wanted] : rows) EXPECT_EQ(exe_dir_of(path), wanted) << path;
}

TEST(Socket, ListensOnPortsAlone) {
  EXPECT_EQ(fcntl(Descriptor(sock_listen_tcp(0)).get(), F_GETFD), FD_CLOEXEC);
  for (const int port : {-1, 65536}) EXPECT_EQ(sock_listen_tcp(port), SOCK_ERR_BIND);
}

TEST(Socket, WaitsAndSendsOnAnyDescriptor) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const Descriptor near(ends[0]);
  Descriptor far(fcntl(ends[1], F_DUPFD_CLOEXEC, 1500));  // beyond what a descriptor set holds
  close(ends[1]);
  EXPECT_EQ(sock_wait_readable(far.get(), -1), 0);
  EXPECT_EQ(sock_send_all(near.get(), "abc", 3, 0), 0);
  EXPECT_EQ(sock_send_all(near.get(), "abc", 3, 1000), 3);
  EXPECT_EQ(sock_wait_readable(far.get(), -1), 1);
  for (const int none : {-1, 4000}) EXPECT_EQ(sock_wait_readable(none, 10000), SOCK_ERR_SELECT);

  const std::vector<char> much(4 << 20);
  const uint32_t start = sock_now_ms();
  const clock_t used = clock();
  const int sent = sock_send_all(near.get(), much.data(), static_cast<int>(much.size()), 300);
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, 4 << 20);
  EXPECT_GE(sock_now_ms() - start, 300u);
  EXPECT_LT(sock_now_ms() - start, 1000u);
  EXPECT_LT(clock() - used, CLOCKS_PER_SEC * 3 / 20);  // it waits, and does not spin
  EXPECT_EQ(sock_send_ready(near.get(), much.data(), 1000), 0);

  signal(SIGPIPE, SIG_IGN);
  far.reset();
  EXPECT_EQ(sock_send_all(near.get(), "abc", 3, 3000), SOCK_ERR_SEND);
}

}  // namespace
