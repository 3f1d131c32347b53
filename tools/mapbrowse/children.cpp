// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapbrowse/children.hpp"

#include <algorithm>

#include "tools/mapbrowse/letters.hpp"

namespace tavrix::mapbrowse {
namespace {

using mapcheck::Walk;

bool is_before(const Child& a, const Child& b) { return comes_before(a.name, b.name); }

std::vector<Child> children_behind(const Walk& walk, const Walk::Folder& folder,
                                   const Walk::Children& children,
                                   const std::optional<std::string>& after) {
  std::vector<Child> behind;
  behind.reserve(children.size);
  for (uint32_t slot = 0; slot < children.size; ++slot) {
    const Walk::Folder child = walk.child(folder, children, slot);
    const std::string_view name = walk.name_to_scan(child);
    if (!after || comes_before(*after, name)) behind.push_back({name, child.offset});
  }
  return behind;
}

}  // namespace

bool comes_before(std::string_view a, std::string_view b) {
  const std::size_t common = std::min(a.size(), b.size());
  for (std::size_t at = 0; at < common; ++at) {
    const unsigned char x = upper(a[at]);
    const unsigned char y = upper(b[at]);
    if (x != y) return x < y;
  }
  return a.size() != b.size() ? a.size() < b.size() : a < b;
}

Page page_of(const Walk& walk, const Walk::Folder& folder, const std::optional<std::string>& after,
             std::size_t limit) {
  const Walk::Children children = walk.children_of(folder);
  Page page;
  page.total = children.size;
  page.children = children_behind(walk, folder, children, after);
  auto& list = page.children;
  if (list.size() > limit) {
    // Only those of the page are put in order.
    const auto last = list.begin() + static_cast<std::ptrdiff_t>(limit) - 1;
    std::nth_element(list.begin(), last, list.end(), is_before);
    const std::string_view border = last->name;
    const auto end = std::partition(last + 1, list.end(),
                                    [border](const Child& child) { return child.name == border; });
    page.more = end != list.end();
    list.erase(end, list.end());
  }
  std::stable_sort(list.begin(), list.end(), is_before);
  return page;
}

}  // namespace tavrix::mapbrowse
