#include "ctl/post.h"

#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "ctl/failure.h"
#include "device/event_line.h"
#include "device/event_queue.h"
#include "util/text.h"

namespace {

constexpr size_t kBlock = size_t{128} * 1024;
static_assert(kBlock > 2 * kEventLineMax, "an unfinished line must leave room to read on");

constexpr char kQuitRefused[] = "type 9999 ends the daemon's event loop; add --quit if that is meant";

[[noreturn]] void refuse(const std::string& sentence) {
  throw Failure(Exit::usage, sentence);
}

void check_field(const std::string& field) {
  const size_t equals = field.find('=');
  if (equals == std::string::npos) refuse("'" + field + "' is not FIELD=VALUE");
  const std::string name = field.substr(0, equals);
  const char* const error = check_event_field(name, std::string_view(field).substr(equals + 1));
  if (error != nullptr) refuse((name.empty() ? "'" + field + "': " : "field '" + name + "': ") + error);
}

// Checks whole lines and stops at the first bad one.
class LineCheck {
 public:
  explicit LineCheck(bool allow_quit) : quit_allowed(allow_quit) {}

  // How many of `bytes` are good lines, line feeds included. A line without its line feed waits for the rest.
  size_t good_bytes(std::string_view bytes) {
    size_t good = 0;
    while (complaint.empty() && good < bytes.size()) {
      const size_t feed = bytes.find('\n', good);
      const bool whole = feed != std::string_view::npos;
      const std::string_view line = bytes.substr(good, whole ? feed - good : std::string_view::npos);
      if (!whole && line.size() <= kEventLineMax) break;
      ++line_number;
      check(line);
      if (complaint.empty()) good = feed + 1;
    }
    return good;
  }

  // What is wrong with the first bad line and how many are sent before it, or empty.
  std::string complaint;

 private:
  void check(std::string_view line) {
    EventLine event{};
    const char* error = parse_event_line(line, event);
    if (error == nullptr && event.type == EVENT_TYPE_QUIT && !quit_allowed) error = kQuitRefused;
    if (error == nullptr) return;
    complaint = sstr("line %llu: %s; events sent before it: %llu", line_number, error, line_number - 1);
  }

  const bool quit_allowed;
  unsigned long long line_number = 0;
};

// Reads what is there into block[held] and behind. Returns the number of bytes, 0 at the end of the input.
size_t read_some(int input, char* block, size_t held) {
  for (;;) {
    const ssize_t got = read(input, block + held, kBlock - held);
    if (got >= 0) return static_cast<size_t>(got);
    if (errno != EINTR && errno != EAGAIN) refuse("failed to read standard input: " + error_text(errno));
  }
}

}  // namespace

std::string line_of_event(const std::string& type, const std::string& name, const std::vector<std::string>& fields,
                          bool quit_allowed) {
  if (const char* error = check_event_name(name)) refuse("NAME '" + name + "': " + error);
  std::string line = type + " " + name;
  char separator = ' ';
  for (const std::string& field : fields) {
    check_field(field);
    line += separator + field;
    separator = '&';
  }
  EventLine event{};
  const char* error = parse_event_line(line, event);
  if (error == nullptr && event.name.data() != line.data() + type.size() + 1) error = "the type is not a whole number";
  if (error != nullptr) refuse("TYPE '" + type + "', NAME '" + name + "': " + error);
  if (event.type == EVENT_TYPE_QUIT && !quit_allowed) refuse(kQuitRefused);
  return line + "\n";
}

void post_lines(int input, bool quit_allowed, EventConnection& connection) {
  LineCheck lines(quit_allowed);
  std::vector<char> block(kBlock + 1);  // one byte more for the line feed that the last line may lack
  size_t held = 0;
  for (bool more = true; more && lines.complaint.empty();) {
    connection.wait_for_input(input);
    const size_t got = read_some(input, block.data(), held);
    more = got > 0;
    held += got;
    if (!more && held > 0) block[held++] = '\n';
    const size_t good = lines.good_bytes(std::string_view(block.data(), held));
    connection.send(std::string_view(block.data(), good));
    held -= good;
    memmove(block.data(), block.data() + good, held);
  }
  connection.finish(quit_allowed);
  if (!lines.complaint.empty()) refuse(lines.complaint);
}
