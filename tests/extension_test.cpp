// Loading of plug-ins: real shared objects (tests/plugins/), a real Lua state, the order of calls read from the log.

#include <gtest/gtest.h>
#include <sys/time.h>
#include <zelvind/plugin.h>

#include <csignal>

#include "device/event_source.h"
#include "device/log.h"
#include "extension/manager_extension.h"
#include "extension/plugin_discovery.h"
#include "script/clua.h"
#include "script/manager_script.h"
#include "tests/plugin_folder.h"
#include "tests/standin_device.h"

namespace {

using Lines = std::vector<std::string>;

class Extension : public testing::Test {
 protected:
  Extension() {
    standin::reset();
    script.init();
  }

  // The lines since the last call, those of the script manager left out.
  Lines new_lines() {
    Lines lines;
    const Lines all = standin::log_lines();
    for (; seen < all.size(); ++seen) {
      if (all[seen].find("mscript: ") == std::string::npos) lines.push_back(all[seen]);
    }
    return lines;
  }
  void end() {
    extension.prepare_cleanup();
    script.cleanup();
    extension.cleanup();
  }
  int run_lua(const char* code) {
    const LuaTurn turn(script.gate);
    return clua_run_string(script.lua_state, code);
  }

  PluginFolder folder;
  ManagerScript script;
  ManagerExtension extension;
  size_t seen = 0;
};

TEST_F(Extension, WholeLifeInOrder) {
  folder.put("libes_plain.so", 20);
  folder.put("libes_no_prepare.so", 10);
  folder.put("libes_plain_link.so", 30);  // the first one once more
  folder.put("libea_adds_global.so", 0);
  folder.put("libes_not_in_the_search_path.so", 40);
  extension.load(folder.path.c_str());
  Lines lines = new_lines();
  ASSERT_EQ(lines.size(), 12u);
  EXPECT_NE(lines[8].find("<1> mextension: libes_not_in_the_search_path.so: cannot open"), std::string::npos);
  lines.erase(lines.begin() + 8);  // the loader's own words
  EXPECT_EQ(
      lines,
      (Lines{"<2> mextension: load extension files...", "<2> mextension: load es file[libes_no_prepare.so]...",
             "<2> es_no_prepare: init", "<2> mextension: load es file[libes_plain.so]...", "<2> es_plain: init",
             "<2> mextension: load es file[libes_plain_link.so]...",
             "<1> mextension: eSource[libes_plain_link.so]: already loaded as [libes_plain.so]",
             "<2> mextension: load es file[libes_not_in_the_search_path.so]...",
             "<1> mextension: eSource[libes_not_in_the_search_path.so]: Failed to load so eSource "
             "file[libes_not_in_the_search_path.so]",
             "<2> mextension: load ea file[libea_adds_global.so]...", "<2> ea_adds_global: init with 0 on the stack"}));
  EXPECT_EQ(lua_gettop(script.lua_state), 0);
  EXPECT_EQ(run_lua("assert(ea_adds_global() == 'ea_adds_global')"), 1);
  end();
  EXPECT_EQ(new_lines(), (Lines{"<2> mextension: prepare_cleanup", "<2> es_plain: prepare",
                                "<2> ea_adds_global: prepare", "<2> mextension: cleanup", "<2> es_no_prepare: cleanup",
                                "<2> es_plain: cleanup", "<2> ea_adds_global: cleanup"}));
  extension.cleanup();
  EXPECT_EQ(new_lines(), (Lines{"<2> mextension: cleanup"}));
}

// Each loaded alone: what follows "load ... file[...]...", and nothing at shutdown.
TEST_F(Extension, OneThatFailsIsUnloaded) {
  const struct {
    const char* name;
    Lines lines;
  } rows[] = {
      {"libes_no_init.so", {"<1> mextension: eSource[libes_no_init.so]: Could not find 'esource_init'"}},
      {"libes_no_cleanup.so", {"<1> mextension: eSource[libes_no_cleanup.so]: Could not find 'esource_cleanup'"}},
      {"libes_refuses_init.so",
       {"<2> es_refuses_init: init", "<2> es_refuses_init: cleanup",
        "<1> mextension: eSource[libes_refuses_init.so]: Failed to execute init function with error[-1]"}},
      {"libes_throws.so",
       {"<2> throws: cleanup", "<1> mextension: eSource[libes_throws.so]: an exception of the plug-in's own"}},
      {"libea_no_cleanup.so", {"<1> mextension: eAction[libea_no_cleanup.so]: Could not find 'eaction_cleanup'"}},
      {"libea_refuses_init.so",
       {"<2> ea_refuses_init: init with 0 on the stack", "<2> ea_refuses_init: cleanup",
        "<1> mextension: eAction[libea_refuses_init.so]: Failed to execute init function with error[-7]"}},
      {"libea_raises.so",
       {"<2> ea_raises: init with 0 on the stack", "<2> ea_raises: cleanup",
        "<1> mextension: eAction[libea_raises.so]: no such thing"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const PluginFolder alone;
    alone.put(row.name);
    extension.load(alone.path.c_str());
    Lines lines = new_lines();
    ASSERT_GE(lines.size(), 2u);
    lines.erase(lines.begin(), lines.begin() + 2);
    EXPECT_EQ(lines, row.lines);
  }
  // What they registered before they failed can still be called, although they are closed.
  EXPECT_EQ(run_lua("assert(ea_raises() == 'ea_raises' and ea_refuses_init() == 'ea_refuses_init')"), 1);
  end();
  EXPECT_EQ(new_lines(), (Lines{"<2> mextension: prepare_cleanup", "<2> mextension: cleanup"}));

  const PluginFolder absent;
  absent.put("libea_absent.so");
  extension.load(absent.path.c_str());
  EXPECT_EQ(new_lines().back(), "<1> mextension: eAction[libea_absent.so]: failed to load so eAction file");
}

TEST_F(Extension, WhatIsThrownAtTheEndIsLoggedAndPassedOver) {
  folder.put("libes_throws_at_end.so", 0);
  folder.put("libes_plain.so", 10);
  folder.put("libea_raises_at_end.so");
  extension.load(folder.path.c_str());
  new_lines();
  end();
  EXPECT_EQ(new_lines(),
            (Lines{"<2> mextension: prepare_cleanup",
                   "<1> mextension: eSource[libes_throws_at_end.so]: an exception of the plug-in's own",
                   "<2> es_plain: prepare", "<2> ea_raises_at_end: prepare",
                   "<1> mextension: eAction[libea_raises_at_end.so]: cannot prepare", "<2> mextension: cleanup",
                   "<2> throws: cleanup", "<1> mextension: eSource[libes_throws_at_end.so]: unknown error",
                   "<2> es_plain: cleanup", "<2> ea_raises_at_end: cleanup"}));
}

TEST_F(Extension, AFolderWithoutPlugins) {
  folder.put("notes.txt");
  for (const std::string& dir : {folder.path.string(), folder.path.string() + "/none", std::string()}) {
    extension.load(dir.c_str());
    EXPECT_EQ(new_lines(), (Lines{"<2> mextension: load extension files..."})) << dir;
  }
}

std::string long_name(size_t size) {
  return "libes" + std::string(size - 8, 'x') + ".so";
}

TEST(Discovery, FindsAllOfOneKindNewestFirst) {
  standin::reset();
  const PluginFolder folder;
  std::vector<std::string> wanted;
  for (int i = 0; i < 40; ++i) {
    wanted.push_back("libes" + std::to_string(i) + ".so");
    folder.put(wanted.back(), i);
  }
  wanted.push_back(long_name(62));
  folder.put(long_name(62), 50);
  folder.put(long_name(63), 60);
  folder.put("libea.so");
  folder.put("libes.so.1");
  std::filesystem::create_directories(folder.path / "libes.d.so");
  folder.put("libes.d.so/inside.so");
  setenv("QUOTING_STYLE", "c", 1);
  setenv("CDPATH", folder.path.parent_path().c_str(), 1);

  // Interrupted all the time, and relative, so that CDPATH counts.
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  itimerval often{{0, 500}, {0, 500}};
  setitimer(ITIMER_REAL, &often, nullptr);
  std::filesystem::current_path(folder.path.parent_path());
  EXPECT_EQ(list_plugins(folder.path.filename().string(), "es"), wanted);
  often = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_EQ(list_plugins(folder.path.string(), "ea"), Lines{"libea.so"});
  EXPECT_EQ(standin::log_lines(),
            (Lines{"<1> mextension: file name longer than 62 characters, not loaded[" + long_name(63) + "]"}));
}

}  // namespace
