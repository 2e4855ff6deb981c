// keep(name [, default]): a table of a script's that survives reloads and restarts.
//
// The table is an ordinary one: nothing tells when a script changes it. So a timer looks at all of them every 30 s,
// makes their texts (about a millisecond for 64 KiB), and has those written that differ from what the files hold.
#pragma once

#include <lua.hpp>
#include <map>
#include <string>

#include "script/keep_file.h"

// All kept tables. Only the thread that has the Lua state.
class ScriptKeep {
 public:
  static constexpr size_t kMost = 64;    // names
  static constexpr int kIntervalS = 30;  // between two looks

  struct Kept {
    int ref = LUA_NOREF;   // registry reference to the table
    std::string in_file;   // the text of the table as it is in the file, or as it was at the start
    std::string said;      // the last complaint about the table's content
    bool writable = true;  // false while the file may hold something good that could not be read
  };

  // The entry of `name`, or null.
  const Kept* find(const std::string& name) const;
  // Takes over the registry reference. Fewer than kMost names may be there.
  void add(const std::string& name, Kept kept) { tables.insert_or_assign(name, std::move(kept)); }
  size_t size() const { return tables.size(); }

  // Begins to write the files of the tables that have changed, unless a round of writing is still under way.
  void write_changed(lua_State* L);

  // Writes what has changed, waits until that is done, and forgets all tables: the state is about to be closed.
  void finish(lua_State* L);

 private:
  void take_results();

  std::map<std::string, Kept> tables;
  KeepWriter writer;
};

// The Lua function; script/script_api.cpp registers it.
int keep(lua_State* L);
