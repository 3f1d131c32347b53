// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/events/dump_folder.hpp"

#include <algorithm>
#include <filesystem>

#include "eventstore.h"
#include "tools/cluster/node_folders.hpp"
#include "utils/staging/dump_in_flight.hpp"

namespace tavrix::events {
namespace {

namespace fs = std::filesystem;

// Flushes write to such a file before it gets its name, those of audits to the second kind.
constexpr const char* kTempAuditPrefix = "adtemp";
bool is_unfinished_dump(const std::string& name) {
  return name.starts_with(kTempDumpPrefix) || name.starts_with(kTempAuditPrefix);
}

struct Count {
  std::size_t dumps = 0, others = 0;
};

// Takes the files of one folder; `others` are the names that no flush gives.
Count take(const std::string& folder, const std::string& node, DumpFolder& found,
           std::error_code& error) {
  Count count;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    const bool is_dump = name.starts_with(TAVRIX_DUMP_FILE_PREFIX);
    if (is_dump) found.dumps.push_back({entry->path(), node});
    ++(is_dump || is_unfinished_dump(name) ? count.dumps : count.others);
  }
  return count;
}

}  // namespace

DumpFolder look_into(const std::string& folder) {
  DumpFolder found;
  Count all = take(folder, "", found, found.error);
  // A node's folder counts by what is in it. It may go while this looks.
  const auto nodes = found.error ? std::vector<std::string>() : cluster::nodes_in(folder);
  all.others -= std::min(all.others, nodes.size());
  for (const std::string& node : nodes) {
    std::error_code none;
    const Count count = take(cluster::folder_of(folder, node), node, found, none);
    all.dumps += count.dumps;
    all.others += count.others;
  }
  std::ranges::sort(found.dumps);
  found.is_another = all.dumps == 0 && all.others > 0;
  return found;
}

}  // namespace tavrix::events
