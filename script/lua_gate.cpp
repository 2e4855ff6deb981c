#include "script/lua_gate.h"

void LuaGate::enter(Turn turn) {
  std::unique_lock<std::mutex> lock(mutex);
  if (turn == Turn::next) ++wishes;
  ++waiting;
  changed.wait(lock, [&] { return !held && (turn == Turn::next || wishes == 0); });
  --waiting;
  if (turn == Turn::next) --wishes;
  held = true;
  holder = std::this_thread::get_id();
}

void LuaGate::leave() {
  bool somebody_waits = false;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    held = false;
    somebody_waits = waiting > 0;
  }
  if (somebody_waits) changed.notify_all();
}

bool LuaGate::held_here() {
  const std::lock_guard<std::mutex> lock(mutex);
  return held && holder == std::this_thread::get_id();
}
