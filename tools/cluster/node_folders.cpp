// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/node_folders.hpp"

#include <sys/stat.h>
#include <algorithm>
#include <filesystem>

#include "tools/cluster/node.hpp"
#include "utils/staging/sync_folder.hpp"

namespace tavrix::cluster {

namespace fs = std::filesystem;

std::string folder_of(const std::string& shared, const std::string& node) {
  return (fs::path(shared) / node).string();
}

void make_folder(const std::string& path) {
  if (mkdir(path.c_str(), 0700) == 0) sync_folder(fs::path(path).parent_path().c_str());
}

std::vector<std::string> nodes_in(const std::string& shared) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(shared, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    std::error_code none;
    if (is_node_name(name) && entry->is_directory(none)) names.push_back(name);
  }
  std::ranges::sort(names);
  return names;
}

}  // namespace tavrix::cluster
