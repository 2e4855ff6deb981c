// The plug-ins that ship with the daemon, against the real thing: real programs, the real kernel.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "device/event_queue.h"
#include "script/event_loop.h"
#include "tests/plugin_host.h"

namespace {

auto descriptors_open() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

int fail(lua_State* L) {
  ADD_FAILURE() << lua_tostring(L, 1);
  return 0;
}

int quit(lua_State*) {
  standin::post(EVENT_TYPE_QUIT, "quit", "");
  return 0;
}

class Plugins : public PluginHost {
 protected:
  void load(const char* name) {
    lua_register(script.lua_state, "fail", fail);
    lua_register(script.lua_state, "quit", quit);
    folder.put(name);
    extension.load(folder.path.c_str());
    ASSERT_EQ(standin::log_lines_with("<1>"), Lines{});
  }
  void run_to_quit() {
    script.running = true;
    event_loop(script);
    EXPECT_EQ(standin::log_lines().back(), "<3> mscript: event(quit) - ");
  }
};

// All at once. Each row: argument vector, time-out, status and output (a pattern).
constexpr char kPrograms[] = R"lua(
local rows = {
  { { "/bin/echo", "two  words", 7 }, 20, 0, "^two  words 7\n$" },
  { { "cat" }, 20, 0, "^$" },
  { { "sh", "-c", "echo wrong >&2; exit 3" }, 20, 3, "^wrong\n$" },
  { { "sh", "-c", "kill -9 $$" }, 20, 256 + 9, "^$" },
  { { "/no/such", "x" }, 20, -1, "^/no/such: No such file or directory$" },
  { { "sh", "-c", "yes 0123456 | head -c 300000; exit 4" }, 20, 4, "^" .. ("0123456\n"):rep(512) .. "$" },
  { { "sh", "-c", "echo begun; sleep 100" }, 0.5, -2, "^begun\n$" },
  { { "sh", "-c", "trap '' TERM; while :; do sleep 0.05; done" }, 0.2, -2, "^$" },
  { { "sh", "-c", "sleep 100 & echo on its own" }, 20, 0, "^on its own\n$" },
  { { "sh", "-c", "exec ls /proc/self/fd" }, 20, 0, "^0\n1\n2\n3\n$" },  -- 3 is the folder itself
  -- Two signals beyond the standard ones are the C library's own: it ignores them in what it spawns.
  { { "grep", "-E", "Sig(Blk|Ign):", "/proc/self/status" }, 20, 0, "^SigBlk:\t0+\nSigIgn:\t0+1?8?0+\n$" },
}
local left = #rows
for i, row in ipairs(rows) do
  proc_run(row[1], row[2], function(arg, status, output)
    if arg ~= i or status ~= row[3] or not output:match(row[4]) then
      fail(("row %s: got %s and %q"):format(tostring(arg), tostring(status), output:sub(1, 100)))
    end
    left = left - 1
    if left == 0 then quit() end
  end, i)
end
)lua";

TEST_F(Plugins, ProcessRunsPrograms) {
  const auto before = descriptors_open();
  load("libeaprocess.so");
  signal(SIGUSR1, SIG_IGN);
  const int leak = open("/dev/null", O_RDONLY);  // as a foreign library may have one
  standin::refuse_posts(3);                      // a full queue costs no result
  run_lua(kPrograms);
  run_to_quit();
  EXPECT_EQ(standin::log_lines_with("<1>"), Lines{});
  close(leak);
  end();
  EXPECT_EQ(descriptors_open(), before);
}

constexpr char kRefusals[] = R"lua(
for _, row in ipairs({
  { "bad argument #1 to '?' (a list with the program and its arguments expected)", {}, 1, print },
  { "bad argument #2 to '?' (0.001 to 86400 seconds expected)", { "true" }, 0 / 0, print },
  { "bad argument #3 to '?' (function expected, got string)", { "true" }, 1, "f" },
  { "argument 1 of the program is a boolean", { "true", false }, 1, print },
  { "argument 0 of the program holds a zero byte", { "tr\0ue" }, 1, print },
}) do
  local _, text = pcall(proc_run, row[2], row[3], row[4])
  if text ~= row[1] then fail("got " .. text .. ", wanted " .. row[1]) end
end
)lua";

// A script's own table of handlers hears the events of 64 programs in the place of ours.
constexpr char kUnheard[] = R"lua(
local unheard, heard = 0, 0
local function count()
  unheard = unheard + 1
  if unheard ~= 64 then return end
  local _, text = pcall(proc_run, { "true" }, 1, function() end)
  if text ~= "too many programs" then fail(text) end
end
es_proc_done = { list_func = { { "count", count } } }
for i = 1, 64 do
  proc_run({ "true" }, 20, function(arg)
    heard = heard + arg
    if heard == 64 * 65 / 2 then proc_run({ "true" }, 20, quit) end
    if arg == 1 then error("in func", 0) end
  end, i)
end
es_proc_done.list_func[2] = nil
)lua";

// All places taken, and a finalizer that runs a program while the state is being closed.
constexpr char kEnd[] = R"lua(
for i = 1, 64 do proc_run({ "sh", "-c", "sleep 1000; true" }, 10000, function() end) end
late = newproxy(true)
getmetatable(late).__gc = function() pcall(proc_run, { "sleep", "1000" }, 10000, function() end) end
)lua";

TEST_F(Plugins, ProcessBearsScriptsAndEndsWithThem) {
  load("libeaprocess.so");
  run_lua(kRefusals);
  standin::post(7002, "proc_done", "id=4711&status=0");  // a number that nobody has
  quit(nullptr);
  run_to_quit();
  run_lua(kUnheard);
  run_to_quit();
  EXPECT_EQ(standin::log_lines_with("<1>"), (Lines{"<1> mscript: error[etype:7002] - in func"}));
  run_lua(kEnd);
  end();
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}

TEST_F(Plugins, UeventBringsWhatTheKernelSays) {
  if (!std::filesystem::exists(UEVENT_PLUGIN)) GTEST_SKIP() << "not built here: libudev was not found";
  const auto before = descriptors_open();
  int streams[3];
  for (int fd = 0; fd < 3; ++fd) streams[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 10), close(fd);
  load("libesuevent.so");
  for (int fd = 0; fd < 3; ++fd) {
    EXPECT_LT(fcntl(fd, F_GETFD), 0) << fd;
    dup2(streams[fd], fd), close(streams[fd]);
  }
  const int trigger = open("/sys/devices/virtual/net/lo/uevent", O_WRONLY | O_CLOEXEC);
  constexpr char kWish[] = "change 12345678-1234-1234-1234-123456789abc";
  const bool accepted = write(trigger, kWish, sizeof(kWish) - 1) > 0;
  close(trigger);
  if (!accepted) GTEST_SKIP() << "no synthetic kernel event on this machine: " << strerror(errno);
  standin::refuse_posts(2);
  std::string info;
  for (int i = 0; i < 100 && info.find("7001 uevent action=change") != 0; ++i) {
    event_item* const event = event_dequeue(100);
    if (event == nullptr) continue;
    info = std::to_string(event->type) + " " + event->type_name + " " + event->info;
    event_item_free(event);
  }
  EXPECT_EQ(info.substr(0, info.find("&seqnum=")),
            "7001 uevent action=change&subsystem=net&devpath=/devices/virtual/net/lo&name=lo&interface=lo");
  end();
  EXPECT_EQ(descriptors_open(), before);
}

}  // namespace
