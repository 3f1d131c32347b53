// SPDX-License-Identifier: LGPL-3.0-or-later
// The nodes of a cluster whose records they are. A record is known by its dump file, and that by
// the folder of its node.
#pragma once

#include <sqlite3.h>
#include <map>
#include <string>

#include "tools/history/record.hpp"

namespace tavrix::history {

// Looks at each dump once. Only records that are shown get their nodes: a search looks at many more
// than it shows.
class Nodes {
 public:
  explicit Nodes(sqlite3* database);

  // Sets the record's node; leaves it empty for a machine alone. Returns false on a failure.
  [[nodiscard]] bool set(Record& record);

 private:
  Statement find_;
  std::map<int64_t, std::string> known_;  // by dump
};

}  // namespace tavrix::history
