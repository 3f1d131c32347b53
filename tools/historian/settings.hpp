// SPDX-License-Identifier: LGPL-3.0-or-later
// The historian's settings, from tavrix.conf and from the shared block.
#pragma once

#include <string>
#include <vector>

#include "tools/historian/mass_changes.hpp"
#include "tools/historian/retention.hpp"

namespace tavrix::historian {

struct Settings {
  std::string database;
  std::string group;  // may read the database; empty: nobody but root
  Limits limits;
  Threshold deletions;
  Threshold renames;
  // The agent's folders, as the server processes know them. On a cluster those of all nodes lie in
  // them.
  std::string staging;
  std::string auditing;
  bool has_nodes = false;
  std::vector<std::string> warnings;  // about wrong values
};

[[nodiscard]] Settings read_settings(const std::string& file);

}  // namespace tavrix::historian
