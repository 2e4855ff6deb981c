// The text of a configuration store file:
//
//   # a comment, as is a line that begins with ";"
//   [sections are ignored]
//   key = value
//
// Blanks around a key and a value are dropped; within a value everything counts, "#", ";" and "=" too. Of equal keys
// the last counts. A line has at most 64 KiB. Described for users in docs/configuration.md.
//
// Uses no file and no log: tests and the fuzzer feed it bytes.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t kStoreLineMax = size_t{64} * 1024;  // bytes, without the line end
constexpr size_t kStoreComplaintsMax = 20;           // bad lines reported one by one; the others are counted

struct StoreComplaint {
  int line;  // counted from 1; 0: the file as a whole
  const char* text;
};

struct StoreText {
  std::map<std::string, std::string, std::less<>> values;
  std::set<std::string, std::less<>> damaged;  // keys that a bad line begins with, and no good one after it
  bool is_text = true;                         // false: any key may have been there
  std::vector<StoreComplaint> complaints;      // at most kStoreComplaintsMax
  int more_complaints = 0;                     // bad lines beyond those
};

// Whether the file sets `key` to something that cannot be read, or may do so. Any thread.
bool is_damaged(const StoreText& store, std::string_view key);

// Parses a store file's bytes; never fails. A file with a zero byte is not text and gives no keys. Any thread.
StoreText parse_store(std::string_view bytes);

// Reads `text` as a whole decimal number of 32 bits. Returns false, and leaves `value`, when it is not one. Any thread.
bool parse_store_int(std::string_view text, int& value);
