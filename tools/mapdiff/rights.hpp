// SPDX-License-Identifier: LGPL-3.0-or-later
// Who gains and who loses what, where: the decision is asked about both maps.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/mapdiff/crowd.hpp"
#include "tools/mapdiff/difference.hpp"

namespace tavrix::mapdiff {

// A folder, or what inherits from it, or both: below a folder the right to navigate counts no more.
enum class Reach { kFolder, kBelow, kFolderAndBelow };

struct RightsChange {
  std::string path;  // relative to the share
  Reach reach = Reach::kFolder;
  // Shared, because few lists of people stand for many places.
  std::shared_ptr<const std::vector<explain::Trustee>> whom;
  uint32_t gained = 0, lost = 0;
};

// Hands each change to its argument.
using RightsSource = std::function<void(const std::function<void(const RightsChange&)>&)>;

// Tells the changes by path, each as soon as it is known: millions of them need no memory. The
// rights on folders are those of the decision; a path that a map does not have is governed by the
// folder that stands in for it. Only Shared is ruled by the map.
void tell_changed_rights(const ImageView& old_map, const ImageView& new_map,
                         const Difference& difference, const Crowd& crowd,
                         const std::function<void(const RightsChange&)>& tell);

}  // namespace tavrix::mapdiff
