// Loading of plug-ins: real shared objects (tests/plugins/), a real Lua state, the order of calls read from the log.

#include "extension/plugin_discovery.h"
#include "tests/plugin_host.h"

namespace {

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
  EXPECT_EQ(lua_gettop(script.lua_state), 0);
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

}  // namespace
