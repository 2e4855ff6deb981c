// Plug-ins: their loading, with real shared objects (tests/plugins/), a real Lua state and the order of calls read from
// the log; and those that ship with the daemon against the real thing: real programs, the real kernel.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "extension/manager_extension.h"
#include "extension/plugin_discovery.h"
#include "script/event_loop.h"
#include "tests/script_fixture.h"
#ifdef UEVENT_BUILT
// NOLINTNEXTLINE(bugprone-suspicious-include): for its text alone: no kernel sends these bytes on demand
#include "plugins/uevent/uevent.cpp"
#endif

namespace {

using Lines = std::vector<std::string>;

// A temporary folder of empty files that are named like plug-ins. It is only looked at for names: the loader finds the
// plug-ins themselves through the run path of the test program.
struct PluginFolder {
  PluginFolder() { std::filesystem::create_directory(path); }
  ~PluginFolder() { std::filesystem::remove_all(path); }

  // A file that was changed `age` seconds ago.
  void put(const std::string& name, int age = 0) const {
    std::ofstream(path / name).close();
    std::filesystem::last_write_time(path / name, now - std::chrono::seconds(age));
  }

  const std::filesystem::path path = "/tmp/zelvind-plugins-" + std::to_string(getpid());
  const std::filesystem::file_time_type now = std::filesystem::file_time_type::clock::now();
};

class PluginHost : public ScriptFixture {
 protected:
  PluginHost() { standin::reset(); }
  void end() {
    extension.prepare_cleanup();
    script->cleanup();
    extension.cleanup();
  }

  PluginFolder folder;
  ManagerExtension extension;
};

std::string failure(const std::string& name, const std::string& text) {
  return std::string("<1> mextension: ") + (name[1] == 's' ? "eSource" : "eAction") + "[lib" + name + ".so]: " + text;
}

// The lines since the last call, without those that say what begins.
Lines new_lines() {
  Lines lines;
  for (const std::string& line : standin::log_lines()) {
    if (line.substr(line.size() - 3) != "...") lines.push_back(line);
  }
  standin::reset();
  return lines;
}

using Extension = PluginHost;

// The links beside the files are no second plug-ins, and no second chances.
TEST_F(Extension, WholeLivesInOrder) {
  int age = 0;
  for (const std::string name :
       {"es_throws_at_end", "es_plain", "es_plain_link", "es_no_init", "es_refuses_init", "es_throws", "es_throws_link",
        "es_nowhere", "ea_adds_global", "ea_raises_at_end", "ea_raises"}) {
    folder.put("lib" + name + ".so", age += 10);
  }
  extension.load(folder.path.c_str());
  EXPECT_EQ(new_lines(),
            (Lines{
                "<2> es_plain: init",
                failure("es_plain_link", "already loaded as [libes_plain.so]"),
                failure("es_no_init", "Could not find 'esource_init'"),
                "<2> es_refuses_init: init",
                "<2> es_refuses_init: cleanup",
                failure("es_refuses_init", "Failed to execute init function with error[-1]"),
                failure("es_throws", "unknown error"),
                failure("es_throws", "an exception of the plug-in's own"),
                failure("es_throws_link", "already refused as [libes_throws.so]"),
                "<1> mextension: libes_nowhere.so: cannot open shared object file: No such file or directory",
                failure("es_nowhere", "Failed to load so eSource file[libes_nowhere.so]"),
                "<2> ea_adds_global: init with 0 on the stack",
                "<2> ea_raises_at_end: init with 0 on the stack",
                "<2> ea_raises: init with 0 on the stack",
                "<2> ea_raises: cleanup",
                failure("ea_raises", "no such thing"),
            }));
  EXPECT_EQ(lua_gettop(script->lua_state), 0);
  // What was registered before a failure can still be called, although the plug-in is closed.
  run_lua("assert(ea_adds_global() == 'ea_adds_global' and ea_raises() == 'ea_raises')");
  end();
  EXPECT_EQ(new_lines(),
            (Lines{"<2> mextension: prepare_cleanup", "<2> es_plain: prepare", "<2> ea_adds_global: prepare",
                   "<2> ea_raises_at_end: prepare", failure("ea_raises_at_end", "cannot prepare"),
                   "<2> mextension: cleanup", failure("es_throws_at_end", "unknown error"), "<2> es_plain: cleanup",
                   "<2> ea_adds_global: cleanup", "<2> ea_raises_at_end: cleanup"}));
}

TEST(Discovery, FindsAllOfOneKindNewestFirst) {
  standin::reset();
  const PluginFolder folder;
  const auto long_name = [](size_t size) { return "libes" + std::string(size - 8, 'x') + ".so"; };
  Lines wanted;
  for (int i = 0; i < 40; ++i) wanted.push_back("libes" + std::to_string(i) + ".so");
  wanted.push_back(long_name(62));
  for (size_t i = 0; i < wanted.size(); ++i) folder.put(wanted[i], static_cast<int>(i + 10));
  folder.put(long_name(63), 60);
  for (const char* other : {"libea.so", "libes.so.1", "lib", "es.so"}) folder.put(other);
  std::filesystem::create_symlink(wanted.back(), folder.path / "libes_link.so");  // a link counts by its own time
  wanted.insert(wanted.begin(), "libes_link.so");
  setenv("QUOTING_STYLE", "c", 1);
  setenv("CDPATH", folder.path.parent_path().c_str(), 1);
  std::filesystem::current_path(folder.path.parent_path());

  const std::string dir = folder.path.string();
  const std::string search_path = getenv("PATH");
  setenv("PATH", "/nowhere", 1);  // no shell is needed
  EXPECT_EQ(list_plugins(dir, "es"), wanted);
  EXPECT_EQ(list_plugins(dir, "ea"), Lines{"libea.so"});
  for (const std::string& none : {dir + "/none", dir + "/lib", std::string()}) {
    EXPECT_EQ(list_plugins(none, "es"), Lines{}) << none;
  }
  setenv("PATH", search_path.c_str(), 1);
  // A word that means something to the shell; and a relative one, so that CDPATH counts.
  for (const std::string& word : {"'" + dir + "'", folder.path.filename().string()}) {
    EXPECT_EQ(list_plugins(word, "es"), wanted) << word;
  }
  EXPECT_EQ(standin::log_lines(),
            Lines(3, "<1> mextension: file name longer than 62 characters, not loaded[" + long_name(63) + "]"));

  // Names that mean something to the shell, a directory, and the same moment twice.
  std::filesystem::create_directories(folder.path / "libea.d.so");
  for (const char* other : {"libea.d.so/inside.so", "libea b.so", "libea_c.so", "libea_a.so", "libea_b.so"}) {
    folder.put(other);
  }
  EXPECT_EQ(list_plugins(dir, "ea"), (Lines{"libea b.so", "libea.so", "libea_a.so", "libea_b.so", "libea_c.so"}));
  std::filesystem::remove_all(folder.path / "libea.d.so");
  std::filesystem::remove(folder.path / "libea b.so");
  EXPECT_EQ(list_plugins(dir, "ea"), (Lines{"libea.so", "libea_a.so", "libea_b.so", "libea_c.so"}));
  unsetenv("QUOTING_STYLE");
  unsetenv("CDPATH");
}

class Plugins : public PluginHost {
 protected:
  void load(const char* name) {
    folder.put(name);
    extension.load(folder.path.c_str());
    ASSERT_EQ(errors(), Lines{});
  }
  void run_to_quit() {
    script->running = true;
    event_loop(*script);
  }
};

TEST_F(Plugins, ProcessRunsPrograms) {
  const auto descriptors_open = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  const auto before = descriptors_open();
  load("libeaprocess.so");
  signal(SIGUSR1, SIG_IGN);
  standin::refuse_posts(3);                              // a full queue costs no result
  standin::post(7002, "proc_done", "id=4711&status=0");  // a number that nobody has
  mkfifo("fifo", 0600);
  const int fifo = open("fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  // All at once. Each row: argument vector, time-out, status and output (a pattern).
  run_lua(R"lua(
local rows = {
  { { "/bin/echo", "two  words", 7 }, 20, 0, "^two  words 7\n$" },
  { { "cat" }, 20, 0, "^$" },
  { { "sh", "-c", "echo wrong >&2; exit 3" }, 20, 3, "^wrong\n$" },
  { { "sh", "-c", "kill -9 $$" }, 20, 256 + 9, "^$" },
  { { "/no/such", "x" }, 20, -1, "^/no/such: No such file or directory$" },
  { { "sh", "-c", "yes 0123456 | head -c 300000; exit 4" }, 20, 4, "^" .. ("0123456\n"):rep(512) .. "$" },
  { { "sh", "-c", "echo begun; sleep 100" }, 0.5, -2, "^begun\n$" },
  { { "sh", "-c", "trap '' TERM; while :; do sleep 0.05; done" }, 0.2, -2, "^$" },
  { { "sh", "-c", "{ sleep 20 & } >fifo; echo on its own" }, 20, 0, "^on its own\n$" },
  { { "sh", "-c", "exec ls /proc/self/fd" }, 20, 0, "^0\n1\n2\n3\n$" },  -- 3 is the folder itself
  -- Two signals beyond the standard ones are the C library's own: it ignores them in what it spawns.
  { { "grep", "-E", "Sig(Blk|Ign):", "/proc/self/status" }, 20, 0, "^SigBlk:\t0+\nSigIgn:\t0+1?8?0+\n$" },
}
local left = #rows
for i, row in ipairs(rows) do
  proc_run(row[1], row[2], function(arg, status, output)
    left = left - 1
    if left == 0 then event_post(9999, 'quit') end
    if arg == i and status == row[3] and output:match(row[4]) then return end
    error(("row %s: got %s and %q"):format(tostring(arg), tostring(status), output:sub(1, 100)))
  end, i)
end)lua");
  run_to_quit();
  EXPECT_EQ(errors(), Lines{});
  pollfd written{fifo, POLLIN, 0};
  EXPECT_EQ(poll(&written, 1, 10000), 1) << "the sleep that a program left behind lives on";
  close(fifo);
  unlink("fifo");
  end();
  EXPECT_EQ(descriptors_open(), before);
}

TEST_F(Plugins, ProcessBearsScriptsAndEndsWithThem) {
  load("libeaprocess.so");
  // In the end a script's own table of handlers hears the events of 20 programs in the place of ours.
  run_lua(R"lua(
local unheard, heard = 0, 0
local function count()
  unheard = unheard + 1
  if unheard == 20 then proc_run({ "true" }, 1, function() end) end
end
es_proc_done = { list_func = { { "count", count } } }
for i = 1, 20 do
  proc_run({ "true" }, 20, function(arg)
    heard = heard + arg
    if heard == 20 * 21 / 2 then proc_run({ "true" }, 20, event_post, 9999) end
    if arg == 1 then error("in func", 0) end
  end, i)
end
es_proc_done.list_func[2] = nil)lua");
  run_to_quit();
  EXPECT_EQ(errors(), (Lines{"<1> mscript: error[etype:7002] - in func"}));
  run_lua(R"lua(
assert(select(2, pcall(proc_run, { "a\0b" }, 1, print)) == "argument 0 of the program holds a zero byte"))lua");
  // All places taken, and a finalizer that runs a program while the state is being closed.
  run_lua(R"lua(
for i = 1, 64 do proc_run({ "sh", "-c", "sleep 1000; true" }, 10000, function() end) end
late = newproxy(true)
getmetatable(late).__gc = function() pcall(proc_run, { "sleep", "1000" }, 10000, function() end) end
assert(select(2, pcall(proc_run, { "true" }, 1, print)) == "too many programs")
sleep(300))lua");
  script->cleanup();
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  extension.cleanup();
}

// A task that ends while it waits leaves no program behind.
TEST_F(Plugins, ProcessEndsWithTheTaskThatWaits) {
  load("libeaprocess.so");
  ScriptFixture::load();
  script->clock = {};
  run_lua(R"lua(
set_handler_tag("test")
trace(1, select(2, pcall(run_wait, { "true" })))
local function try()
  local status, output = run_wait({ "sh", "-c", "echo hello; exit 3" })
  trace(1, status .. " " .. output)
  trace(1, table.concat({ run_wait({ "/no/such" }, 1) }, " "))
  trace(1, select(2, pcall(run_wait, { "true" }, 0)))
  after(0, function() waiting:cancel() end)
  after(0.1, function() event_post(9999, "quit") end)
  run_wait({ "sh", "-c", "sleep 1000; true" }, 1000)
end
waiting = task(try))lua");
  run_to_quit();
  EXPECT_EQ(traced(),
            "run_wait outside a task|3 hello\n|-1 /no/such: No such file or directory|"
            "bad argument #2 to '?' (0.001 to 86400 seconds expected)");
  for (int i = 0; i < 2000 && waitpid(-1, nullptr, WNOHANG) == 0; ++i) usleep(10000);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  run_lua(R"lua(for i = 1, 64 do proc_run({ "true" }, 1, print) end)lua");  // each place is free again
}

TEST_F(Plugins, UeventBringsWhatTheKernelSays) {
#ifdef UEVENT_BUILT
  std::string info;
  append_field(info, "a", "50%&\n\x7f/x=1");
  append_field(info, "b", nullptr);
  EXPECT_EQ(info, "a=50%25%26%0A%7F/x=1&b=");
#else
  GTEST_SKIP() << "not built here: libudev was not found";
#endif
  load("libesuevent.so");
  const int trigger = open("/sys/devices/virtual/net/lo/uevent", O_WRONLY | O_CLOEXEC);
  const bool accepted = ::write(trigger, "change", 6) > 0;
  close(trigger);
  if (!accepted) GTEST_SKIP() << "no synthetic kernel event on this machine: " << strerror(errno);
  standin::refuse_posts(2);
  run_lua(R"lua(
es_uevent = { list_func = { { "ours", function()
  if evt_info():find("/net/lo&", 1, true) then event_post(9999, 'quit') error(evt_info():match("(.*)&seqnum="), 0) end
end } } })lua");
  run_to_quit();
  EXPECT_EQ(errors(), Lines{"<1> mscript: error[etype:7001] - "
                            "action=change&subsystem=net&devpath=/devices/virtual/net/lo&name=lo&interface=lo"});
  end();
}

}  // namespace
