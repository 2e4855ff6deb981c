// One plug-in: its library, its entry points, and the calls into it.
//
// What is hard about it: nothing of a plug-in may be left when its library is closed, neither an exception object,
// whose class may be the plug-in's own, nor a Lua frame. So every call here ends with a plain text.
#pragma once

#include <sys/types.h>

#include <lua.hpp>
#include <string>

// What sets the two kinds apart.
struct PluginKind {
  const char* tag;   // in file names and commands
  const char* name;  // in log lines
  const char* init;  // names of the entry points
  const char* prepare_cleanup;
  const char* cleanup;
  const char* open_error;  // printf format; may name the file with %s
  bool has_lua;            // its entry points are given the Lua state, or may use it
};

extern const PluginKind kEventSource;
extern const PluginKind kEventAction;

struct LoadedPlugin {
  using EntryPoint = void (*)();

  const PluginKind* kind;
  std::string path;                      // as passed to dlopen
  void* handle = nullptr;                // null when closed
  dev_t device = 0;                      // which file that is, once it has been opened
  ino_t inode = 0;                       // 0: not known
  EntryPoint init = nullptr;             // int (*)(), or int (*)(lua_State*) when the kind has Lua
  EntryPoint prepare_cleanup = nullptr;  // may be null
  EntryPoint cleanup = nullptr;
};

// All of these are called on the main thread.

// Opens the library path names through the loader's own search path. Throws except_base.
void open_plugin(LoadedPlugin& plugin);

// Looks up the entry points of an open plug-in and calls its init; `L` is used for a kind that has Lua. Throws
// except_base, also for whatever came out of init.
void init_plugin(LoadedPlugin& plugin, lua_State* L);

// Calls prepare_cleanup when the plug-in has one. What comes out of it is logged.
void prepare_plugin(LoadedPlugin& plugin, lua_State* L);

// Calls cleanup when it was found, closes the library and clears the record; does nothing when it is not open. What
// comes out of cleanup, and a library that cannot be closed, is logged.
void unload_plugin(LoadedPlugin& plugin);
