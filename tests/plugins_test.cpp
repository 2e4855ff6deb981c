// The plug-ins that ship with the daemon, against the real thing: real programs, the real kernel.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "device/event_queue.h"
#include "script/event_loop.h"
#include "tests/plugin_host.h"
#ifdef UEVENT_BUILT
#include "plugins/uevent/uevent.cpp"  // for its text alone: no kernel sends these bytes on demand
#endif

namespace {

int quit(lua_State*) {
  standin::post(EVENT_TYPE_QUIT, "quit", "");
  return 0;
}

class Plugins : public PluginHost {
 protected:
  void load(const char* name) {
    lua_register(script.lua_state, "quit", quit);
    folder.put(name);
    extension.load(folder.path.c_str());
    ASSERT_EQ(standin::log_lines_with("<1>"), Lines{});
  }
  void run_to_quit() {
    script.running = true;
    event_loop(script);
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
    if left == 0 then quit() end
    if arg == i and status == row[3] and output:match(row[4]) then return end
    error(("row %s: got %s and %q"):format(tostring(arg), tostring(status), output:sub(1, 100)))
  end, i)
end)lua");
  run_to_quit();
  EXPECT_EQ(standin::log_lines_with("<1>"), Lines{});
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
    if heard == 20 * 21 / 2 then proc_run({ "true" }, 20, quit) end
    if arg == 1 then error("in func", 0) end
  end, i)
end
es_proc_done.list_func[2] = nil)lua");
  run_to_quit();
  EXPECT_EQ(standin::log_lines_with("<1>"), (Lines{"<1> mscript: error[etype:7002] - in func"}));
  run_lua(R"lua(
assert(select(2, pcall(proc_run, { "a\0b" }, 1, print)) == "argument 0 of the program holds a zero byte"))lua");
  // All places taken, and a finalizer that runs a program while the state is being closed.
  run_lua(R"lua(
for i = 1, 64 do proc_run({ "sh", "-c", "sleep 1000; true" }, 10000, function() end) end
late = newproxy(true)
getmetatable(late).__gc = function() pcall(proc_run, { "sleep", "1000" }, 10000, function() end) end
assert(select(2, pcall(proc_run, { "true" }, 1, print)) == "too many programs")
sleep(300))lua");
  script.cleanup();
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  extension.cleanup();
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
  const bool accepted = write(trigger, "change", 6) > 0;
  close(trigger);
  if (!accepted) GTEST_SKIP() << "no synthetic kernel event on this machine: " << strerror(errno);
  standin::refuse_posts(2);
  run_lua(R"lua(
es_uevent = { list_func = { { "ours", function()
  if evt_info():find("/net/lo&", 1, true) then quit() error(evt_info():match("(.*)&seqnum="), 0) end
end } } })lua");
  run_to_quit();
  EXPECT_EQ(standin::log_lines_with("<1>"),
            Lines{"<1> mscript: error[etype:7001] - "
                  "action=change&subsystem=net&devpath=/devices/virtual/net/lo&name=lo&interface=lo"});
  end();
}

}  // namespace
