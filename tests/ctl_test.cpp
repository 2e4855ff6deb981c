#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "ctl/client_packet.h"
#include "ctl/event_connection.h"
#include "ctl/event_text.h"
#include "ctl/failure.h"
#include "ctl/listen.h"
#include "ctl/post.h"
#include "ctl/script_watch.h"
#include "ctl/supervise.h"
#include "device/event_source.h"
#include "tests/standin_device.h"
#include "util/descriptor.h"
#include "util/socket.h"
#include "util/text.h"
#include "util/unix_socket.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

std::string content_of(int file) {
  std::string content(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
  EXPECT_EQ(pread(file, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  return content;
}

int memory_file(const std::string& content = "") {
  const int file = memfd_create("ctl_test", MFD_CLOEXEC);
  EXPECT_EQ(pwrite(file, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  return file;
}

// One run of the real program, from the constructor to wait().
class Program {
 public:
  explicit Program(std::vector<std::string> arguments, const std::string& input = "", int output_to = -1)
      : in(memory_file(input)), out(memory_file()), err(memory_file()) {
    arguments.insert(arguments.begin(), "zelvctl");
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in.get(), 0);
    posix_spawn_file_actions_adddup2(&actions, output_to >= 0 ? output_to : out.get(), 1);
    posix_spawn_file_actions_adddup2(&actions, err.get(), 2);
    EXPECT_EQ(posix_spawn(&process, ZELVCTL, &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
  }

  // Waits for its end; the exit status, or minus the signal that ended it, and what it wrote.
  void expect_end(int wanted, const std::string& errors, const std::string& output = "") {
    int status = 0;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), wanted);
    EXPECT_EQ(content_of(err.get()), errors.empty() ? "" : "zelvctl: " + errors + "\n");
    EXPECT_EQ(content_of(out.get()), output);
  }

 private:
  Descriptor in, out, err;
  pid_t process = -1;
};

std::string everything_from(int fd) {
  std::string all;
  char bytes[65536];
  for (ssize_t got; (got = recv(fd, bytes, sizeof(bytes), 0)) > 0;) all.append(bytes, static_cast<size_t>(got));
  return all;
}

// The daemon's side of the event socket, below a root of its own.
struct EventSocket {
  EventSocket() {
    fs::create_directories(root + "/run/zelvind");
    EXPECT_EQ(unix_bind(listening.get(), path), 0);
    EXPECT_EQ(listen(listening.get(), 8), 0);
  }
  ~EventSocket() { fs::remove_all(root); }
  Descriptor next_poster() const { return Descriptor(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC)); }

  const std::string root = testing::TempDir() + "ctl_test_" + std::to_string(getpid());
  const std::string path = root + kEventSocketPath;
  const Descriptor listening{unix_stream_socket()};
};

// The daemon's side of the listener: takes one subscription, hands `bytes` out one at a time, and hangs up.
struct Forwarder {
  Forwarder(size_t subscription_size, const std::string& bytes) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    EXPECT_EQ(getsockname(listening.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    port = ntohs(address.sin_port);
    subscription = std::async(std::launch::async, [this, subscription_size, bytes] {
      const Descriptor client(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
      std::string received(subscription_size, '\0');
      recv(client.get(), received.data(), received.size(), MSG_WAITALL);
      for (const char byte : bytes) send(client.get(), &byte, 1, MSG_NOSIGNAL);
      shutdown(client.get(), SHUT_WR);
      everything_from(client.get());  // a close with something unread would be a reset
      return received;
    });
  }

  const Descriptor listening{sock_listen_tcp(0)};
  int port;
  std::future<std::string> subscription;  // what the client sent, once it has hung up
};

std::string packet(const std::string& name, const std::string& info, const std::string& size = "") {
  const std::string own_size = {static_cast<char>(14 + name.size() + info.size()), 0, 0, 0};
  return (size.empty() ? own_size : size) + "\x04\x03\x02\x01\x40\x0d\x03\x00"s + name + '\0' + info + '\0';
}

// "STATUS sentence" of the Failure that `action` throws.
std::string failure_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const Failure& failure) {
    return std::to_string(static_cast<int>(failure.status)) + " " + failure.what();
  }
  return "no failure";
}

TEST(Zelvctl, RefusesWrongArguments) {
  const std::pair<std::vector<std::string>, const char*> rows[] = {
      {{}, "say post, listen, check, reload or run\nTry: zelvctl --help"},
      {{"bogus"}, "The following argument was not expected: bogus\nTry: zelvctl --help"},
      {{"post"}, "TYPE is required\nTry: zelvctl post --help"},
      {{"post", "1 a", "a"}, "TYPE '1 a', NAME 'a': the type is no whole number"},
      {{"post", "1", ""}, "NAME '': the name is missing"},
      {{"post", "1", "a b"}, "NAME 'a b': the name holds a blank or a control character"},
      {{"post", "1", "a", "x"}, "'x' is no FIELD=VALUE"},
      {{"post", "1", "a", "=x"}, "'=x' names no field"},
      {{"post", "1", "a", "x&y=1"}, "field 'x&y': a name cannot hold an '&'"},
      {{"post", "1", "a", "x=1&y=2"}, "field 'x': a value cannot hold an '&'"},
      {{"post", "1", "a", "x=1\n2"}, "field 'x': a field cannot hold a line end"},
      {{"post", "1", "a", "x=" + std::string(65000, 'y')}, "TYPE '1', NAME 'a': the line is longer than 65000 bytes"},
      {{"post", "9999", "a"}, "type 9999 ends the daemon's event loop; add --quit if that is meant"},
      {{"post", "-", "a"}, "post -: the events come from standard input, not as arguments"},
      {{"post", "1", "a", "--root", "x"}, "--root is 'x'; it must be an absolute path"},
      {{"listen"}, "NAME is required\nTry: zelvctl listen --help"},
      {{"listen", "a", ""}, "NAME '': the name is missing"},
      {{"listen", "[a,b]"}, "NAME '[a,b]': a name to listen for cannot hold a comma"},
      {{"listen", "a", "--port", "0"}, "--port: Value 0 not in range 1 to 65535\nTry: zelvctl listen --help"},
      {{"listen", "a", "--count", "x"},
       "--count: Value x not in range 1 to 9223372036854775807\nTry: zelvctl listen --help"},
  };
  for (const auto& [arguments, error] : rows) {
    SCOPED_TRACE(error);
    Program(arguments).expect_end(2, error);
  }
}

TEST(Zelvctl, PostsWhatALineCarries) {
  const EventSocket daemon;
  std::string many;
  for (size_t i = 0; many.size() < 500000; ++i) many += "1 n " + std::string(i % 2000, 'x') + "\n";
  const std::string endless = "2 " + std::string(200000, 'b');
  const std::string quit_refused = "type 9999 ends the daemon's event loop; add --quit if that is meant";
  const struct {
    std::vector<std::string> arguments;
    std::string input, arrived, error;
  } rows[] = {
      {{"-3", "listen", "a=b=c", "[x=1,y]", "z="}, "", "-3 listen a=b=c&[x=1,y]&z=\n", ""},
      {{"--quit", "9999", "bye"}, "", "9999 bye\n", ""},
      {{"-"}, "", "", ""},
      {{"-"}, many, many, ""},
      {{"-"}, "1 a\n2 b c=d", "1 a\n2 b c=d\n", ""},
      {{"-"}, "1 a\n\n3 c\n", "1 a\n", "line 2: the line is empty"},
      {{"-"}, "1 a\n2 b\nx", "1 a\n2 b\n", "line 3: the type is no whole number"},
      {{"-"}, "1 a\n" + endless, "1 a\n", "line 2: the line is longer than 65000 bytes"},
      {{"-"}, "1 a\n9999 b\n", "1 a\n", "line 2: " + quit_refused},
      {{"-", "--quit"}, "9999 b\n", "9999 b\n", ""},
  };
  for (auto row : rows) {
    SCOPED_TRACE(row.error + row.arrived.substr(0, 40));
    row.arguments.insert(row.arguments.begin(), {"--root", daemon.root, "post"});
    Program program(row.arguments, row.input);
    EXPECT_EQ(everything_from(daemon.next_poster().get()), row.arrived);
    program.expect_end(row.error.empty() ? 0 : 2, row.error);
  }
  Program({"--root", "/none", "post", "1", "a"})
      .expect_end(1, "no daemon at /none/run/zelvind/events.sock: No such file or directory");
}

TEST(EventConnection, SaysHowTheDaemonFailed) {
  const EventSocket daemon;
  using Connection = EventConnection;
  const std::string much(4000000, 'x');
  const std::pair<const char*, std::function<void(Connection&, Descriptor&)>> rows[] = {
      {"1 the daemon has taken in nothing for 0.1 s", [&](Connection& c, Descriptor&) { c.send(much); }},
      {"1 the daemon has taken in nothing for 0.1 s", [](Connection& c, auto&) { c.send("1 a\n"), c.finish(true); }},
      {"1 the daemon went away: Broken pipe", [](Connection& c, Descriptor& d) { d.reset(), c.send("1 a\n"); }},
      {"1 the daemon went away before it took in everything: Connection reset by peer",
       [](Connection& c, Descriptor& d) { c.send("1 a\n"), d.reset(), c.finish(false); }},
      {"no failure",  // the loop has ended: the line was read, and nobody closes
       [](Connection& c, Descriptor& d) {
         c.send("9999 q\n"), recv(d.get(), std::array<char, 8>().data(), 8, 0), c.finish(true);
       }},
      {"1 the daemon closed the connection",
       [](Connection& c, Descriptor& d) { d.reset(), c.wait_for_input(memory_file()); }},
  };
  for (const auto& [error, action] : rows) {
    SCOPED_TRACE(error);
    EventConnection connection(daemon.path, 100);
    Descriptor daemon_side = daemon.next_poster();
    EXPECT_EQ(failure_of([&, &act = action] { act(connection, daemon_side); }), error);
  }
}

TEST(EventConnection, WaitsLongerThanTheLimitForASlowDaemon) {
  const EventSocket daemon;
  EventConnection connection(daemon.path, 400);
  std::thread slow([poster = daemon.next_poster()] {
    std::vector<char> bytes(32 * 1024);
    do {
      std::this_thread::sleep_for(std::chrono::milliseconds(150));
    } while (recv(poster.get(), bytes.data(), bytes.size(), 0) > 0);
  });
  connection.send(std::string(160 * 1024, 'x'));  // all of it fits at once: the wait is for the end alone
  EXPECT_EQ(failure_of([&] { connection.finish(false); }), "no failure");
  slow.join();
}

TEST(ClientPacket, SubscribesShortestNameFirst) {
  EXPECT_EQ(subscription_packet({"adoor", "b", "door", "b"}), "\x15\0\0\0\0\0\0\0b,door,adoor\0"s);
  std::vector<std::string> names;
  for (int i = 1000; i < 1507; ++i) names.push_back(std::to_string(i) + std::string(123, 'x'));
  EXPECT_EQ(failure_of([&] { subscription_packet(names); }), "no failure");
  names.push_back("1507" + std::string(123, 'x'));
  EXPECT_EQ(failure_of([&] { subscription_packet(names); }),
            "2 the names are too long together: at most 65015 bytes, commas included");
}

TEST(ClientPacket, WaitsForTheWholeAndRefusesWhatCannotBeOne) {
  const std::string bytes = packet("ab", "c=\xff") + "more";
  for (size_t size = 0; size < 19; ++size) EXPECT_FALSE(first_packet(bytes.substr(0, size)));
  const ReceivedEvent event = first_packet(bytes).value();
  EXPECT_EQ(std::tie(event.size, event.seconds, event.microseconds, event.name, event.info),
            std::make_tuple(19u, 0x01020304, 200000, "ab", "c=\xff"));
  const std::pair<std::string, const char*> rows[] = {
      {"\0\0\0\0"s, "its length is 0"},
      {"\x0d\0\0\0"s, "its length is 13"},
      {"\xff\xff\xff\xff", "its length is 4294967295"},
      {packet("abc", "", "\x0f\0\0\0"s), "its name does not end"},
      {packet("a", "bcd", "\x10\0\0\0"s), "its info does not end where the packet does"},
      {packet("a", "b\0d"s), "its info does not end where the packet does"},
  };
  for (const auto& [packet, why] : rows) {
    EXPECT_EQ(failure_of([&, &packet = packet] { first_packet(packet); }), "1 what came is no event packet: "s + why);
  }
}

TEST(EventText, BearsAnyBytes) {
  const struct {
    std::string info, plain, fields;
  } rows[] = {
      {"", "", "{}"},
      {"state=open&by=a b", " state=open&by=a b", R"({"by":"a b","state":"open"})"},
      {"a=1&a=2&b&&a&=x&c=d=e", " a=1&a=2&b&&a&=x&c=d=e", R"({"":"x","a":"1","b":"","c":"d=e"})"},
      {"a=\x1b[2J\n\x7f\t", R"( a=\x1b[2J\n\x7f\t)", "{\"a\":\"\\u001b[2J\\n\x7f\\t\"}"},
      {"a=\xc2\x9b\xc3\x9b\xff", " a=\\xc2\\x9b\xc3\x9b\\xff", "{\"a\":\"\xc2\x9b\xc3\x9b\xef\xbf\xbd\"}"},
  };
  for (const auto& row : rows) {
    const ReceivedEvent event{0, 1795375593, 1234, "door", row.info};
    EXPECT_EQ(plain_text(event), "1795375593.001234 door" + row.plain + "\n");
    EXPECT_EQ(json_text(event), R"({"time":1795375593.001234,"name":"door","fields":)" + row.fields + "}\n");
  }
}

TEST(Listen, TakesThePortFromTheConfiguration) {
  standin::reset();
  EXPECT_EQ(configured_port(), 5512);
  standin::set("log_level", "3");
  EXPECT_EQ(configured_port(), 5512);
  standin::set("listener_port", "1234");
  EXPECT_EQ(configured_port(), 1234);
  standin::set("listener_port", "0");
  EXPECT_EQ(failure_of([] { configured_port(); }),
            "2 the configuration says listener_port = 0; give the daemon's port with --port");
  EXPECT_EQ(standin::handles_open(), 0);
}

TEST(Listen, PrintsExactlyTheNamesAskedFor) {
  const std::string events = packet("xdoor", "") + packet("do", "") + packet("door", "a=1") + packet("b", "");
  const std::string subscription = subscription_packet({"b", "door"});
  const std::string door = "16909060.200000 door a=1\n", b = "16909060.200000 b\n";
  const std::string json = R"({"time":16909060.2,"name":"door","fields":{"a":"1"}})";
  const struct {
    std::vector<std::string> options;
    std::string bytes, output, error;
  } rows[] = {
      {{"--count", "2"}, events + events, door + b, ""},
      {{"--json", "--count", "1"}, events, json + "\n", ""},
      {{}, events + events, door + b + door + b, "the daemon closed the connection"},
      {{}, events + "\x01\0\0\0"s, door + b, "what came is no event packet: its length is 1"},
  };
  for (auto row : rows) {
    SCOPED_TRACE(row.output + row.error);
    Forwarder daemon(subscription.size(), row.bytes);
    row.options.insert(row.options.begin(), {"listen", "--port", std::to_string(daemon.port), "door", "b"});
    Program(row.options).expect_end(row.error.empty() ? 0 : 1, row.error, row.output);
    EXPECT_EQ(daemon.subscription.get(), subscription);
  }
}

TEST(Listen, EndsWhenNobodyReadsItsOutput) {
  Forwarder daemon(subscription_packet({"a"}).size(), packet("a", ""));
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[0]);
  Program program({"listen", "--port", std::to_string(daemon.port), "a"}, "", ends[1]);
  close(ends[1]);
  program.expect_end(1, "cannot write the output: its reader has gone");
}

TEST(ScriptWatch, WakesForScriptsOnly) {
  const fs::path root = testing::TempDir() + "ctl_test_watch_" + std::to_string(getpid());
  const fs::path script = root / "scripts" / "a.lua";
  fs::create_directories(root / "scripts");
  const auto write = [](const fs::path& path) { std::ofstream(path) << "return"; };
  const std::function<void()> changes[] = {
      [&] { write(script); },
      [&] { fs::rename(script, root / "b.lua"); },
      [&] { fs::rename(root / "b.lua", script); },
      [&] { fs::remove(script); },
  };
  ScriptWatch watch({(root / "scripts").string(), "", (root / "missing").string()});
  for (const auto& change : changes) {
    change();
    EXPECT_EQ(failure_of([&] { watch.wait_for_change(); }), "no failure");
  }
  write(root / "scripts" / "a.txt");
  fs::remove_all(root / "scripts");
  EXPECT_EQ(failure_of([&] { watch.wait_for_change(); }), "1 a script folder has gone");
  EXPECT_EQ(failure_of([&] { ScriptWatch({(root / "scripts").string()}); }), "1 there is no script folder to watch");
  fs::remove_all(root);
}

// The daemon is played by a shell script that detaches alike; it asks for the stop itself, and then does not listen.
TEST(Supervise, KillsWhatDoesNotStop) {
  const std::string root = testing::TempDir() + "ctl_test_run_" + std::to_string(getpid());
  const std::string program = root + "/zelvind";
  const auto daemon = [](const char* at_stop) {
    return sstr("(trap '%s' TERM; kill -TERM $1; while :; do sleep 0.02; done) &", at_stop);
  };
  const std::pair<std::string, std::string> rows[] = {
      {daemon(""), "was ended by signal 9"},
      {daemon("exit 3"), "has ended with status 3"},
      {daemon("exit 0"), "no failure"},
      {"exit 0", program + " has started no daemon"},
      {"", "1 cannot start " + program + ": No such file or directory"},
  };
  for (const auto& [script, failure] : rows) {
    SCOPED_TRACE(failure);
    fs::create_directories(root);
    if (!script.empty()) std::ofstream(program) << "#!/bin/sh\n" << script << "\n";
    if (!script.empty()) fs::permissions(program, fs::perms::owner_all);
    const Descriptor output(memory_file());
    const pid_t child = fork();
    if (child == 0) {
      const std::string text = failure_of([&] { supervise(program, {std::to_string(getpid())}, 200); });
      _exit(write(output.get(), text.data(), text.size()) < 0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_NE(content_of(output.get()).find(failure), std::string::npos) << content_of(output.get());
    fs::remove_all(root);
  }
}

}  // namespace
