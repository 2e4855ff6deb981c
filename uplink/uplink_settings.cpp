#include "uplink/uplink_settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "device/event_line.h"
#include "device/store_text.h"
#include "util/descriptor.h"
#include "util/safe_text.h"
#include "util/text.h"

namespace {

constexpr int kQuitType = 9999;
constexpr size_t kFileMax = size_t{1024} * 1024;
constexpr size_t kPrefixMax = 256;
constexpr size_t kPatternsMax = 31;        // the daemon follows 32 patterns; the last one is for answers of scripts
constexpr size_t kPatternBytesMax = 3000;  // a request at the control socket is a line of 4096 bytes, '%' is "%25"
constexpr char kAnswerName[] = "uplink_reply";

struct Number {
  const char* key;
  int least, most;
  int UplinkSettings::*value;
};

struct Text {
  const char* key;
  std::string UplinkSettings::*value;
};

struct List {
  const char* key;
  std::vector<std::string> UplinkSettings::*value;
};

// Each key is in one of these tables, or in the last one.
constexpr Number kNumbers[] = {{"down_type", INT_MIN, INT_MAX, &UplinkSettings::down_type},
                               {"down_rate", 1, 1000, &UplinkSettings::down_rate},
                               {"rate", 1, 10000, &UplinkSettings::rate},
                               {"in_flight", 1, 20, &UplinkSettings::in_flight}};
constexpr Text kTexts[] = {
    {"device", &UplinkSettings::device}, {"user", &UplinkSettings::user}, {"prefix", &UplinkSettings::prefix}};
constexpr Text kFiles[] = {{"ca", &UplinkSettings::ca},
                           {"cert", &UplinkSettings::cert},
                           {"key", &UplinkSettings::key},
                           {"password_file", &UplinkSettings::password_file}};
constexpr Text kFolders[] = {{"spool", &UplinkSettings::spool}};
constexpr List kLists[] = {
    {"up", &UplinkSettings::up}, {"urgent", &UplinkSettings::urgent}, {"down", &UplinkSettings::down}};
constexpr const char* kOthers[] = {"broker", "spool_size", "full", "hold_ms"};

std::vector<std::string> known_keys() {
  std::vector<std::string> keys(std::begin(kOthers), std::end(kOthers));
  for (const Number& number : kNumbers) keys.emplace_back(number.key);
  for (const Text& text : kTexts) keys.emplace_back(text.key);
  for (const Text& file : kFiles) keys.emplace_back(file.key);
  for (const Text& folder : kFolders) keys.emplace_back(folder.key);
  for (const List& list : kLists) keys.emplace_back(list.key);
  return keys;
}

std::string shown(std::string_view value) {
  return "'" + escaped(value.substr(0, 100)) + "'";
}

std::vector<std::string> items_of(std::string_view list) {
  std::vector<std::string> items;
  while (!list.empty()) {
    std::string_view item = take_item(list, ',');
    item.remove_prefix(std::min(item.find_first_not_of(" \t"), item.size()));
    item = item.substr(0, item.find_last_not_of(" \t") + 1);
    if (!item.empty()) items.emplace_back(item);
  }
  return items;
}

bool is_device_name(std::string_view text) {
  constexpr char kAllowed[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
  return !text.empty() && text.size() <= 64 && text.find_first_not_of(kAllowed) == std::string_view::npos;
}

// The machine's id is confidential, so it is hashed (FNV-1a, of half its size). Uplinks below other roots of the same
// machine are other devices.
std::string device_of(std::string_view machine_id, const std::string& root) {
  uint64_t hash = 14695981039346656037U;
  for (const std::string_view part : {std::string_view("zelvind-uplink"), machine_id, std::string_view(root)}) {
    for (const char c : part) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
  }
  return sstr("%016llx", static_cast<unsigned long long>(hash));
}

// Goes over a file's values once; what is wrong becomes a problem.
class Reader {
 public:
  Reader(const StoreText& the_store, std::string the_root) : store(the_store), root(std::move(the_root)) {}

  UplinkSettingsResult read(std::string_view machine_id) {
    find_unknown_keys();
    for (const Number& number : kNumbers) read_number(number.key, number.least, number.most, settings.*number.value);
    for (const Text& text : kTexts) settings.*text.value = value_of(text.key);
    for (const Text& file : kFiles) read_path(file);
    for (const Text& folder : kFolders) read_path(folder);
    for (const List& list : kLists) settings.*list.value = items_of(value_of(list.key));
    if (const std::string wrong = read_broker(); !wrong.empty()) problem(wrong);
    read_device(machine_id);
    read_prefix();
    read_spool();
    check_names();
    check_files();
    return std::move(result);
  }

 private:
  void problem(const std::string& sentence) { result.problems.push_back(sentence); }
  void warn(const std::string& sentence) { result.warnings.push_back(sentence); }

  std::string value_of(const char* key) const {
    const auto found = store.values.find(std::string_view(key));
    return found == store.values.end() ? "" : found->second;
  }

  void find_unknown_keys() {
    for (const StoreComplaint& complaint : store.complaints) {
      problem((complaint.line == 0 ? "" : sstr("line %d: ", complaint.line)) + complaint.text);
    }
    if (store.more_complaints > 0) problem(sstr("%d more bad lines", store.more_complaints));
    const std::vector<std::string> known = known_keys();
    for (const auto& [key, value] : store.values) {
      if (std::find(known.begin(), known.end(), key) != known.end()) continue;
      problem("the uplink has no setting " + shown(key) + suggestion_for(key, known));
    }
  }

  void read_number(const char* key, int least, int most, int& value) {
    const auto found = store.values.find(std::string_view(key));
    if (found == store.values.end()) return;
    int number = 0;
    if (parse_store_int(found->second, number) && number >= least && number <= most) {
      value = number;
    } else {
      problem(sstr("%s is %s: expected a whole number from %d to %d", key, shown(found->second).c_str(), least, most));
    }
  }

  // The program and zelvctl may run in different folders, so a path is absolute.
  void read_path(const Text& path) {
    const std::string value = value_of(path.key);
    settings.*path.value = value;
    if (value.empty() || value[0] == '/') return;
    // Somebody may have written the password itself there.
    const bool may_be_secret = path.value == &UplinkSettings::password_file;
    problem(path.key + (may_be_secret ? "" : " is " + shown(value)) + ": expected an absolute path");
  }

  // Returns what is wrong, or an empty text.
  std::string read_broker() {
    const std::string url = value_of("broker");
    std::string_view rest = url;
    const std::string_view scheme = rest.substr(0, std::min(rest.find("://"), rest.size()));
    settings.tls = scheme == "mqtts";
    settings.port = settings.tls ? 8883 : 1883;
    constexpr char kExpected[] = "expected mqtt://HOST[:PORT] or mqtts://HOST[:PORT]";
    if (url.empty()) return std::string("broker is not set: ") + kExpected;
    // Before anything else, and without the value: this goes to a log or a terminal.
    if (url.find('@') != std::string::npos) {
      return "broker holds a user or a password: expected them in user and password_file";
    }
    const std::string wrong = "broker is " + shown(url) + ": ";
    if (scheme != "mqtt" && scheme != "mqtts") return wrong + kExpected;
    rest.remove_prefix(std::min(scheme.size() + 3, rest.size()));
    if (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);
    const bool has_brackets = !rest.empty() && rest.front() == '[';
    const size_t end = has_brackets ? rest.find(']') : rest.find(':');
    settings.host = rest.substr(has_brackets ? 1 : 0, has_brackets ? end - 1 : end);
    const std::string_view behind =
        end == std::string_view::npos ? std::string_view() : rest.substr(end + (has_brackets ? 1 : 0));
    const bool is_host = !settings.host.empty() && settings.host.find_first_of(" \t/?#[]") == std::string::npos &&
                         escaped(settings.host) == settings.host &&
                         (has_brackets == (settings.host.find(':') != std::string::npos));
    if (!is_host || (has_brackets && end == std::string_view::npos)) return wrong + kExpected;
    int port = settings.port;
    const bool has_port = !behind.empty();
    if (has_port && (behind[0] != ':' || !parse_store_int(behind.substr(1), port) || port < 1 || port > 65535)) {
      return wrong + "expected a port from 1 to 65535 behind the host";
    }
    settings.port = port;
    broker_is_good = true;
    return "";
  }

  void read_device(std::string_view machine_id) {
    if (!settings.device.empty() && !is_device_name(settings.device)) {
      return problem("device is " + shown(settings.device) + ": expected 1 to 64 of A-Z, a-z, 0-9, '_' and '-'");
    }
    if (!settings.device.empty()) return;
    machine_id = machine_id.substr(0, machine_id.find_first_of(" \t\r\n"));
    if (machine_id.empty()) return problem("device is not set, and there is no machine id in /etc/machine-id");
    settings.device = device_of(machine_id, root);
  }

  void read_prefix() {
    std::string& prefix = settings.prefix;
    const std::string written = prefix.empty() ? "zelvind/%i" : prefix;
    prefix = written;
    if (settings.device.empty()) return;  // that is the problem
    for (size_t at = 0; (at = prefix.find("%i", at)) != std::string::npos; at += settings.device.size()) {
      prefix.replace(at, 2, settings.device);
    }
    const std::string wrong = "prefix is " + shown(written) + ": ";
    if (prefix.find_first_of("#+") != std::string::npos || escaped(prefix) != prefix) {
      return problem(wrong + "expected UTF-8 without '#', '+' and control characters");
    }
    if (prefix[0] == '$' || prefix[0] == '/')
      return problem(wrong + "expected a topic that does not begin with '$' or '/'");
    if (prefix.back() == '/') return problem(wrong + "expected a topic that does not end in '/'");
    if (prefix.size() > kPrefixMax) problem(wrong + sstr("expected at most %zu bytes", kPrefixMax));
    if (prefix.find('%') != std::string::npos) warn(wrong + "nothing but %i is replaced");
  }

  void read_spool() {
    int kib = static_cast<int>(settings.spool_bytes / 1024);
    read_number("spool_size", 512, 1048576, kib);
    settings.spool_bytes = static_cast<size_t>(kib) * 1024;
    auto hold_ms = static_cast<int>(settings.hold.count());
    read_number("hold_ms", 0, 60000, hold_ms);
    settings.hold = std::chrono::milliseconds(hold_ms);
    if (settings.spool.empty()) settings.spool = root + "/var/lib/zelvind-uplink";
    const std::string full = value_of("full");
    settings.full = full == "drop_newest" ? UplinkSettings::Full::drop_newest : UplinkSettings::Full::drop_oldest;
    if (!full.empty() && full != "drop_newest" && full != "drop_oldest") {
      problem("full is " + shown(full) + ": expected drop_oldest or drop_newest");
    }
  }

  void check_names() {
    for (const List& list : kLists) {
      for (const std::string& name : settings.*list.value) {
        if (const char* const wrong = check_event_name(name))
          problem(sstr("%s: ", list.key) + shown(name) + ": " + wrong);
        if (name.find(';') != std::string::npos)
          warn(sstr("%s: ", list.key) + shown(name) + " is one name: commas separate names");
      }
    }
    size_t bytes = 0;
    for (const std::string& pattern : settings.up) {
      bytes += pattern.size() + 2 * static_cast<size_t>(std::count(pattern.begin(), pattern.end(), '%'));
    }
    if (settings.up.size() > kPatternsMax || bytes > kPatternBytesMax) {
      problem(sstr("up is too long: expected at most %zu patterns, of %zu bytes in all, where '%%' counts for three",
                   kPatternsMax, kPatternBytesMax));
    }
    for (const std::string& name : settings.urgent) {
      if (name.find_first_of("*?") == std::string::npos && !matches_any(settings.up, name)) {
        problem("urgent: no pattern of up matches " + shown(name));
      }
    }
    for (const std::string& name : settings.down) {
      if (name == kAnswerName) problem(sstr("down: '%s' is the name of answers", kAnswerName));
      if (name.find_first_of("*?#+") != std::string::npos)
        problem("down: " + shown(name) + ": expected a name, not a pattern");
    }
    if (settings.down_type == kQuitType)
      problem(sstr("down_type is '%d': that type ends the daemon's event loop", kQuitType));
    if (settings.up.empty() && settings.down.empty()) warn("up and down are empty: nothing but the state is published");
  }

  void check_files() {
    if (settings.cert.empty() != settings.key.empty()) {
      problem(settings.cert.empty() ? "key is set, and cert is not" : "cert is set, and key is not");
    }
    if (settings.user.empty() && !settings.password_file.empty()) problem("password_file is set, and user is not");
    if (settings.tls || !broker_is_good) return;
    for (const char* const key : {"ca", "cert"}) {
      if (!value_of(key).empty()) problem(sstr("%s is set, but broker is not an mqtts:// URL", key));
    }
    if (!settings.password_file.empty()) warn("the password travels unencrypted: broker is not an mqtts:// URL");
  }

  const StoreText& store;
  const std::string root;
  UplinkSettingsResult result;
  UplinkSettings& settings = result.settings;
  bool broker_is_good = false;
};

// Reads a regular file. Returns why it cannot be read, or an empty text.
std::string read_regular_file(const std::string& path, std::string& bytes) {
  const Descriptor file(above_standard_streams(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)));
  struct stat status {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0) return strerrordesc_np(errno);
  if (!S_ISREG(status.st_mode)) return "is not a regular file";
  bytes.clear();
  char piece[4096];
  for (ssize_t got = 0; (got = read(file.get(), piece, sizeof(piece))) != 0;) {
    if (got < 0 && errno != EINTR) return strerrordesc_np(errno);
    if (got > 0) bytes.append(piece, static_cast<size_t>(got));
    if (bytes.size() > kFileMax) return "is larger than 1 MiB";
  }
  return "";
}

}  // namespace

bool matches_any(const std::vector<std::string>& patterns, std::string_view name) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [&](const std::string& pattern) { return matches_pattern(pattern, name); });
}

UplinkSettingsResult parse_uplink_settings(std::string_view bytes, const std::string& root,
                                           std::string_view machine_id) {
  const StoreText store = parse_store(bytes);
  return Reader(store, root).read(machine_id);
}

UplinkSettingsResult read_uplink_settings(const std::string& root) {
  std::string bytes;
  const std::string path = root + kUplinkSettingsPath;
  if (const std::string reason = read_regular_file(path, bytes); !reason.empty()) {
    UplinkSettingsResult result;
    result.problems.push_back(reason);
    return result;
  }
  std::string machine_id;
  read_regular_file("/etc/machine-id", machine_id);
  UplinkSettingsResult result = parse_uplink_settings(bytes, root, machine_id);
  for (const Text& file : kFiles) {
    std::string ignored;
    const std::string& file_path = result.settings.*file.value;
    const std::string reason = file_path[0] == '/' ? read_regular_file(file_path, ignored) : "";
    if (!reason.empty()) result.warnings.push_back(sstr("%s: ", file.key) + escaped(file_path) + ": " + reason);
  }
  return result;
}
