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
  std::set<std::string_view> damaged;      // keys that restrict access and may be set to what cannot be read
  std::vector<StoreComplaint> complaints;  // at most kStoreComplaintsMax
  int more_complaints = 0;                 // bad lines beyond those
};

// Parses a store file's bytes; never fails. A file with a zero byte is not text and gives no keys. A key that restricts
// access is damaged when no good line sets it and the file holds what is not text, when a bad line begins with it or is
// the last one and its beginning, or when it is misspelt in case or by bytes that no key has. Any thread.
StoreText parse_store(std::string_view bytes);

// Reads `text` as a whole decimal number of 32 bits. Returns false, and leaves `value`, when it is not one. Any thread.
bool parse_store_int(std::string_view text, int& value);
