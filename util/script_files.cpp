#include "util/script_files.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "util/except.h"

namespace {

using Names = std::vector<std::string>;

void remove_names(Names& names, const Names& unwanted) {
  const auto is_unwanted = [&](const std::string& name) {
    return std::find(unwanted.begin(), unwanted.end(), name) != unwanted.end();
  };
  names.erase(std::remove_if(names.begin(), names.end(), is_unwanted), names.end());
}

}  // namespace

bool is_script_name(std::string_view name) {
  return name.size() >= 4 && name.substr(name.size() - 4) == ".lua";
}

std::string script_in(const std::string& dir, const std::string& name) {
  return dir + "/" + name;
}

// The entry's type does not matter: a folder x.lua is listed, and fails to load with its name in the error.
Names list_script_files(const std::string& dir) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(dir.c_str()), closedir);
  if (folder == nullptr) throw except_base("Failed to get script file list in path[%s]", dir.c_str());
  Names names;
  while (const dirent* entry = readdir(folder.get())) {
    if (is_script_name(entry->d_name)) names.emplace_back(entry->d_name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string base_script(const char* name, const std::string& script_path, const std::string& external_path) {
  const std::string external = script_in(external_path, name);
  return access(external.c_str(), F_OK) == 0 ? external : script_in(script_path, name);
}

DirectoryScripts directory_scripts(const std::string& script_path, const std::string& external_path) {
  DirectoryScripts scripts;
  Names script_names = list_script_files(script_path);
  Names external_names;
  try {
    if (!external_path.empty()) external_names = list_script_files(external_path);
  } catch (const std::exception& error) {
    scripts.ignored = error.what();
  }
  const Names loaded_before = {"server_event.lua", "config.lua"};
  remove_names(external_names, loaded_before);
  remove_names(script_names, loaded_before);
  remove_names(script_names, external_names);
  for (const std::string& name : external_names) scripts.paths.push_back(script_in(external_path, name));
  for (const std::string& name : script_names) scripts.paths.push_back(script_in(script_path, name));
  return scripts;
}
