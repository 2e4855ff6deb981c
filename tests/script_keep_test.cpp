// keep(): what survives reloads and restarts, in real files below a DEVICE_ROOT of the test's own.

#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "tests/script_fixture.h"

namespace {

class ScriptKeep : public ScriptFixture {
 protected:
  static std::string file(const std::string& name) { return path("var/lib/zelvind/keep/" + name); }
  static std::string text(const std::string& name) {
    std::ostringstream all;
    all << std::ifstream(file(name)).rdbuf();
    return all.str();
  }
  // Whether the timer writes the file, which is not there yet or was put aside.
  bool written_by_timer(const std::string& name) {
    for (int i = 0; i < 1000 && text(name).empty(); ++i, usleep(10000)) pass(i == 0 ? 30000 : 0);
    return !text(name).empty();
  }
  // The lines of level 1 since the last start, without the root.
  static std::string lines() {
    std::string all;
    for (const std::string& line : standin::log_lines_with("<1> mscript: keep: ")) all += line.substr(19) + "|";
    const std::string folder = path("var/lib/zelvind/keep/");
    for (size_t at = 0; (at = all.find(folder)) != std::string::npos;) all.erase(at, folder.size());
    return all;
  }
};

constexpr char kEverything[] = R"(-- zelvind keep 1
{
  ["\000\n\"\\\127 ü"] = "a\tb",
  [-inf] = "least",
  [true] = false,
  nothing = nan,
  plain = -12,
  [0.1] = 1e+300,
  [1] = "one",
  [2] = {
    deep = {
    },
  },
}
)";

TEST_F(ScriptKeep, SurvivesReloadsAndRestarts) {
  write("scripts/a.lua", "local kept = keep('all', { n = 0 }) kept.n = kept.n + 1 trace(1, 'n ' .. kept.n)");
  load();
  reload();
  EXPECT_EQ(traced(), "n 1|n 2");
  EXPECT_TRUE(written_by_timer("all.keep"));
  reload();
  restart();
  load();
  EXPECT_EQ(traced(), "n 4");
  script->cleanup();
  EXPECT_EQ(text("all.keep"), "-- zelvind keep 1\n{\n  n = 4,\n}\n");

  restart();
  run_lua(R"(local all = keep("all") all.n = nil
      all[-1/0], all[0.1], all[1], all[2] = "least", 1e300, "one", { deep = {} }
      all["\0\n\"\\\127 ü"], all[true], all.nothing, all.plain = "a\tb", false, 0/0, -12)");
  script->cleanup();
  EXPECT_EQ(text("all.keep"), kEverything);
  restart();
  run_lua(R"(local all = keep("all") all.copy = { [0] = all[-1/0], all[0.1], all["\0\n\"\\\127 ü"], all[true],
      type(all[2].deep), all.nothing ~= all.nothing, all.plain }
      for k in pairs(all) do all[k] = k == "copy" and all[k] or nil end)");
  script->cleanup();
  EXPECT_EQ(text("all.keep"),
            "-- zelvind keep 1\n{\n  copy = {\n    [0] = \"least\",\n    [1] = 1e+300,\n    [2] = \"a\\tb\",\n"
            "    [3] = false,\n    [4] = \"table\",\n    [5] = true,\n    [6] = -12,\n  },\n}\n");
  EXPECT_EQ(lines(), "");
}

// Rows: what stands in the place of the file, made by a command, and the reason for which it is put aside.
TEST_F(ScriptKeep, PutsAsideWhatItHasNotWritten) {
  const std::string first = "printf -- '-- zelvind keep 1\n";
  const std::pair<std::string, const char*> rows[] = {
      {": > $F", "line 1: the first line is not '-- zelvind keep 1'"},
      {"head -c 4096 /dev/zero > $F", "line 1: the first line is not '-- zelvind keep 1'"},
      {first + "{ a = 1, \n b = \"x' > $F", "line 3: a text does not end"},
      {first + "{ a = 1, \n b = {' > $F", "line 3: expected a key"},
      {first + "{ a = os.exit() }' > $F", "line 2: expected a value"},
      {first + "{ [nan] = 1 }' > $F", "line 2: nan cannot be a key"},
      {first + "{ a = \"\\\\999\" }' > $F", "line 2: a text holds an unknown escape"},
      {first + "{ a = 1 } b' > $F", "line 2: more text follows the table"},
      {first + "' > $F; printf '{ a = %.0s' $(seq 18) >> $F", "line 2: the tables are deeper than 16"},
      {first + "{ a = \"' > $F; head -c 70000 /dev/zero | tr '\\\\0' x >> $F", "it is too large"},
      {"mkfifo $F", "it is not a regular file"},
      {"mkdir $F", "it is not a regular file"},
      {"ln -s /etc/passwd $F", "it is not a regular file"},
      {": > $F.other; ln $F.other $F", "it has another hard link"},
  };
  for (const auto& [command, reason] : rows) {
    SCOPED_TRACE(command);
    begin();
    std::filesystem::create_directories(file(""));
    ASSERT_EQ(system(("F=" + file("a.keep") + "; " + command).c_str()), 0);
    run_lua("assert(keep('a', { n = 1 }).n == 1) keep('a').n = 2");
    EXPECT_EQ(lines(), std::string("put a.keep aside as a.bad: ") + reason + "|");
    script->cleanup();
    EXPECT_EQ(text("a.keep"), "-- zelvind keep 1\n{\n  n = 2,\n}\n");
    EXPECT_NE(std::filesystem::symlink_status(file("a.bad")).type(), std::filesystem::file_type::not_found);
  }
}

TEST_F(ScriptKeep, SaysWhatCannotBeKept) {
  run_lua(R"(
local function refused(reason, ...)
  local _, message = pcall(keep, ...)
  assert(tostring(message):find(reason, 1, true), message)
end
refused("expected letters, digits, '_' and '-' in the name", "../a")
refused("expected letters, digits, '_' and '-' in the name", "a\0")
refused("the name is longer than 64 bytes", ("a"):rep(65))
refused("table expected, got number", "a", 1)
refused("b.c[2] is a function, which cannot be kept", "a", { b = { c = { 1, print } } })
refused("b has a key that is a table, which cannot be kept", "a", { b = { [{}] = 1 } })
refused("it is larger than 64 KiB as text", "a", { b = ("x"):rep(65536) })
local cycle, deep = {}, {}
cycle.a = { cycle }
refused("a[1] is a table that holds itself", "a", cycle)
for _ = 1, 16 do deep = { d = deep } end
refused("is deeper than 16 tables", "a", deep)
for i = 1, 64 do kept = keep("k" .. i, { list = {} }) end
refused("too many names", "k65")
kept.list.at, kept.n = print, 1)");
  for (int i = 0; i < 3; ++i) pass(30000);
  EXPECT_EQ(lines(), "'k64' is not written: list.at is a function, which cannot be kept|");
  run_lua("kept.list.at = 3");
  EXPECT_TRUE(written_by_timer("k64.keep"));
  EXPECT_EQ(text("k64.keep"), "-- zelvind keep 1\n{\n  list = {\n    at = 3,\n  },\n  n = 1,\n}\n");
}

// A folder that cannot be used is said once, and what is there stays as it is.
TEST_F(ScriptKeep, BearsAFolderThatCannotBeUsed) {
  write("var", "");
  run_lua("a = keep('a') a.n = 1");
  EXPECT_EQ(lines(), "failed to read a.keep: Not a directory; 'a' is not written until the next start|");
  std::filesystem::remove(path("var"));
  restart();
  run_lua("a = keep('a') a.n = 1");
  std::filesystem::create_directories(file("a.new"));
  for (int i = 0; i < 3; ++i) pass(30000), usleep(50000);
  EXPECT_EQ(lines(), "failed to write a.keep: Is a directory|");
  std::filesystem::remove(file("a.new"));
  EXPECT_TRUE(written_by_timer("a.keep"));
}

}  // namespace
