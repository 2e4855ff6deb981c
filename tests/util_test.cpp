#include <gtest/gtest.h>

#include <climits>

#include "util/clock.h"
#include "util/event_line.h"
#include "util/text.h"

namespace {

struct FieldCase {
  const char* text;
  const char* key;
  int max;
  int result;
  const char* value;
};

const FieldCase kFieldCases[] = {
    {"cmd=type&test=33&data=aaa", "data=", 63, 25, "aaa"},
    {"cmd=type&test=33&data=aaa", "data=", 3, 25, "aaa"},
    {"cmd=type&test=33&data=aaa", "data=", 2, -2, ""},
    {"cmd=type&test=33&data=aaa", "kkk=", 63, -1, ""},
    {"a=1&a=2", "a=", 63, 3, "1"},      // the first wins
    {"a=long&a=2", "a=", 1, -2, ""},    // also when it is too long
    {"x=", "x=", 63, 2, ""},            // empty value
    {"x=a=b&y=1", "x=", 63, 5, "a=b"},  // "=" inside a value
    {" name=1", "name=", 63, -1, ""},   // nothing is trimmed
    {"", "a=", 63, -1, ""},             //
    {"&&a=1", "a=", 63, 5, "1"},        // empty items
    {"b=1&", "a=", 63, -1, ""},         // ends in "&"
    {"a", "a=", 63, -1, ""},            // key longer than the item
    {"a=1&b=2", "a=1&b=", 63, -1, ""},  // "&" in the key
    {"first&b=2", "", 63, 5, "first"},  // empty key
};

TEST(QueryField, FirstMatchingItemDecides) {
  for (const FieldCase& row : kFieldCases) {
    SCOPED_TRACE(testing::Message() << row.key << " in " << row.text);
    char out[64] = "left over";
    EXPECT_EQ(query_field(row.text, row.key, out, row.max), row.result);
    EXPECT_STREQ(out, row.value);
  }
}

struct LineCase {
  std::string line;
  const char* error;  // null: a good line
  int type;
  const char* name;
  const char* info;
};

TEST(EventLine, GoodAndBadLines) {
  const std::string name_127(127, 'n');
  const LineCase cases[] = {
      {"1 door state=open&by=me", nullptr, 1, "door", "state=open&by=me"},
      {"-2147483648 n", nullptr, -2147483648, "n", ""},
      {"1 door ", nullptr, 1, "door", ""},
      {"1 door  two blanks\t\x01", nullptr, 1, "door", " two blanks\t\x01"},
      {"1 " + name_127, nullptr, 1, name_127.c_str(), ""},
      {"1 " + name_127 + "n", "the name is longer than 127 bytes", 0, "", ""},
      {"", "the line is empty", 0, "", ""},
      {"7", "the name is missing", 0, "", ""},
      {"7 ", "the name is missing", 0, "", ""},
      {"7  x", "the name is missing", 0, "", ""},
      {"x door", "the type is no whole number", 0, "", ""},
      {"+1 door", "the type is no whole number", 0, "", ""},
      {"1.5 door", "the type is no whole number", 0, "", ""},
      {"2147483648 door", "the type is out of range", 0, "", ""},
      {"1 do\tor", "the name holds a blank or a control character", 0, "", ""},
      {std::string("1 door a\0b", 10), "the line holds a zero byte", 0, "", ""},
      {"1 n " + std::string(64997, 'x'), "the line is longer than 65000 bytes", 0, "", ""},
  };
  for (const LineCase& row : cases) {
    SCOPED_TRACE(row.line.substr(0, 40));
    EventLine event{};
    const char* error = parse_event_line(row.line, event);
    EXPECT_STREQ(error, row.error);
    if (error != nullptr || row.error != nullptr) continue;
    EXPECT_EQ(event.type, row.type);
    EXPECT_EQ(event.name, row.name);
    EXPECT_EQ(event.info, row.info);
  }
}

TEST(Text, CharIndexUsesTheLowByte) {
  EXPECT_EQ(char_index("abc", 'b'), 1);
  EXPECT_EQ(char_index("abc", 'z'), 3);
  EXPECT_EQ(char_index("abc", 0), 3);
  EXPECT_EQ(char_index("abc", 256 + 'c'), 2);
}

TEST(Text, FormattedTextIsCutAt2047) {
  EXPECT_EQ(sstr("%s", std::string(5000, 'x').c_str()).size(), 2047u);
}

TEST(Clock, WrapsInThirtyTwoBits) {
  EXPECT_EQ(clock_ms(1000000000, 500000), -727379468);
  EXPECT_EQ(ms_between(INT_MAX, INT_MIN), 1);
  EXPECT_EQ(ms_between(5, -5), -10);
}

}  // namespace
