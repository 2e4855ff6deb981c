// What happens to a message on its way out. Whatever a client, an event or a script put into it, it must not forge a
// line or control a terminal:
//
//   - a line end that the program itself wrote stays: in the white space that ends the format, and anywhere in a format
//     without conversions; any other becomes "\n";
//   - every other control character becomes such an escape too ("\t", "\x1b"), and so does a byte that is not UTF-8;
//   - everything else, UTF-8 included, stays as it is.
#include "device/log.h"

#include <pthread.h>
#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <type_traits>

#include "device/host/log_target.h"
#include "util/safe_text.h"

namespace {

// Any thread may use both until the process is gone: nothing here is destroyed at exit.
std::atomic<int> g_level{1};
LogTarget g_target;
static_assert(std::is_trivially_destructible_v<LogTarget>, "the log outlives everything");

constexpr size_t kPiecesMax = size_t{1024} * 1024;  // bytes held for a line that does not end

// A script's os.setlocale affects the whole process; it must not change how the log writes a number.
class PlainLocale {
 public:
  PlainLocale() : before(uselocale(plain())) {}
  PlainLocale(const PlainLocale&) = delete;
  PlainLocale& operator=(const PlainLocale&) = delete;
  ~PlainLocale() { uselocale(before); }

 private:
  static locale_t plain() {
    static const locale_t the_locale = newlocale(LC_ALL_MASK, "C", nullptr);  // kept: the last line may come at exit
    return the_locale;
  }
  const locale_t before;
};

std::string format_text(const char* format, va_list arguments) {
  const PlainLocale locale;
  char buffer[1024];
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(buffer, sizeof(buffer), format, arguments);
  std::string text;
  if (length < 0) {
    text = format;
  } else if (static_cast<size_t>(length) < sizeof(buffer)) {
    text.assign(buffer, static_cast<size_t>(length));
  } else {
    text.resize(static_cast<size_t>(length));
    vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

bool has_conversions(const char* format) {
  for (const char* c = strchr(format, '%'); c != nullptr; c = strchr(c + 2, '%')) {
    if (c[1] != '%') return true;
  }
  return false;
}

size_t trailing_white_space(const char* format) {
  const std::string_view text(format);
  const size_t last = text.find_last_not_of(" \t\n\v\f\r");
  return last == std::string_view::npos ? text.size() : text.size() - last - 1;
}

// Formats a message like printf, whatever the locale, and makes it safe as described above.
std::string log_text(const char* format, va_list arguments) {
  const std::string raw = format_text(format, arguments);
  const size_t tail = has_conversions(format) ? trailing_white_space(format) : raw.size();
  return escaped(raw, tail);
}

// Whether `text` ends in a line of nothing but blanks: the beginning of a line that more pieces will complete.
bool ends_in_blanks(const std::string& text) {
  const size_t last = text.find_last_not_of(' ');
  return last != std::string::npos && last + 1 < text.size() && text[last] == '\n';
}

// The beginning of a line that a thread has not completed yet.
struct Pieces {
  std::string text;
  bool framed = false;
  int level = 0;
};

void flush(Pieces& pieces) {
  if (pieces.text.empty()) return;
  if (pieces.text.back() != '\n') pieces.text += '\n';  // not completed: the next line must not continue it
  g_target.write(pieces.level, pieces.framed, pieces.text, nullptr);
  pieces = Pieces();
}

void end_of_thread(void* own) {
  auto* pieces = static_cast<Pieces*>(own);
  flush(*pieces);
  delete pieces;
}

pthread_key_t pieces_key() {
  // Not thread_local: a plug-in may still log while the objects of its thread are being destroyed, and then gets new
  // memory.
  static const pthread_key_t key = [] {
    pthread_key_t made{};
    pthread_key_create(&made, end_of_thread);
    return made;
  }();
  return key;
}

Pieces& own_pieces() {
  auto* pieces = static_cast<Pieces*>(pthread_getspecific(pieces_key()));
  if (pieces == nullptr) {
    pieces = new Pieces;
    pthread_setspecific(pieces_key(), pieces);
  }
  return *pieces;
}

void flush_own_pieces() {
  auto* pieces = static_cast<Pieces*>(pthread_getspecific(pieces_key()));
  if (pieces != nullptr) flush(*pieces);
}

void say_line(int level, const char* format, va_list arguments) {
  std::string text = log_text(format, arguments);
  flush_own_pieces();
  if (ends_in_blanks(text)) {
    own_pieces() = Pieces{std::move(text), true, level};
    return;
  }
  if (text.empty() || text.back() != '\n') text += '\n';
  g_target.write(level, true, text, format);
}

void say_piece(int level, const char* format, va_list arguments) {
  Pieces& pieces = own_pieces();
  pieces.text += log_text(format, arguments);
  pieces.level = level;
  if ((!pieces.text.empty() && pieces.text.back() == '\n') || pieces.text.size() > kPiecesMax) flush(pieces);
}

using Say = void (*)(int level, const char* format, va_list arguments);

// Callers may look at errno after they have logged it. Without memory the line is lost, and nothing else.
void say_safely(Say say, int level, const char* format, va_list arguments) {
  const int error = errno;
  try {
    say(level, format, arguments);
  } catch (const std::exception&) {
    g_target.count_lost();
  }
  errno = error;
}

}  // namespace

extern "C" {

void elog_set_level(const char*, int level) {
  g_level.store(level, std::memory_order_relaxed);
}

void errlog_init(int facility, const char* name) {
  g_target.open(facility, name);
  const auto before = [] { g_target.before_fork(); };
  const auto after = [] { g_target.after_fork(); };
  const auto in_child = [] { g_target.after_fork_in_child(); };
  static const int registered = pthread_atfork(before, after, in_child) + atexit([] { g_target.finish(); });
  (void)registered;
}

void elog_divert(void (*take)(int level, const char* lines, size_t size)) {
  g_target.divert(take);
}

void log_counts_now(log_counts* out) {
  *out = g_target.counts();
}

void elog(int level, const char* format, ...) {
  if (level > g_level.load(std::memory_order_relaxed)) return;
  va_list arguments;
  va_start(arguments, format);
  say_safely(say_line, level, format, arguments);
  va_end(arguments);
}

void elogr(int level, const char* format, ...) {
  if (level > g_level.load(std::memory_order_relaxed)) return;
  va_list arguments;
  va_start(arguments, format);
  say_safely(say_piece, level, format, arguments);
  va_end(arguments);
}
}
