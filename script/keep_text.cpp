#include "script/keep_text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>
#include <vector>

#include "util/lua_binding.h"
#include "util/text.h"

namespace {

constexpr std::string_view kFirstLine = "-- zelvind keep 1\n";

constexpr char kTooLarge[] = "is larger than 64 KiB as text";

// The escapes of one character, and what they stand for.
constexpr std::string_view kEscapes = "nrt\"\\";
constexpr std::string_view kEscaped = "\n\r\t\"\\";

bool is_name(std::string_view text) {
  const auto fits = [](unsigned char c) { return c == '_' || isalnum(c) != 0; };
  return !text.empty() && isdigit(static_cast<unsigned char>(text[0])) == 0 &&
         std::all_of(text.begin(), text.end(), fits);
}

// ---- Writing --------------------------------------------------------------------------------------------------------

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (const size_t found = kEscaped.find(c); found != std::string_view::npos) {
      result += {'\\', kEscapes[found]};
    } else if (byte < ' ' || byte == 0x7f) {
      result += sstr("\\%03d", byte);
    } else {
      result += c;
    }
  }
  return result + '"';
}

// The shortest text that reads back as the same number.
std::string number_text(lua_Number number) {
  if (std::isnan(number)) return "nan";
  constexpr lua_Number kPlain = 1e15;
  char text[40];
  const bool is_whole = std::fabs(number) < kPlain && std::floor(number) == number;
  const auto result = is_whole ? std::to_chars(text, text + sizeof(text), number, std::chars_format::fixed)
                               : std::to_chars(text, text + sizeof(text), number);
  return {text, result.ptr};
}

class Writer {
 public:
  explicit Writer(lua_State* state) : L(state) {}

  // The table on top of the stack, which stays there.
  std::string table(const std::string& where) {  // NOLINT(misc-no-recursion): 16 tables deep at most
    const void* const self = lua_topointer(L, -1);
    if (std::find(above.begin(), above.end(), self) != above.end()) refuse(where, "is a table that holds itself");
    if (above.size() == kKeptDepthMax) refuse(where, "is deeper than 16 tables");
    above.push_back(self);
    std::vector<Entry> entries;
    for (lua_pushnil(L); lua_next(L, -2) != 0; lua_pop(L, 1)) entries.push_back(entry(where));
    above.pop_back();
    std::sort(entries.begin(), entries.end());
    const std::string indent(2 * above.size(), ' ');
    std::string text = "{\n";
    for (const Entry& each : entries) text.append(indent).append("  ").append(each.text).append(",\n");
    return text + indent + "}";
  }

 private:
  struct Entry {
    lua_Number number;  // orders the keys that are numbers
    std::string text;
    bool operator<(const Entry& other) const {
      return number != other.number ? number < other.number : text < other.text;
    }
  };

  [[noreturn]] static void refuse(const std::string& where, const std::string& why) {
    throw ScriptError((where.empty() ? "it" : where) + " " + why);
  }

  // The key and the value on top of the stack.
  Entry entry(const std::string& where) {  // NOLINT(misc-no-recursion): 16 tables deep at most
    const bool is_text = lua_type(L, -2) == LUA_TSTRING;
    const std::string name(is_text ? bytes(-2) : "");
    const bool is_plain = is_name(name);
    const std::string key = is_plain ? name : "[" + scalar(-2, where, "has a key that is") + "]";
    const std::string place = is_plain ? (where.empty() ? key : where + "." + key) : where + key;
    const std::string value = lua_istable(L, -1) ? table(place) : scalar(-1, place, "is");
    Entry result{lua_type(L, -2) == LUA_TNUMBER ? lua_tonumber(L, -2) : -HUGE_VAL, key + " = " + value};
    size += result.text.size() - (lua_istable(L, -1) ? value.size() : 0) + 2 * above.size() + 2;
    if (size > kKeptTextMax) refuse("", kTooLarge);
    return result;
  }

  std::string_view bytes(int index) const {
    if (lua_objlen(L, index) > kKeptTextMax) refuse("", kTooLarge);
    return {lua_tostring(L, index), lua_objlen(L, index)};
  }

  std::string scalar(int index, const std::string& where, const char* is) const {
    switch (lua_type(L, index)) {
      case LUA_TBOOLEAN:
        return lua_toboolean(L, index) != 0 ? "true" : "false";
      case LUA_TNUMBER:
        return number_text(lua_tonumber(L, index));
      case LUA_TSTRING:
        return quoted(bytes(index));
      default:
        refuse(where, std::string(is) + " a " + luaL_typename(L, index) + ", which cannot be kept");
    }
  }

  lua_State* const L;
  std::vector<const void*> above;  // the tables that hold the one being written
  size_t size = 0;                 // of the entries so far, about
};

// ---- Reading --------------------------------------------------------------------------------------------------------

// Leaves values on the Lua stack at a failure; has no destructor to miss when Lua raises.
class Reader {
 public:
  Reader(lua_State* state, char* text, size_t size) : L(state), at(text), end(text + size) {}

  // Pushes the table. False, with `error` set, when the text is not one.
  bool whole() {
    const size_t first = kFirstLine.size();
    if (static_cast<size_t>(end - at) < first || memcmp(at, kFirstLine.data(), first) != 0) {
      return fail("the first line is not '-- zelvind keep 1'");
    }
    if (!take('{')) return fail("expected '{'");
    if (!table(1)) return false;
    skip_space();
    return at == end || fail("more text follows the table");
  }

  const char* error = nullptr;
  int line = 1;

 private:
  bool fail(const char* text) {
    if (error == nullptr) error = text;
    return false;
  }

  void skip_space() {
    for (bool comment = false; at < end; ++at) {
      if (!comment && end - at > 1 && at[0] == '-' && at[1] == '-') comment = true;
      if (*at == '\n') ++line, comment = false;
      if (!comment && strchr(" \t\r\n", *at) == nullptr) return;
      if (*at == '\0') return;
    }
  }

  bool take(char wanted) {
    skip_space();
    if (at == end || *at != wanted) return false;
    ++at;
    return true;
  }

  // Behind the '{'.
  bool table(int depth) {  // NOLINT(misc-no-recursion): 16 tables deep at most
    if (depth > kKeptDepthMax) return fail("the tables are deeper than 16");
    lua_newtable(L);
    while (!take('}')) {
      if (!key()) return false;
      if (!take('=')) return fail("expected '='");
      if (take('{') ? !table(depth + 1) : !scalar()) return false;
      lua_rawset(L, -3);
      if (take(',')) continue;
      if (!take('}')) return fail("expected ',' or '}'");
      return true;
    }
    return true;
  }

  bool key() {
    if (take('[')) {
      if (!scalar()) return false;
      if (lua_type(L, -1) == LUA_TNUMBER && std::isnan(lua_tonumber(L, -1))) return fail("nan cannot be a key");
      return take(']') || fail("expected ']'");
    }
    const std::string_view name = word();
    if (!is_name(name)) return fail("expected a key");
    lua_pushlstring(L, name.data(), name.size());
    return true;
  }

  std::string_view word() {
    const char* const start = at;
    while (at < end && (isalnum(static_cast<unsigned char>(*at)) != 0 || strchr("_+-.", *at) != nullptr) &&
           *at != '\0') {
      ++at;
    }
    return {start, static_cast<size_t>(at - start)};
  }

  bool scalar() {
    if (take('"')) return text();
    const std::string_view value = word();
    if (value == "true" || value == "false") {
      lua_pushboolean(L, value == "true" ? 1 : 0);
      return true;
    }
    double number = 0;
    const auto [rest, result] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (value.empty() || result != std::errc() || rest != value.data() + value.size()) return fail("expected a value");
    lua_pushnumber(L, number);
    return true;
  }

  // Behind the first quote. Resolves the escapes in place: they only get shorter.
  bool text() {
    char* const start = at;
    char* out = at;
    for (; at < end && *at != '"'; ++at) {
      if (static_cast<unsigned char>(*at) < ' ' || *at == 0x7f) return fail("a text does not end in its line");
      if (*at == '\\' && !unescape()) return fail("a text holds an unknown escape");
      *out++ = *at;
    }
    if (at == end) return fail("a text does not end");
    ++at;
    lua_pushlstring(L, start, static_cast<size_t>(out - start));
    return true;
  }

  // At the backslash; afterwards at the escape's last byte, which has become the byte it stands for.
  bool unescape() {
    if (end - at < 2) return false;
    ++at;
    if (const size_t found = kEscapes.find(*at); found != std::string_view::npos) {
      *at = kEscaped[found];
      return true;
    }
    int code = 0;
    if (end - at < 3 || std::from_chars(at, at + 3, code).ptr != at + 3 || code < 0 || code > 255) {
      return false;
    }
    at += 2;
    *at = static_cast<char>(code);
    return true;
  }

  lua_State* const L;
  char* at;
  char* const end;
};

}  // namespace

std::string kept_text(lua_State* L, int index) {
  const int top = lua_gettop(L);
  std::string text(kFirstLine);
  lua_pushvalue(L, index);
  try {
    text += Writer(L).table("") + "\n";
  } catch (...) {
    lua_settop(L, top);
    throw;
  }
  lua_pop(L, 1);
  if (text.size() > kKeptTextMax) throw ScriptError(std::string("it ") + kTooLarge);
  return text;
}

const char* push_kept_table(lua_State* L, char* text, size_t size, int* line) {
  const int top = lua_gettop(L);
  Reader reader(L, text, size);
  if (reader.whole()) return nullptr;
  lua_settop(L, top);
  *line = reader.line;
  return reader.error;
}
