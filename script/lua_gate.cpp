#include "script/lua_gate.h"

#include <chrono>

void LuaGate::enter(Turn turn, const std::function<void()>& while_waiting) {
  std::unique_lock<std::mutex> lock(mutex);
  if (turn == Turn::next) ++wishes;
  ++waiting;
  const auto is_mine = [&] { return !held && (turn == Turn::next || wishes == 0); };
  if (while_waiting == nullptr) {
    changed.wait(lock, is_mine);
  } else {
    while (!changed.wait_for(lock, std::chrono::milliseconds(100), is_mine)) while_waiting();
  }
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
