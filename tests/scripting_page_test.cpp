// Runs the examples of docs/scripting.md and those of lua/examples/.

#include <vector>

#include "tests/script_fixture.h"

namespace {

class ScriptingPage : public ScriptFixture {};

// A script file of its own; a first line "-- NAME.lua" names it. Lines "--> text" tell what it traces in two minutes.
struct Example {
  std::string file = "example.lua";
  std::string code;
  std::string traced;
};

std::vector<Example> examples_of_page() {
  std::vector<Example> examples;
  std::ifstream page(ZELVIND_DOCS_DIR "/scripting.md");
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    inside = inside && line != "```";
    if (inside) {
      Example& example = examples.back();
      if (example.code.empty() && line.compare(0, 3, "-- ") == 0) example.file = line.substr(3);
      if (line.compare(0, 4, "--> ") == 0) example.traced += (example.traced.empty() ? "" : "|") + line.substr(4);
      example.code += line + "\n";
    }
    if (line == "```lua") examples.emplace_back(), inside = true;
  }
  return examples;
}

TEST_F(ScriptingPage, ExamplesDoWhatTheySay) {
  const std::vector<Example> examples = examples_of_page();
  EXPECT_GT(examples.size(), 20u);
  for (const Example& example : examples) {
    SCOPED_TRACE(example.code);
    begin();
    write("scripts/" + example.file, example.code);
    EXPECT_NO_THROW(load());
    for (int i = 0; i < 600; ++i) pass(200);
    EXPECT_EQ(traced(), example.traced);
  }
}

TEST_F(ScriptingPage, ExamplesToStartFrom) {
  copy("examples");
  load();
  const std::pair<const char*, const char*> events[] = {
      {"door", "state=open&by=alice"}, {"door", "state=shut"}, {"heartbeat", "from=pump"},
      {"heartbeat", "from=nobody"},    {"report", ""},         {"uplink", "state=up"}};
  for (const auto& [name, info] : events) standin::post(1, name, info);
  for (int i = 0; i < 10; ++i) pass(20);
  EXPECT_EQ(traced(),
            "uplink is down, next look in 100 ms|the door is open, says alice|the door is shut|"
            "no report: the process plug-in is not loaded|uplink is up");
  for (int i = 0; i < 100; ++i) pass(1000);
  const std::string reports = traced();
  EXPECT_NE(reports.find("up for 0 s, "), std::string::npos);
  EXPECT_LT(reports.find("silence of pump: begins"), reports.find("silence of heater: begins"));
  EXPECT_NE(reports.find("silence of heater: begins"), std::string::npos);
  EXPECT_EQ(reports.find("failed"), std::string::npos);
}

}  // namespace
