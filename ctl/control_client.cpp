#include "ctl/control_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <charconv>

#include "ctl/daemon_socket.h"
#include "ctl/failure.h"
#include "util/clock.h"
#include "util/safe_text.h"
#include "util/text.h"
#include "util/unix_socket.h"

namespace {

constexpr size_t kLineMax = size_t{16} * 1024 * 1024;   // the longest that an event's info can become
constexpr size_t kAnswerMax = size_t{2} * 1024 * 1024;  // the daemon cuts its answers at half of that
constexpr char kErrorKind[] = "error:";

template <typename Number>
Number number_in(const std::string& text, Number absent) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && number >= 0 ? number : absent;
}

}  // namespace

AnswerLine::AnswerLine(std::string_view line) : the_kind(take_item(line, ' ')) {
  while (!line.empty()) {
    std::string_view value = take_item(line, ' ');
    if (value.find('=') == std::string_view::npos) continue;
    const std::string_view key = take_item(value, '=');
    raw.emplace(key, value);
  }
}

std::string AnswerLine::text(const char* key, const char* absent) const {
  const auto found = raw.find(key);
  return found == raw.end() ? absent : decoded(found->second);
}

uint64_t AnswerLine::count(const char* key, uint64_t absent) const {
  return number_in(text(key), absent);
}

double AnswerLine::number(const char* key, double absent) const {
  return number_in(text(key), absent);
}

std::vector<std::string> AnswerLine::items(const char* key) const {
  std::vector<std::string> all;
  const auto found = raw.find(key);
  if (found == raw.end() || found->second.empty()) return all;
  std::string_view rest = found->second;
  for (;;) {
    const bool is_last = rest.find(',') == std::string_view::npos;
    all.push_back(decoded(take_item(rest, ',')));
    if (is_last) return all;
  }
}

std::vector<uint64_t> AnswerLine::counts(const char* key) const {
  std::vector<uint64_t> all;
  for (const std::string& item : items(key)) all.push_back(number_in(item, uint64_t{0}));
  return all;
}

std::string decoded(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char byte = 0;
    const bool is_code = text[i] == '%' && i + 2 < text.size() &&
                         std::from_chars(text.data() + i + 1, text.data() + i + 3, byte, 16).ptr == text.data() + i + 3;
    bytes += is_code ? static_cast<char>(byte) : text[i];
    if (is_code) i += 2;
  }
  return bytes;
}

std::string encoded(std::string_view text) {
  std::string value;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    value += byte <= 0x20 || byte == 0x7f || byte == '%' ? sstr("%%%02X", byte) : std::string(1, c);
  }
  return value;
}

const AnswerLine& line_of(const std::vector<AnswerLine>& answer, std::string_view kind) {
  static const AnswerLine none;
  const auto found = std::find_if(answer.begin(), answer.end(), [&](const auto& line) { return line.kind() == kind; });
  return found == answer.end() ? none : *found;
}

uid_t ControlClient::user() const {
  return unix_peer(socket.get()).uid;
}

ControlClient::ControlClient(const std::string& root, int connect_limit_ms, const char* socket_path)
    : socket(connect_to_daemon(root + socket_path, connect_limit_ms)) {}

void ControlClient::send(const std::string& request) {
  const std::string line = request + "\n";
  const ssize_t sent =
      ::send(socket.get(), line.data(), line.size(), MSG_NOSIGNAL);  // waits no longer than the connect
  if (sent == static_cast<ssize_t>(line.size())) return;
  if (sent < 0 && (errno == EPIPE || errno == ECONNRESET)) return;  // it may have said why: next() tells
  fail("failed to ask the daemon: " + error_text(sent < 0 ? errno : EAGAIN));
}

std::vector<AnswerLine> ControlClient::ask(const std::string& request, int limit_ms) {
  send(request);
  std::vector<AnswerLine> answer;
  const uint64_t most = received + kAnswerMax;
  const int64_t deadline = steady_ms() + limit_ms;
  for (;;) {
    AnswerLine line;
    const auto left = static_cast<int>(std::max<int64_t>(deadline - steady_ms(), 0));
    switch (next(line, left)) {
      case Got::line:
        if (received > most) fail(sstr("the daemon's answer is longer than %zu MiB", kAnswerMax >> 20));
        answer.push_back(std::move(line));
        break;
      case Got::end:
        return answer;
      case Got::nothing:
        fail(sstr("the daemon has not answered within %g s", limit_ms / 1000.0));
    }
  }
}

ControlClient::Got ControlClient::next(AnswerLine& line, int wait_ms) {
  const int64_t deadline = steady_ms() + wait_ms;
  for (;;) {
    if (const auto text = first_held_line()) {
      in_answer = !text->empty();
      if (text->empty()) return Got::end;
      line = AnswerLine(*text);
      if (line.kind() != kErrorKind) return Got::line;
      throw Refused(escaped(text->substr(std::min(sizeof(kErrorKind), text->size()))));
    }
    const int64_t left = wait_ms < 0 ? -1 : std::max<int64_t>(deadline - steady_ms(), 0);
    if (!receive(static_cast<int>(left))) return Got::nothing;
  }
}

// It stays valid until the next receive().
std::optional<std::string_view> ControlClient::first_held_line() {
  const size_t end = held.find('\n', searched);
  if (end == std::string::npos) {
    searched = held.size();
    return std::nullopt;
  }
  const std::string_view line = std::string_view(held).substr(used, end - used);
  used = searched = end + 1;
  return line;
}

// Waits for bytes and holds them. Returns false when none came in time.
bool ControlClient::receive(int wait_ms) {
  pollfd entry{socket.get(), POLLIN, 0};
  const int ready = poll(&entry, 1, wait_ms);
  if (ready < 0 && errno != EINTR) fail("failed to wait for the daemon: " + error_text(errno));
  if (ready <= 0) return ready < 0;
  held.erase(0, used);
  searched -= used;
  used = 0;
  if (held.size() > kLineMax) fail("the daemon sent a line that is too long");
  char bytes[65536];
  const ssize_t got = recv(socket.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  if (got <= 0)
    fail(in_answer || !held.empty() ? "the daemon went away in the middle of its answer"
                                    : "the daemon closed the connection");
  held.append(bytes, static_cast<size_t>(got));
  received += static_cast<uint64_t>(got);
  return true;
}
