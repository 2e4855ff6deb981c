#include <lua.hpp>

#include "device/config_store.h"
#include "device/settings.h"
#include "device/store_text.h"
#include "tests/device_root_fixture.h"

namespace {

using namespace std::string_literals;

TEST(StoreText, KeysAndComplaints) {
  const std::string longest(kStoreLineMax - 2, 'v');
  const std::pair<std::string, std::string> rows[] = {
      // a file, and its keys in order, then the complaints
      {"\t a \t=\t b  ; c # d = e \r\n", "a=b  ; c # d = e|"},
      {"a=1\na=2", "a=2|"},
      {"a=\n\n#b=1\n ;c=1\n[d]\n", "a=|"},
      {"\xef\xbb\xbfkey=1\n", "key=1|"},
      {"word\na=1\n = 2\n", "a=1|1: the line is not 'key = value'|3: the key is missing|"},
      {"a=" + longest, "a=" + longest + "|"},
      {"a=" + longest + "v\nb=1", "b=1|1: the line is longer than 64 KiB|"},
      {std::string("a=1\n\0", 5), "0: it holds a zero byte, so it is not text and has no keys|"},
  };
  for (const auto& [bytes, expected] : rows) {
    const StoreText store = parse_store(bytes);
    std::string found;
    for (const auto& [key, value] : store.values) found += key + "=" + value + "|";
    for (const auto& complaint : store.complaints)
      found += std::to_string(complaint.line) + ": " + complaint.text + "|";
    EXPECT_EQ(found, expected);
  }
  std::string bad;
  for (int i = 0; i < 25; ++i) bad += "word\n";
  const StoreText store = parse_store(bad);
  EXPECT_EQ(store.complaints.size(), 20u);
  EXPECT_EQ(store.more_complaints, 5);
}

class DeviceStore : public DeviceRoot {
 protected:
  DeviceStore() : folder(root + "/opt/flash/mtd4-cfg/") { std::filesystem::create_directories(folder); }
  ~DeviceStore() override { econf_cleanup(); }

  void write(const std::string& text) const { std::ofstream(folder + "zelvind.info") << text; }
  static econf_handle* open_store() { return econf_open(0, "zelvind.info", "/opt/flash/mtd4-cfg"); }

  const std::string folder;
};

TEST_F(DeviceStore, HandlesGiveValuesOrLeaveTheirPlaceAlone) {
  write("n=-5\nwords=5 apples\nfour=abcd\n");
  econf_handle* store = open_store();
  ASSERT_NE(store, nullptr);
  int value = 77;
  char buffer[5] = "left";
  EXPECT_LT(econf_get_int(store, "words", &value), 0);
  EXPECT_LT(econf_get_str(store, "four", buffer, 4), 0);
  EXPECT_EQ(buffer + std::to_string(value), "left77");
  EXPECT_GE(econf_get_int(store, "n", &value), 0);
  EXPECT_GE(econf_get_str(store, "four", buffer, 5), 0);
  EXPECT_EQ(buffer + std::to_string(value), "abcd-5");
  econf_close(store);
}

// What cannot be read does not count as missing where that would open the listener.
TEST_F(DeviceStore, ADamagedSettingIsNotAMissingOne) {
  const std::string too_long(kStoreLineMax, 'v');
  const std::pair<std::string, std::string> rows[] = {
      {"#listener_allow = 10.0.0.1\nword\n", "missing"},
      {"listener_allow = 10.0.0.1", "10.0.0.1"},
      {"listener_allow = 10.0.0.1," + too_long, "damaged"},
      {"listener_allow = 10.0.0.1\nlistener_allow = " + too_long, "damaged"},
      {"listener_allow = " + too_long + "\nlistener_allow = 10.0.0.1", "10.0.0.1"},
      {"\tlistener_allow: 10.0.0.1", "damaged"},
      {"listener_allowed = 10.0.0.1\n# a \xc3\xa4\t\r\nlistener_a\nno listener_allow\n", "missing"},
      {"listener_address = 127.0.0.1\n"s + '\0', "damaged"},
      {"listener_allow = 10.0.0.1\n# \xff\xff", "10.0.0.1"},
      {"# Ger\xe4t\n", "missing"},
      {"# \xff\xff\n", "damaged"},
      {"# \x8alistener_address = 127.0.0.1", "damaged"},
      {"listener_port = 0\vlistener_allow = 10.0.0.1", "damaged"},
      {"listener_allow\xc2\xa0= 10.0.0.1", "damaged"},
      {"listener_allow = 10.0.0.1\n Listener_\"Allow = 10.0.0.2", "damaged"},
      {"Listener_Allow = 10.0.0.2\nlistener_allow = 10.0.0.1", "10.0.0.1"},
      {"listener_allow510.0.0.1\n#", "damaged"},
      {"=listener_allow = 10.0.0.1\n#", "damaged"},
      {"a = 1\nlistener_a", "damaged"},
      {"a = 1\n=", "missing"},
  };
  for (const auto& [text, expected] : rows) {
    write(text);
    const size_t lines = logged().size();
    const std::optional<std::string> value = SettingsFile().written(settings::listener_allow);
    const bool is_said =
        logged().find("<1> econf: listener_allow cannot be read: it lets nobody in\n", lines) != std::string::npos;
    EXPECT_EQ(!value ? "missing" : is_said ? "damaged" + *value : *value, expected) << text.substr(0, 60);
  }
  write("script_path = /a\nscript_path\nscript_path = "s + too_long + "\n\xff");
  EXPECT_EQ(SettingsFile().text(settings::script_path, "missing"), "/a");
}

TEST_F(DeviceStore, ComplaintsComeOnceForEachStateOfAFile) {
  for (const char* text : {"bad", "bad in another way"}) {
    write(text);
    for (int i = 0; i < 3; ++i) econf_close(open_store());
  }
  const std::string complaint = "<1> econf: " + folder + "zelvind.info:1: the line is not 'key = value'\n";
  EXPECT_EQ(logged(), complaint + complaint);
}

TEST_F(DeviceStore, Lua) {
  write("n = -2147483648\nbig = 2147483648\ns = 5 apples\nempty =\n");
  lua_State* L = luaL_newstate();
  luaL_openlibs(L);
  ASSERT_GE(econf_init(L), 0);
  const std::pair<std::string, const char*> rows[] = {
      {"econf_str('zelvind.info', 's')", "5 apples"},
      {"econf_int('zelvind.info', 'n')", "-2147483648"},
      {"econf_int('zelvind.info', 'big', 'none')", "none"},
      {"econf_int('zelvind.info', 's', 'none')", "none"},
      {"econf_str('zelvind.info', 'empty', 'none')", ""},
      {"econf_str('missing', 'x')", "nil"},
      {"select(2, pcall(econf_str, '../s', 'x'))", "bad argument #1 to '?' (a file name without a slash expected)"},
  };
  for (const auto& [call, result] : rows) {
    ASSERT_EQ(luaL_dostring(L, ("return tostring((" + call + "))").c_str()), 0) << lua_tostring(L, -1);
    EXPECT_STREQ(lua_tostring(L, -1), result) << call;
  }
  lua_close(L);
}

}  // namespace
