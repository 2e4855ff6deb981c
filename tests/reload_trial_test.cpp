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
          "round = (round or 0) + 1 local mine = round on('door', function() trace(1, 'the handler of load ' .. mine) "
          "end)"
          "task(function() while true do cr_yield(1) end end)"
          "out = out or io.open('" +
              path("out") + "', 'w') out:write('load ') out:flush()");
    load();
    ASSERT_EQ(script->start_thread(), 1);
  }
  void TearDown() override { script->stop_thread(); }

  TrialVerdict tried(int limit_ms = 10000) { return try_reload(*script, path("scripts").c_str(), "", limit_ms); }

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

// The functions that reach out look like success, also where the base files have kept one of them.
TEST_F(Trial, DoesNothingToTheOutside) {
  const size_t descriptors = open_descriptors();
  write("scripts/x.lua",
        "local texts = {} local function add(...) for i = 1, select('#', ...) do "
        "texts[#texts + 1] = tostring(select(i, ...)) end end "
        "add(os.execute('touch .made'), os.remove('.m.lua'), os.rename('.m.lua', '.made'), os.tmpname()) "
        "add(io.popen('touch .made'):read(), io.open('.made', 'w'):write('x'), io.type(io.output('.made'))) "
        "add(out:write('copy'), out:close()) add(pcall(os.remove)) add(io.open('.m.lua'):read(2)) "
        "error(table.concat(texts, ' '), 0)");
  std::string code = text_of("scripts/x.lua");
  for (size_t at = 0; (at = code.find("'.m")) != std::string::npos;) code.replace(at, 2, "'" + path("scripts/"));
  write("scripts/x.lua", code);
  const std::string text = under_opt(tried().text);
  EXPECT_EQ(text.substr(0, text.find('\n')),
            "could not execute script[/opt/scripts/x.lua] -- 0 true true /dev/null nil true file true true "
            "false bad argument #1 to '?' (string expected, got no value) ro");
  EXPECT_FALSE(fs::exists(path("scripts/made")));
  EXPECT_TRUE(fs::exists(path("scripts/m.lua")));
  expect_as_before(descriptors);
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
#if !defined(__SANITIZE_THREAD__)  // it delays signal handlers until the next call that it knows
    {"(('a'):rep(30)):find(('a*'):rep(30) .. 'b')", late + "/opt/scripts/x.lua"},
#endif
    {"dofile(fifo)", late + "could not execute script[/opt/scripts/x.lua] -- cannot open /opt/fifo: Interrupted"},
  };
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    write("scripts/x.lua", "local fifo = '" + path("fifo") + "' " + row.script);
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
    pthread_kill(main, SIGTERM);  // NOLINT(bugprone-bad-signal-to-kill-thread): a handler takes it
  });
  signal(SIGTERM, [](int) {});
  EXPECT_EQ(tried(20000).text, "the daemon is to end");
  later.join();
  signal(SIGTERM, SIG_DFL);
  script->stop.wanted = [] { return false; };
  expect_as_before(descriptors);
}

}  // namespace
