// The trial of a reload, with a script manager whose event loop runs.

#include "script/reload_trial.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>
#include <thread>

#include "tests/script_fixture.h"

namespace {

namespace fs = std::filesystem;

size_t open_descriptors() {
  return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

class Trial : public ScriptFixture {
 protected:
  // The loop runs, with a timer, a task and a handler that says who it is.
  void SetUp() override {
    write("scripts/m.lua",
          "round = (round or 0) + 1 local mine = round on('door', function() trace(1, 'the handler of load ' .. mine) end)"
          "every(1, function() end) task(function() while true do cr_yield(1) end end)"
          "log_file = log_file or io.open('" + path("out") + "', 'w') log_file:write('load ') log_file:flush()");
    load();
    ASSERT_EQ(script->start_thread(), 1);
  }
  void TearDown() override { script->stop_thread(); }

  TrialVerdict tried(int limit_ms = 10000) {
    return try_reload(*script, path("scripts").c_str(), "", limit_ms);
  }

  // The former handler answers, and nothing is left of the copy.
  void expect_as_before(size_t descriptors) {
    standin::reset();
    standin::post(1, "door", "");
    EXPECT_TRUE(standin::wait_for_line("lua-trace: the handler of load 1"));
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(text_of("out"), "load ");
  }

  static std::string text_of(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(path(file)).rdbuf();
    return text.str();
  }
};

TEST_F(Trial, APassedOneChangesNothing) {
  const size_t descriptors = open_descriptors();
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(tried().passed);
  expect_as_before(descriptors);
}

TEST_F(Trial, TellsWhatWentWrongAndLeavesEverythingAsItWas) {
  const std::string x = "could not execute script[/opt/scripts/x.lua] -- ";
  const std::string at_1 = x + "/opt/scripts/x.lua:1: ";
  const std::string here = "\nstack traceback:\n\t/opt/scripts/x.lua:1: in main chunk\n\t[C]: ?";
  const struct {
    const char* script;
    std::string text;
  } rows[] = {
      {"evry(10, function() end)", at_1 + "attempt to call global 'evry' (a nil value)" + here},
      {"for i = 1, 3 do (nil)() end", at_1 + "attempt to call a nil value" + here},
      {"local function f() error('deep', 0) end f()",
       x + "deep\nstack traceback:\n\t[C]: in function 'error'\n\t/opt/scripts/x.lua:1: in function 'f'\n\t"
           "/opt/scripts/x.lua:1: in main chunk\n\t[C]: ?"},
      {"error({})", x + "NOT ERROR\nstack traceback:\n\t[C]: in function 'error'" + here.substr(17)},
      {"x = = 1", "could not load file[/opt/scripts/x.lua] -- /opt/scripts/x.lua:1: unexpected symbol near '='"},
      {"pcall(os.exit, 3)", "a script calls os.exit, which ends the daemon\nstack traceback:\n\t[C]: in function"},
      {"if round == 2 then error('twice', 0) end", x + "twice"},
      {"on('door', function() end) every(1, function() end) error('after', 0)", x + "after"},
      {"os.remove('/opt/scripts/m.lua') os.rename('/opt/scripts/m.lua', '/opt/n') os.execute('touch /opt/made')"
       "io.open('/opt/made', 'w'):write('x') io.popen('touch /opt/made'):close() io.output('/opt/made')"
       "log_file:write('copy') log_file:close() event_post(1, 'door') error('busy', 0)", x + "busy"},
  };
  const size_t descriptors = open_descriptors();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    std::string code = row.script;
    for (size_t found = 0; (found = code.find("/opt/")) != std::string::npos;) code.replace(found, 4, path("."));
    write("scripts/x.lua", code);
    const TrialVerdict verdict = tried();
    EXPECT_FALSE(verdict.passed);
    EXPECT_EQ(under_opt(verdict.text).substr(0, row.text.size()), row.text);
    expect_as_before(descriptors);
  }
  EXPECT_FALSE(fs::exists(path("made")));
}

// What a script gets from the functions that do nothing.
TEST_F(Trial, LooksLikeSuccess) {
  write("scripts/x.lua",
        "local r = { os.execute('false'), os.remove('/x'), os.rename('/x', '/y'), os.tmpname(), io.popen('ls'):read(),"
        " io.open('/x/y', 'w'):write('a') }"
        "if round == 2 then error(r[1] .. tostring(r[2]) .. tostring(r[3]) .. r[4] .. tostring(r[5]) ..tostring(r[6]), 0) end");
  EXPECT_EQ(under_opt(tried().text).substr(0, 83),
            "could not execute script[/opt/scripts/x.lua] -- 0truetrue/dev/nullniltrue\nstack tra");
}

TEST_F(Trial, EndsWhatDoesNotReturn) {
  const size_t descriptors = open_descriptors();
  const std::string late = "did not return within 1 s: ";
  const std::string x = late + "could not execute script[/opt/scripts/x.lua] -- /opt/scripts/x.lua:1: did not return\n";
  const struct {
    const char* script;
    std::string text;
  } rows[] = {
      {"while true do end", x},
      {"sleep(100000)", x},
      {"while true do pcall(function() while true do end end) end", late + "/opt/scripts/x.lua:1"},
      {"pcall(function() while true do end end)", late + "/opt/scripts/x.lua:1"},
      {"(('a'):rep(30)):find(('a*'):rep(30) .. 'b')", late + "/opt/scripts/x.lua"},
      {nullptr, late + "could not load file[/opt/scripts/x.lua] -- cannot open /opt/scripts/x.lua: Interrupted"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    fs::remove(path("scripts/x.lua"));
    row.script != nullptr ? write("scripts/x.lua", row.script)
                          : static_cast<void>(mkfifo(path("scripts/x.lua").c_str(), 0600));
    EXPECT_EQ(under_opt(tried(1000).text).substr(0, row.text.size()), row.text);
    expect_as_before(descriptors);
  }
}

TEST_F(Trial, EndsAtOnceWhenTheDaemonIsToEnd) {
  static std::atomic<bool> asked{false};
  script->stop.wanted = [] { return asked.load(); };
  write("scripts/x.lua", "while true do end");
  const size_t descriptors = open_descriptors();
  std::thread later([main = pthread_self()] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    asked = true;
    pthread_kill(main, SIGTERM);
  });
  signal(SIGTERM, [](int) {});
  EXPECT_EQ(tried(100000).text, "the daemon is to end");
  later.join();
  signal(SIGTERM, SIG_DFL);
  script->stop.wanted = [] { return false; };
  expect_as_before(descriptors);
}

}  // namespace
