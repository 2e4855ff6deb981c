#include "ctl/completion.h"

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string_view>

#include "ctl/inspect/answers.h"

namespace {

constexpr std::string_view kRootIs = "--root=";
constexpr int kConnectLimitMs = 200;
constexpr int kAnswerWaitMs = 500;

using Takes = Parameter::Takes;

constexpr Parameter kCommon[] = {
    {"--help", Takes::nothing}, {"--version", Takes::nothing}, {"--root", Takes::value, nullptr, "DIR"}};

bool is_option(std::string_view name) {
  return name.substr(0, 1) == "-";
}

bool is_harmless(const std::string& name) {
  constexpr char kHarmless[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.:@%+,/-";
  return name.find_first_not_of(kHarmless) == std::string::npos && name.front() != '-';
}

// What the words before the last one have settled.
class Place {
 public:
  Place(const std::vector<Command>& all, const std::vector<std::string>& words) : commands(all) {
    const char* root_by_environment = getenv("DEVICE_ROOT");  // NOLINT(concurrency-mt-unsafe): no other thread runs
    if (root_by_environment != nullptr) root = root_by_environment;
    for (const std::string& word : words) pass(word);
  }

  std::vector<std::string> candidates(const std::string& begun,
                                      const std::function<std::vector<std::string>(const std::string&)>& event_names) {
    if (lost) return {};
    if (option != nullptr) return of_kind(option->value_name, event_names);
    if (!behind_dashes && is_option(begun)) return options();
    if (command == nullptr) return command_names();
    const Parameter* const next = next_argument();
    return next == nullptr ? std::vector<std::string>() : of_kind(next->name, event_names);
  }

 private:
  void pass(const std::string& word) {
    if (option != nullptr) {
      if (option->name == std::string_view("--root")) root = word;
      option = nullptr;
    } else if (!behind_dashes && word == "--") {
      behind_dashes = true;
    } else if (!behind_dashes && is_option(word)) {
      if (word.compare(0, kRootIs.size(), kRootIs) == 0) root = word.substr(kRootIs.size());
      option = find_option(word);
      if (option != nullptr && option->takes == Takes::nothing) option = nullptr;
    } else if (command == nullptr) {
      command = find_command(word);
      lost |= command == nullptr;
    } else {
      ++arguments;
    }
  }

  const Command* find_command(const std::string& name) const {
    const auto found = std::find_if(commands.begin(), commands.end(), [&](const Command& c) { return c.name == name; });
    return found == commands.end() ? nullptr : &*found;
  }

  const Parameter* find_option(const std::string& name) const {
    const auto has_name = [&](const Parameter& p) { return p.name != nullptr && p.name == name; };
    if (command != nullptr) {
      const auto* const found = std::find_if(std::begin(command->parameters), std::end(command->parameters), has_name);
      if (found != std::end(command->parameters)) return found;
    }
    const auto* const found = std::find_if(std::begin(kCommon), std::end(kCommon), has_name);
    return found == std::end(kCommon) ? nullptr : found;
  }

  std::vector<std::string> options() const {
    std::vector<std::string> names;
    for (const Parameter& common : kCommon) names.emplace_back(common.name);
    if (command == nullptr) return names;
    for (const Parameter& parameter : command->parameters) {
      if (parameter.name != nullptr && is_option(parameter.name)) names.emplace_back(parameter.name);
    }
    return names;
  }

  std::vector<std::string> command_names() const {
    std::vector<std::string> names;
    for (const Command& each : commands) names.emplace_back(each.name);
    return names;
  }

  // The argument that comes now; one that takes several stays the last one.
  const Parameter* next_argument() const {
    size_t left = arguments;
    for (const Parameter& parameter : command->parameters) {
      if (parameter.name == nullptr || is_option(parameter.name)) continue;
      if (left-- == 0 || parameter.takes == Takes::values) return &parameter;
    }
    return nullptr;
  }

  std::vector<std::string> of_kind(const char* kind,
                                   const std::function<std::vector<std::string>(const std::string&)>& event_names) {
    const std::string_view name = kind == nullptr ? "" : kind;
    if (name == "DIR" || name == "FILE" || name == "PATH") return {kFiles};
    if (name.substr(0, 4) != "NAME") return {};
    std::vector<std::string> names = event_names(root);
    names.erase(std::remove_if(names.begin(), names.end(), [](auto& each) { return !is_harmless(each); }), names.end());
    return names;
  }

  const std::vector<Command>& commands;
  std::string root;
  const Command* command = nullptr;
  const Parameter* option = nullptr;  // whose value comes now
  size_t arguments = 0;
  bool behind_dashes = false;
  bool lost = false;  // the command is unknown
};

std::vector<std::string> names_known_to_daemon(const std::string& root) {
  std::set<std::string> names;
  try {
    ControlClient daemon(root, kConnectLimitMs);
    add_event_names(daemon.ask("stats", kAnswerWaitMs), names);
    add_event_names(daemon.ask("scripts", kAnswerWaitMs), names);
  } catch (const Failure&) {  // then there are fewer names, or none
  }
  names.erase("");
  return {names.begin(), names.end()};
}

}  // namespace

std::vector<std::string> completions(
    const std::vector<Command>& commands, const std::vector<std::string>& words,
    const std::function<std::vector<std::string>(const std::string& root)>& event_names) {
  if (words.empty()) return {};
  const std::string& begun = words.back();
  std::vector<std::string> found = Place(commands, {words.begin(), words.end() - 1}).candidates(begun, event_names);
  const auto differs = [&](const std::string& each) {
    return each != kFiles && each.compare(0, begun.size(), begun) != 0;
  };
  found.erase(std::remove_if(found.begin(), found.end(), differs), found.end());
  return found;
}

void print_completions(const std::vector<Command>& commands, const std::vector<std::string>& words, FILE* out) {
  for (const std::string& each : completions(commands, words, names_known_to_daemon))
    fprintf(out, "%s\n", each.c_str());
}
