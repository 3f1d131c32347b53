// SPDX-License-Identifier: LGPL-3.0-or-later
// The dump files of a folder. On a cluster they lie in folders of the nodes below it.
#pragma once

#include <string>
#include <system_error>
#include <vector>

namespace tavrix::events {

struct DumpName {
  std::string path;
  std::string node;  // whose folder it lies in; empty for a file of the folder itself
  auto operator<=>(const DumpName&) const = default;
};

struct DumpFolder {
  std::vector<DumpName> dumps;  // in order of their paths
  // Other files lie there and no dump files, finished or not: somebody named it by mistake. An
  // empty folder may get some, because the agent takes the files away.
  bool is_another = false;
  std::error_code error;  // why the folder itself could not be read
};
[[nodiscard]] DumpFolder look_into(const std::string& folder);

}  // namespace tavrix::events
