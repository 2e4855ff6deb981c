#include <gtest/gtest.h>

#include <climits>

#include "device/event_line.h"
#include "util/clock.h"
#include "util/safe_text.h"
#include "util/text.h"

namespace {

const struct {
  const char *text, *key;
  int max, result;
  const char* value;
} kFieldCases[] = {
    {"cmd=type&test=33&data=aaa", "data=", 3, 25, "aaa"},
    {"a=1&a=2", "a=", 63, 3, "1"},      // the first wins
    {"a=long&a=2", "a=", 1, -2, ""},    // also when it is too long
    {"x=a=b&y=1", "x=", 63, 5, "a=b"},  // "=" inside a value
    {"&&a=1", "a=", 63, 5, "1"},        // empty items
    {"a", "a=", 63, -1, ""},            // key longer than the item
    {"a=&b=1", "a=", 63, 2, ""},        // an empty value
    {"ab=1&b=2", "b=", 63, 8, "2"},     // the key inside an item
};

TEST(QueryField, FirstMatchingItemDecides) {
  for (const auto& row : kFieldCases) {
    SCOPED_TRACE(testing::Message() << row.key << " in " << row.text);
    char out[64] = "left over";
    EXPECT_EQ(query_field(row.text, row.key, out, row.max), row.result);
    EXPECT_STREQ(out, row.value);
  }
}

TEST(EventLine, GoodAndBadLines) {
  const std::string name_127(127, 'n');
  const std::pair<std::string, std::string> rows[] = {
      // a line, and the error or "type|name|info"
      {"-2147483648 n", "-2147483648|n|"},
      {"1 door  two blanks\t\x01", "1|door| two blanks\t\x01"},
      {"1 " + name_127 + " ", "1|" + name_127 + "|"},
      {"1 " + name_127 + "n", "the name is longer than 127 bytes"},
      {"", "the line is empty"},
      {"7", "the name is missing"},
      {"+1 door", "the type is not a whole number"},
      {"2147483648 door", "the type is out of range"},
      {"1 do\tor", "the name holds a blank or a control character"},
      {std::string("1 door a\0b", 10), "the line holds a zero byte"},
      {"1 n " + std::string(64996, 'x'), "1|n|" + std::string(64996, 'x')},
      {"1 n " + std::string(64997, 'x'), "the line is longer than 65000 bytes"},
  };
  for (const auto& [line, wanted] : rows) {
    SCOPED_TRACE(line.substr(0, 40));
    EventLine event{};
    const char* error = parse_event_line(line, event);
    const std::string parts = sstr("%d|", event.type) + std::string(event.name) + "|" + std::string(event.info);
    EXPECT_EQ(error == nullptr ? parts : error, wanted);
  }
  EventLine glued{};
  EXPECT_NE(parse_event_line("7door x", glued), nullptr);
}

TEST(SafeText, ReadsNothingBehindItsEnd) {
  EXPECT_EQ(escaped(std::string_view("\xe9\x96\x80", 2)), "\\xe9\\x96");
}

TEST(Clock, WrapsInThirtyTwoBits) {
  EXPECT_EQ(clock_ms(1000000000, 500000), -727379468);
  EXPECT_EQ(ms_between(INT_MAX, INT_MIN), 1);
}

}  // namespace
