#include "script/script_watch.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "device/log.h"
#include "script/manager_script.h"
#include "util/clock.h"

namespace {

// The hook has this long to name a call; then it counts as being in C code.
constexpr int kNameMs = 200;

// What the lines say about a call.
struct CallText {
  explicit CallText(uint64_t call) : now(LoopStats::read(call)) {}
  const char* kind() const { return activity_name(now.activity); }
  const char* event() const { return now.event < 0 ? "none" : g_loop_stats.event_names.name(now.event); }
  const char* tag() const { return g_loop_stats.tag_names.name(now.tag); }

  const ActivityNow now;
};

// The shorter of two waits, of which 0 is none.
int64_t sooner(int64_t a, int64_t b) {
  return a == 0 || b == 0 ? a + b : std::min(a, b);
}

}  // namespace

int ScriptWatch::look() {
  if (warn_ms == 0 && limit_ms == 0) return -1;
  const uint64_t word = g_loop_stats.word();
  const bool is_new = word != seen;
  if (is_new) {
    seen = word;
    is_decided = is_over = false;
    name_by_ms = 0;
  }
  const int wait_ms = LoopStats::is_call(word) ? look_at_call(word) : 0;
  if (wait_ms > 0) {
    asleep = false;
    return wait_ms;
  }
  if (!is_new && asleep) return -1;
  asleep = !is_new;
  return static_cast<int>(sooner(warn_ms, limit_ms));
}

// Returns in how many ms there is something to do about the call; 0: no more.
int ScriptWatch::look_at_call(uint64_t call) {
  const int64_t age_ms = LoopStats::read(call).for_ns / 1000000;
  const int64_t now_ms = steady_ms();
  if (warn_ms > 0 && !is_decided && age_ms >= warn_ms) begin_to_name(call, now_ms);
  if (limit_ms > 0 && !is_over && age_ms >= limit_ms) {
    is_over = true;
    over_limit = call;
    g_mscript->stop.ask(ScriptStop::kEndCall);
  }
  if (name_by_ms != 0 && now_ms >= name_by_ms) {
    name_by_ms = 0;
    say_slow(call, "in C code");
  }
  const int64_t to_warn = warn_ms > 0 && !is_decided ? warn_ms - age_ms : 0;
  const int64_t to_limit = limit_ms > 0 && !is_over ? limit_ms - age_ms : 0;
  const int64_t to_name_ms = name_by_ms != 0 ? name_by_ms - now_ms : 0;
  return static_cast<int>(sooner(sooner(to_warn, to_limit), to_name_ms));
}

void ScriptWatch::begin_to_name(uint64_t call, int64_t now_ms) {
  is_decided = true;
  NamedTag& tag = named[LoopStats::read(call).tag];
  if (now_ms - tag.at_ms < kOncePerMs) {
    ++tag.left_out;
    return;
  }
  {
    const MutexLock lock(mutex);
    left_out = LeftOut(tag.left_out);
  }
  tag = {now_ms, 0};
  name_by_ms = now_ms + kNameMs;
  noted = call;
  to_name = call;
  g_mscript->stop.ask(ScriptStop::kNameCall);
}

// Writes the line of the call, unless that has been done.
void ScriptWatch::say_slow(uint64_t call, const char* where_it_is) {
  if (!to_name.compare_exchange_strong(call, 0)) return;
  LeftOut end;
  {
    const MutexLock lock(mutex);
    end = left_out;
  }
  const CallText text(call);
  elog(1, "mscript: slow %s: event(%s), tag[%s], %lld ms so far, %s%s", text.kind(), text.event(), text.tag(),
       static_cast<long long>(text.now.for_ns / 1000000), where_it_is, end.text);
}

void ScriptWatch::say_returned(uint64_t call, int64_t ns) {
  to_name.compare_exchange_strong(call, 0);  // it has returned before anybody could tell where it is
  const CallText text(noted);
  elog(1, "mscript: slow %s: event(%s), tag[%s], returned after %lld ms", text.kind(), text.event(), text.tag(),
       static_cast<long long>(ns / 1000000));
}

void ScriptWatch::wake_up() {
  if (asleep.exchange(false)) wake();
}

std::string ScriptWatch::where(int timeout_ms) {
  if (g_loop_stats.call() == 0 && g_loop_stats.activity().activity != Activity::loading) return "";
  MutexLock lock(mutex);
  const uint64_t before = answers;
  g_mscript->stop.ask(ScriptStop::kTellPlace);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (answers == before) {
    if (answered.wait_until(lock, deadline) == std::cv_status::timeout) return "";
  }
  return place;
}

void ScriptWatch::tell_place(const lua_Debug& at) {
  const MutexLock lock(mutex);
  const bool is_file = at.source[0] == '@';
  snprintf(place, sizeof(place), "%s:%d", is_file ? at.source + 1 : at.short_src, at.currentline);
  ++answers;
  answered.notify_all();
}

void ScriptWatch::end_slow(lua_State* L, const lua_Debug& at) {
  const uint64_t call = g_loop_stats.call();
  if (call == 0 || call != over_limit) return g_mscript->stop.unask(ScriptStop::kEndCall);
  const int64_t now_ms = steady_ms();
  if (raised_in == call && now_ms < raise_after_ms) return;
  raised_in = call;
  raise_after_ms = now_ms + ScriptStop::kRespiteMs;
  if (const auto and_more = ended_limit.allow()) {
    const CallText text(call);
    elog(1, "mscript: ended a slow %s: event(%s), tag[%s], %s:%d%s", text.kind(), text.event(), text.tag(),
         at.short_src, at.currentline, and_more->text);
  }
  lua_pushfstring(L, "%s:%d: ended, it has held up the event loop for more than %d ms", at.short_src, at.currentline,
                  limit_ms);
  lua_error(L);
}

void ScriptWatch::look_inside(lua_State* L, const lua_Debug& at, unsigned asked) {
  if ((asked & ScriptStop::kTellPlace) != 0) {
    g_mscript->stop.unask(ScriptStop::kTellPlace);
    tell_place(at);
  }
  if ((asked & ScriptStop::kNameCall) != 0) {
    g_mscript->stop.unask(ScriptStop::kNameCall);
    char text[LUA_IDSIZE + 16];
    snprintf(text, sizeof(text), "%s:%d", at.short_src, at.currentline);
    say_slow(g_loop_stats.call(), text);
  }
  if ((asked & ScriptStop::kEndCall) != 0) end_slow(L, at);
}
