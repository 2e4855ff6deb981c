// Loading of plug-ins: real shared objects (tests/plugins/), a real Lua state, the order of calls read from the log.

#include "extension/plugin_discovery.h"
#include "tests/plugin_host.h"

namespace {

std::string load_line(const std::string& name) {
  return "<2> mextension: load " + name.substr(3, 2) + " file[" + name + "]...";
}

// The lines since the last call.
Lines new_lines() {
  const Lines lines = standin::log_lines();
  standin::reset();
  return lines;
}

using Extension = PluginHost;

TEST_F(Extension, WholeLifeInOrder) {
  folder.put("libes_throws_at_end.so", 0);
  folder.put("libes_plain.so", 20);
  folder.put("libes_plain_link.so", 30);  // once more
  folder.put("libes_nowhere.so", 40);
  folder.put("libea_adds_global.so", 0);
  folder.put("libea_nowhere.so", 20);
  folder.put("libea_raises_at_end.so", 10);
  extension.load(folder.path.c_str());
  const std::string not_found = "cannot open shared object file: No such file or directory";
  EXPECT_EQ(new_lines(),
            (Lines{"<2> mextension: load extension files...", load_line("libes_throws_at_end.so"),
                   load_line("libes_plain.so"), "<2> es_plain: init", load_line("libes_plain_link.so"),
                   "<1> mextension: eSource[libes_plain_link.so]: already loaded as [libes_plain.so]",
                   load_line("libes_nowhere.so"), "<1> mextension: libes_nowhere.so: " + not_found,
                   "<1> mextension: eSource[libes_nowhere.so]: Failed to load so eSource file[libes_nowhere.so]",
                   load_line("libea_adds_global.so"), "<2> ea_adds_global: init with 0 on the stack",
                   load_line("libea_raises_at_end.so"), "<2> ea_raises_at_end: init with 0 on the stack",
                   load_line("libea_nowhere.so"), "<1> mextension: libea_nowhere.so: " + not_found,
                   "<1> mextension: eAction[libea_nowhere.so]: failed to load so eAction file"}));
  EXPECT_EQ(lua_gettop(script.lua_state), 0);
  run_lua("assert(ea_adds_global() == 'ea_adds_global')");
  end();
  EXPECT_EQ(new_lines(),
            (Lines{"<2> mextension: prepare_cleanup",
                   "<1> mextension: eSource[libes_throws_at_end.so]: an exception of the plug-in's own",
                   "<2> es_plain: prepare", "<2> ea_adds_global: prepare", "<2> ea_raises_at_end: prepare",
                   "<1> mextension: eAction[libea_raises_at_end.so]: cannot prepare", "<2> mscript: cleanup...",
                   "<2> mextension: cleanup", "<2> es_throws_at_end: cleanup",
                   "<1> mextension: eSource[libes_throws_at_end.so]: unknown error", "<2> es_plain: cleanup",
                   "<2> ea_adds_global: cleanup", "<2> ea_raises_at_end: cleanup"}));
}

// Each in a folder with its older link, which is no second chance.
TEST_F(Extension, OneThatFailsIsUnloaded) {
  const struct {
    const char* name;
    const char* error;
    Lines calls;
  } rows[] = {
      {"es_no_init", "Could not find 'esource_init'", {}},
      {"es_no_cleanup", "Could not find 'esource_cleanup'", {}},
      {"es_throws", "an exception of the plug-in's own", {"cleanup"}},
      {"ea_refuses_init", "Failed to execute init function with error[-7]", {"init with 0 on the stack", "cleanup"}},
      {"ea_raises", "no such thing", {"init with 0 on the stack", "cleanup"}},
  };
  for (const auto& row : rows) {
    const std::string name = row.name;
    const PluginFolder alone;
    alone.put("lib" + name + ".so");
    alone.put("lib" + name + "_link.so", 10);
    extension.load(alone.path.c_str());
    const std::string start =
        std::string("<1> mextension: ") + (name[1] == 's' ? "eSource" : "eAction") + "[lib" + name;
    Lines lines = {"<2> mextension: load extension files...", load_line("lib" + name + ".so")};
    for (const std::string& call : row.calls) lines.push_back("<2> " + name + ": " + call);
    lines.push_back(start + ".so]: " + row.error);
    lines.push_back(load_line("lib" + name + "_link.so"));
    lines.push_back(start + "_link.so]: already refused as [lib" + name + ".so]");
    EXPECT_EQ(new_lines(), lines);
  }
  // What they registered before they failed can still be called, although they are closed.
  run_lua("assert(ea_raises() == 'ea_raises' and ea_refuses_init() == 'ea_refuses_init')");
  end();
  EXPECT_EQ(new_lines(),
            (Lines{"<2> mextension: prepare_cleanup", "<2> mscript: cleanup...", "<2> mextension: cleanup"}));
}

TEST(Discovery, FindsAllOfOneKindNewestFirst) {
  standin::reset();
  const PluginFolder folder;
  const auto long_name = [](size_t size) { return "libes" + std::string(size - 8, 'x') + ".so"; };
  Lines wanted;
  for (int i = 0; i < 40; ++i) wanted.push_back("libes" + std::to_string(i) + ".so");
  wanted.push_back(long_name(62));
  for (size_t i = 0; i < wanted.size(); ++i) folder.put(wanted[i], static_cast<int>(i));
  folder.put(long_name(63), 60);
  std::filesystem::create_directories(folder.path / "libes.d.so");
  for (const char* other : {"libea.so", "libes.so.1", "libes.d.so/inside.so"}) folder.put(other);
  setenv("QUOTING_STYLE", "c", 1);
  setenv("CDPATH", folder.path.parent_path().c_str(), 1);

  std::filesystem::current_path(folder.path.parent_path());
  EXPECT_EQ(list_plugins(folder.path.filename().string(), "es"), wanted);  // relative, so that CDPATH counts
  EXPECT_EQ(list_plugins(folder.path.string(), "ea"), Lines{"libea.so"});
  for (const std::string& none : {folder.path.string() + "/libes.d.so", folder.path.string() + "/none", std::string()})
    EXPECT_EQ(list_plugins(none, "es"), Lines{}) << none;
  EXPECT_EQ(standin::log_lines(),
            (Lines{"<1> mextension: file name longer than 62 characters, not loaded[" + long_name(63) + "]"}));
}

}  // namespace
