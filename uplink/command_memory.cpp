#include "uplink/command_memory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "device/log.h"
#include "uplink/command_payload.h"
#include "util/descriptor.h"
#include "util/quiet_write.h"
#include "util/text.h"

namespace {

constexpr char kHead[] = "zelvind-uplink commands 1";

// Reads the file into `text`, at most as much as we ever write. Returns 0 or the error's number.
int read_file(const std::string& path, std::string& text) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (file.get() < 0) return errno;
  constexpr size_t kMost = sizeof(kHead) + kCommandsRemembered * (kCommandIdMax + kAnswerRemembered + 2);
  text.resize(kMost);
  size_t size = 0;
  for (;;) {
    const ssize_t got = ::read(file.get(), text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    size += static_cast<size_t>(got);
  }
  text.resize(size);
  return 0;
}

// Makes a rename in the folder of `path` durable.
bool sync_folder_of(const std::string& path) {
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened.get() >= 0 && fsync(opened.get()) == 0;
}

bool replace_file(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".new";
  const Descriptor file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  return file.get() >= 0 && write_fully(file.get(), text.data(), text.size()) && fsync(file.get()) == 0 &&
         rename(temporary.c_str(), path.c_str()) == 0 && sync_folder_of(path);
}

}  // namespace

std::string CommandMemory::read() {
  struct stat found {};
  if (stat(folder.c_str(), &found) != 0) found = {};
  const Place place{found.st_dev, found.st_ino};
  if (is_read && place == read_from) return "";
  std::string text;
  const int error = read_file(path, text);
  if (error != 0 && error != ENOENT) return "failed to read " + path + ": " + strerrordesc_np(error);
  const std::deque<Entry> known = std::exchange(entries, {});
  if (!text.empty()) take_text(text);
  is_read = true;
  read_from = place;
  for (const Entry& entry : known) merge(entry);
  if (!known.empty()) write();  // if that fails, the next id brings them there
  return "";
}

void CommandMemory::take_text(std::string_view rest) {
  int damaged = take_item(rest, '\n') == kHead ? 0 : 1;
  while (!rest.empty()) damaged += take_line(take_item(rest, '\n')) ? 0 : 1;
  if (damaged > 0) elog(1, "uplink: %d lines of %s are damaged: their commands may run again", damaged, path.c_str());
}

// What this run knows is younger than what another folder holds.
void CommandMemory::merge(const Entry& known) {
  Entry* const found = entry_of(known.id);
  if (found == nullptr) {
    entries.push_back(known);
    if (entries.size() > kCommandsRemembered) entries.pop_front();
  } else if (!known.answer.empty()) {
    found->answer = known.answer;
  }
}

// Takes a line over and returns true, or false when it is damaged. Of a good id with a damaged answer the id counts:
// its command must not run again. An answer is an object that we wrote, so it begins with the same id.
bool CommandMemory::take_line(std::string_view line) {
  const std::string_view id = take_item(line, ' ');
  if (!is_command_id(id) || find(id) != nullptr) return false;
  const std::string begin = R"({"id":")" + std::string(id) + "\",";
  const bool is_whole = line.substr(0, begin.size()) == begin && line.back() == '}' && line.size() <= kAnswerRemembered;
  entries.push_back({std::string(id), is_whole ? std::string(line) : ""});
  if (entries.size() > kCommandsRemembered) entries.pop_front();
  return is_whole || line.empty();
}

CommandMemory::Entry* CommandMemory::entry_of(std::string_view id) {
  const auto found = std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) { return entry.id == id; });
  return found == entries.end() ? nullptr : &*found;
}

const std::string* CommandMemory::find(std::string_view id) {
  const Entry* const entry = entry_of(id);
  return entry == nullptr ? nullptr : &entry->answer;
}

std::string CommandMemory::add(const std::string& id) {
  Entry oldest;
  const bool is_full = entries.size() == kCommandsRemembered;
  if (is_full) {
    oldest = std::move(entries.front());
    entries.pop_front();
  }
  entries.push_back({id, ""});
  std::string error = write();
  if (error.empty()) return error;
  entries.pop_back();
  if (is_full) entries.push_front(std::move(oldest));
  return error;
}

std::string CommandMemory::set_answer(std::string_view id, const std::string& answer) {
  Entry* const entry = entry_of(id);
  if (entry == nullptr || entry->answer == answer) return "";
  entry->answer = answer;
  const std::string unread = read();  // the folder may be another one by now
  return unread.empty() ? write() : unread;
}

std::string CommandMemory::write() const {
  std::string text = std::string(kHead) + "\n";
  for (const Entry& entry : entries) text += entry.id + (entry.answer.empty() ? "" : " ") + entry.answer + "\n";
  return replace_file(path, text) ? "" : "failed to write " + path + ": " + strerrordesc_np(errno);
}
