// zelvctl post and listen, as programs, and the parts of zelvctl that need a worse daemon than the real one.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>

#include "ctl/client_packet.h"
#include "ctl/event_connection.h"
#include "ctl/event_text.h"
#include "ctl/failure.h"
#include "ctl/supervise.h"
#include "tests/real_daemon.h"
#include "util/descriptor.h"
#include "util/text.h"
#include "util/unix_socket.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

// The daemon's side of the event socket, played by the test.
struct EventSocket : RealDaemon {
  EventSocket() {
    fs::create_directories(path("run/zelvind"));
    EXPECT_EQ(unix_bind(listening.get(), socket_path), 0);
    EXPECT_EQ(listen(listening.get(), 8), 0);
  }
  Descriptor next_poster() const { return Descriptor(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC)); }

  const std::string socket_path = path("run/zelvind/events.sock");
  const Descriptor listening{unix_stream_socket()};
};

std::string everything_from(const Descriptor& fd) {
  std::string all;
  char bytes[65536];
  for (ssize_t got = 0; (got = recv(fd.get(), bytes, sizeof(bytes), 0)) > 0;)
    all.append(bytes, static_cast<size_t>(got));
  return all;
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

TEST(Zelvctl, RefusesWrongArgumentsAndSaysWhatCannotBeReached) {
  const std::pair<const char*, const char*> rows[] = {
      {"",
       "expected a command: post, listen, tail, top, check, reload, run, status, scripts, metrics, uplink or "
       "log-level\nTry: zelvctl --help"},
      {"post", "TYPE is required\nTry: zelvctl post --help"},
      {"post '1 a' a", "TYPE '1 a', NAME 'a': the type is not a whole number"},
      {"post 1 'a b'", "NAME 'a b': the name holds a blank or a control character"},
      {"run a", "run: put the daemon's arguments behind --, as in: zelvctl run -- -p FILE"},
      {"post 1 a x", "'x' is not FIELD=VALUE"},
      {"post 1 a =x", "'=x': the field's name is missing"},
      {"post 1 a 'x&y=1'", "field 'x&y': a field's name cannot contain '&'"},
      {"post 1 a 'x=1&y=2'", "field 'x': a field's value cannot contain '&'"},
      {"post 1 a 'x=1\n2'", "field 'x': a field cannot contain a line end"},
      {"post 1 a x=$(printf %065000d 0)", "TYPE '1', NAME 'a': the line is longer than 65000 bytes"},
      {"post 9999 a", "type 9999 ends the daemon's event loop; add --quit if that is meant"},
      {"post - a", "post -: events come from standard input, not as arguments"},
      {"post 1 a --root x", "--root is 'x': expected an absolute path"},
      {"listen a ''", "NAME '': the name is missing"},
      {"listen [a,b]", "NAME '[a,b]': a name to subscribe to cannot contain a comma"},
      {"listen a --port 0", "--port: Value 0 not in range 1 to 65535\nTry: zelvctl listen --help"},
      {"listen a --socket /s --port 5512", "--socket takes the place of --host and --port: leave them out"},
      {"listen a --socket ''", "--socket is '': expected the path of a Unix socket"},
      {"listen a --socket $ROOT/none", "no daemon at ROOT/none: No such file or directory"},
      {"listen a", "no daemon at ROOT/run/zelvind/control.sock: No such file or directory"},
      {"listen a --host 127.0.0.1", "listener_port is 0 in the settings; give the daemon's port with --port"},
      {"--root /none post 1 a", "no daemon at /none/run/zelvind/events.sock: No such file or directory"},
      {"--root /none listen a --host 224.0.0.1", "no daemon at 224.0.0.1:5512: Network is unreachable"},
      {"--root $ROOT/set listen a --host 224.0.0.1", "no daemon at 224.0.0.1:1234: Network is unreachable"},
      {"--root $ROOT/set listen a", "no daemon at 127.0.0.9:1234: Connection refused"},
      {"--root $ROOT/unix listen a", "no daemon at ROOT/unix/s: No such file or directory"},
      {"--root $ROOT/no listen a", "the daemon lets no client connect: see listener_address in its settings"},
  };
  const RealDaemon daemon;
  const std::string settings = "/opt/flash/mtd4-cfg/zelvind.info";
  daemon.write("set" + settings, "listener_port = 1234\nlistener_address = /s,192.0.2.1,127.0.0.9\n");
  daemon.write("unix" + settings, "listener_address = /s\n");
  daemon.write("no" + settings, "listener_address = none\n");
  for (const auto& [arguments, error] : rows) {
    const bool is_unreachable = error == strstr(error, "no daemon") || error == strstr(error, "the daemon lets no");
    const int status = is_unreachable ? 1 : 2;
    daemon.expect_zelvctl(arguments, status, "", "zelvctl: "s + error + "\n");
  }
}

TEST(Zelvctl, PostsWhatALineCarries) {
  const EventSocket daemon;
  std::string many;
  for (size_t i = 0; many.size() < 500000; ++i) many += "1 n " + std::string(i % 2000, 'x') + "\n";
  const struct {
    std::string arguments, input, arrived, error;
  } rows[] = {
      {"-3 listen -- a=b=c [x=1,y] -z=", "", "-3 listen a=b=c&[x=1,y]&-z=\n", ""},
      {"--quit 9999 bye", "", "9999 bye\n", ""},
      {"-", "", "", ""},
      {"-", many, many, ""},
      {"-", "1 a\n2 b c=d", "1 a\n2 b c=d\n", ""},
      {"-", "1 a\n\n3 c\n", "1 a\n", "line 2: the line is empty; events sent before it: 1"},
      {"-", "1 a\n2 b\nx", "1 a\n2 b\n", "line 3: the type is not a whole number; events sent before it: 2"},
      {"-", "1 a\n2 " + std::string(200000, 'b'), "1 a\n",
       "line 2: the line is longer than 65000 bytes; events sent before it: 1"},
      {"-", "1 a\n9999 b\n", "1 a\n",
       "line 2: type 9999 ends the daemon's event loop; add --quit if that is meant; events sent before it: 1"},
      {"- --quit", "9999 b\n", "9999 b\n", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error + row.arrived.substr(0, 40));
    daemon.write("in", row.input);
    auto arrived = std::async(std::launch::async, [&] { return everything_from(daemon.next_poster()); });
    daemon.expect_zelvctl("post " + row.arguments + " <$ROOT/in", row.error.empty() ? 0 : 2, "",
                          row.error.empty() ? "" : "zelvctl: " + row.error + "\n");
    EXPECT_EQ(arrived.get(), row.arrived);
  }
}

TEST(Zelvctl, ListensForExactlyTheNamesAskedFor) {
  RealDaemon daemon;
  const auto has = [&](const char* file, const char* part) {
    return wait_until([&] { return read_file(daemon.path(file)).find(part) != std::string::npos; });
  };
  ASSERT_TRUE(daemon.start());
  const std::string listen = "zelvctl listen door or --port " + std::to_string(daemon.port());
  daemon.launch("mkfifo $ROOT/go; (" + listen + " 2>&1; echo $?) | (: <$ROOT/go; cat) >$ROOT/plain &");
  daemon.launch("(" + listen + " >$ROOT/json --json --count 2; echo $? >>$ROOT/json) &");
  daemon.launch("(" + listen + " 2>$ROOT/unread; echo $? >>$ROOT/unread) | true");
  ASSERT_TRUE(daemon.wait_for("set as [or,door]", 3));
  const std::string large(60000, 'x');  // several, for one who cannot write meanwhile, are more than one read gives
  EXPECT_TRUE(
      daemon.post("1 xdoor\n1 do\n1 door a=1\n1 or " + large + "\n1 or " + large + "\n1 or " + large + "\n1 or\n"));
  EXPECT_TRUE(daemon.wait_for("event(or) - \n"));
  daemon.write("go", "");
  EXPECT_TRUE(has("plain", " or\n"));
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_TRUE(has("plain", "\n1\n") && has("json", "\n0\n"));
  EXPECT_EQ(daemon.launch("sed -i 's/^[0-9.]* //; s/[0-9]*[.][0-9]*/T/' $ROOT/plain $ROOT/json"), 0);
  EXPECT_EQ(read_file(daemon.path("plain")), "door a=1\nor " + large + "\nor " + large + "\nor " + large +
                                                 "\nor\nzelvctl: the daemon closed the connection\n1\n");
  EXPECT_EQ(read_file(daemon.path("json")), R"({"time":T,"name":"door","fields":{"a":"1"}})"
                                            "\n"
                                            R"({"time":T,"name":"or","fields":{")" +
                                                large + "\":\"\"}}\n0\n");
  EXPECT_EQ(read_file(daemon.path("unread")), "zelvctl: failed to write the output: its reader has gone\n1\n");
}

TEST(Zelvctl, FindsTheDaemonAtItsUnixSocket) {
  RealDaemon daemon;
  ASSERT_TRUE(
      daemon.start("printf 'listener_address = /run/zelvind/l.sock\n' >>$ROOT/opt/flash/mtd4-cfg/zelvind.info;"
                   "umask 0; $ZELVIND -p $ROOT/pid >/dev/null 2>>$ROOT/stderr"));
  daemon.launch(
      "zelvctl listen --count 1 door >$ROOT/out 2>&1 &"
      "cd $ROOT/run; zelvctl listen --count 1 door --socket zelvind/l.sock >$ROOT/out2 2>&1 &");
  ASSERT_TRUE(daemon.wait_for("set as [door]", 2));
  EXPECT_EQ(daemon.launch("zelvctl status >$ROOT/status"), 0);
  const std::string status = daemon.text_of("status");
  EXPECT_NE(status.find("\nlistener    at /run/zelvind/l.sock, for this machine only, 2 clients"), std::string::npos);
  EXPECT_NE(status.find(sstr(" of user %u) subscribed, 0 sent: door", getuid())), std::string::npos) << status;
  EXPECT_TRUE(daemon.post("1 door a=1\n"));
  EXPECT_TRUE(daemon.wait_for("delete client", 2));
  for (const char* const file : {"out", "out2"}) {
    EXPECT_TRUE(wait_until([&] { return read_file(daemon.path(file)).find(" door a=1\n") != std::string::npos; }));
  }
  EXPECT_EQ(daemon.stop(), 0);
}

TEST(EventConnection, SaysHowTheDaemonFailed) {
  using Connection = EventConnection;
  const std::pair<const char*, std::function<void(Connection&, Descriptor&)>> rows[] = {
      {"1 the daemon has read nothing for 0.4 s; it may still handle the events, and posting them again may double "
       "them",
       [](Connection& c, auto&) { c.send(std::string(4000000, 'x')); }},
      {"1 the daemon has read nothing for 0.4 s; it may still handle the events, and posting them again may double "
       "them",
       [](Connection& c, auto&) { c.send("1 a\n"), c.finish(true); }},
      {"1 the daemon has read everything and then been busy for 0.4 s; it may still handle the events, and posting "
       "them again may double them",
       [](Connection& c, Descriptor& d) {
         c.send("1 a\n"), recv(d.get(), std::array<char, 8>().data(), 8, 0), c.finish(false);
       }},
      {"1 the daemon went away: Broken pipe", [](Connection& c, Descriptor& d) { d.reset(), c.send("1 a\n"); }},
      {"1 the daemon went away before it took in everything: Connection reset by peer",
       [](Connection& c, Descriptor& d) { c.send("1 a\n"), d.reset(), c.finish(false); }},
      {"no failure",  // the loop has ended: the line was read, and nobody closes
       [](Connection& c, Descriptor& d) {
         c.send("9999 q\n"), recv(d.get(), std::array<char, 8>().data(), 8, 0), c.finish(true);
       }},
      {"no failure",  // all of it fits at once, and takes longer than the limit
       [](Connection& c, Descriptor& d) {
         c.send(std::string(160000, 'x'));
         const auto slow = std::async(std::launch::async, [&d] {
           std::vector<char> bytes(32000);
           do {
             std::this_thread::sleep_for(std::chrono::milliseconds(150));
           } while (recv(d.get(), bytes.data(), bytes.size(), 0) > 0);
           d.reset();
         });
         c.finish(false);
       }},
      {"1 the daemon closed the connection",
       [](Connection& c, Descriptor& d) { d.reset(), c.wait_for_input(d.get()); }},
      {"1 the event socket has sent something: what listens there is not the daemon",
       [](Connection& c, Descriptor& d) { c.send("1 a\n"), send(d.get(), "", 1, 0), c.finish(false); }},
  };
  const EventSocket daemon;
  for (const auto& [error, action] : rows) {
    SCOPED_TRACE(error);
    EventConnection connection(daemon.socket_path, 400);
    Descriptor daemon_side = daemon.next_poster();
    EXPECT_EQ(failure_of([&, &act = action] { act(connection, daemon_side); }), error);
  }
}

TEST(ClientPacket, HoldsItsLimits) {
  std::vector<std::string> names;
  for (int i = 1000; i < 1507; ++i) names.push_back(std::to_string(i) + std::string(123, 'x'));
  names.emplace_back(119, 'y');
  EXPECT_EQ(subscription_packet(names).size(), 65024u);
  names.back() += 'y';
  EXPECT_EQ(failure_of([&] { subscription_packet(names); }),
            "2 the names are too long: expected at most 65015 bytes together, commas included");

  const std::pair<std::string, const char*> rows[] = {
      {"\x0d\0\0\0"s, "its length is 13"},
      {"\xff\xff\xff\xff", "its length is 4294967295"},
      {"\x0f\0\0\0--------abc"s, "its name does not end"},
      {"\x10\0\0\0--------a\0bc"s, "its info does not end where the packet does"},
      {"\x12\0\0\0--------a\0b\0d\0"s, "its info does not end where the packet does"},
  };
  for (const auto& [packet, why] : rows) {
    EXPECT_EQ(failure_of([&, &packet = packet] { first_packet(packet); }),
              "1 the server sent something that is not an event packet: "s + why);
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
    const ReceivedEvent event{0, 3000000000, 1234, "door", row.info};  // in 2065
    EXPECT_EQ(plain_text(event), "3000000000.001234 door" + row.plain + "\n");
    EXPECT_EQ(json_text(event), R"({"time":3000000000.001234,"name":"door","fields":)" + row.fields + "}\n");
  }
}

// The daemon is played by a shell script that detaches alike; it asks for the stop itself, and then does not listen.
TEST(Supervise, KillsWhatDoesNotStop) {
  const RealDaemon root;
  const std::string program = root.path("zelvind");
  EXPECT_EQ(failure_of([&] { supervise(program, {}); }),
            "1 failed to start " + program + ": No such file or directory");
  const char* const detached = "(trap '%s' TERM; kill -TERM $1; while kill -0 $1; do sleep 0.02; done) &";
  const std::pair<std::string, const char*> rows[] = {
      {sstr(detached, ""), "was ended by signal 9"},
      {sstr(detached, "exit 3"), "has ended with status 3"},
      {"exit 0", "ended without starting a daemon"},
  };
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const Descriptor reader(ends[0]);
  const Descriptor full_pipe(ends[1]);
  EXPECT_EQ(write(full_pipe.get(), std::string(65536, '\0').data(), 65536), 65536);
  for (const auto& [script, failure] : rows) {
    root.write("zelvind", "#!/bin/sh\n" + script + "\n");
    fs::permissions(program, fs::perms::owner_all);
    const auto run = [&] { supervise(program, {std::to_string(getpid())}, 200); };
    const auto run_unread = [&] {  // nobody reads standard error until it has ended
      alarm(20);
      const Descriptor standard_error(dup(STDERR_FILENO));
      dup2(full_pipe.get(), STDERR_FILENO);
      const std::string told = failure_of(run);
      dup2(standard_error.get(), STDERR_FILENO);
      fputs(told.c_str(), stderr);
      _exit(0);
    };
    EXPECT_EXIT(run_unread(), testing::ExitedWithCode(0), failure);
  }
}

}  // namespace
