// SPDX-License-Identifier: LGPL-3.0-or-later
// The folders in a folder, a page at a time, in an order that does not depend on the map's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/mapcheck/walk.hpp"

namespace tavrix::mapbrowse {

// A total order of names: ASCII letters without regard to case, and bytes where that is the same.
[[nodiscard]] bool comes_before(std::string_view a, std::string_view b);

struct Child {
  std::string_view name;  // in the image
  uint32_t offset = 0;
};

struct Page {
  std::vector<Child> children;
  uint32_t total = 0;  // folders in the folder, of this page and of all others
  bool more = false;
};

// The first `limit` folders behind the name `after`, which need not exist: a page that begins there
// is right too when the map has changed. Folders of the same name stay together on one page, so
// that a page behind its last name misses none.
[[nodiscard]] Page page_of(const mapcheck::Walk& walk, const mapcheck::Walk::Folder& folder,
                           const std::optional<std::string>& after, std::size_t limit);

}  // namespace tavrix::mapbrowse
