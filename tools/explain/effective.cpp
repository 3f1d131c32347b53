// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/effective.hpp"

#include <algorithm>
#include <string_view>
#include <unordered_set>

#include "permissions/map/path_elements.hpp"
#include "tools/explain/excerpt.hpp"

namespace tavrix::explain {
namespace {

constexpr uint32_t kNobody = 0xFFFFFFFEU;  // an id that no entry is about

using mapcheck::Walk;

std::string below(const std::string& path, std::string_view name) {
  return path.empty() ? std::string(name) : path + "/" + std::string(name);
}

// Readers meet the entries in the reverse of their stored order.
std::vector<Entry> entries_of(const Walk& walk, const Walk::Folder& folder) {
  const auto stored = walk.entries_of(folder);
  std::vector<Entry> entries;
  for (uint32_t i = stored.size; i > 0; --i) {
    const beace_s entry = stored[i - 1];
    entries.push_back({{entry.idtype == IDTYPE_UID, entry.id}, entry.perm_mask});
  }
  return entries;
}

std::vector<Walk::Folder> way_to(const Walk& walk, Walk::Folder folder) {
  std::vector<Walk::Folder> way;
  for (; folder.offset != 0; folder = walk.parent_of(folder)) way.push_back(folder);
  std::reverse(way.begin(), way.end());
  return way;
}

// The way to a folder, and of the folders in it those that a lookup may take for one of the names:
// the first of them in the order of the map is the one that it finds.
Excerpt excerpt_of(const Walk& walk, const Walk::Folder& folder,
                   const std::vector<std::string_view>& names) {
  Excerpt excerpt(entries_of(walk, walk.root()));
  uint32_t top = 0;
  for (const Walk::Folder& above : way_to(walk, folder)) {
    top = excerpt.add(top, std::string(walk.name_of(above)), entries_of(walk, above));
  }
  std::unordered_set<uint32_t> hashes;
  for (const std::string_view name : names) hashes.insert(hash_name(name));
  const auto children = walk.children_of(folder);
  for (uint32_t slot = 0; slot < children.size; ++slot) {
    const Walk::Folder child = walk.child(folder, children, slot);
    if (!hashes.contains(hash_name(walk.name_to_scan(child)))) continue;
    excerpt.add(top, std::string(walk.name_of(child)), entries_of(walk, child));
  }
  return excerpt;
}

class Tree {
 public:
  Tree(const Person& person, const Map& map, const TreeWish& wish) : map_(map), wish_(wish) {
    question_.person = person;
    question_.op = FSOP_STAT;
    question_.type = FSTYPE_FOLDER;
    question_.map = map.image;
  }

  [[nodiscard]] std::vector<SeenFolder> seen(const Walk::Folder& top) {
    map_.walk.vouch_for(top);
    visit(top, wish_.path, 0);
    return std::move(seen_);
  }

  [[nodiscard]] std::vector<SeenFolder> children(const std::vector<std::string_view>& names) {
    for (const std::string_view name : names) seen_.push_back(look_at(below(wish_.path, name), 1));
    return std::move(seen_);
  }

 private:
  // Adds the folder and what is below it; takes it back if nothing there is to be shown. The depth
  // of the tree that was asked for bounds the recursion.
  bool visit(const Walk::Folder& folder, const std::string& path, int level) {
    const Walk& walk = map_.walk;
    const std::size_t place = seen_.size();
    static_cast<void>(walk.entries_of(folder));  // which the decision reads
    seen_.push_back(look_at(path, level));
    bool is_shown = is_wanted(seen_.back());
    if (level < wish_.depth) {
      if (level > 0) walk.vouch_for_next(folder);
      const auto children = walk.children_of(folder);
      for (uint32_t slot = 0; slot < children.size; ++slot) {
        const Walk::Folder child = walk.child(folder, children, slot);
        if (visit(child, below(path, walk.name_of(child)), level + 1)) is_shown = true;
      }
    }
    if (!is_shown) seen_.resize(place);
    return is_shown;
  }

  [[nodiscard]] SeenFolder look_at(const std::string& path, int level) {
    question_.path = TAVRIX_TREE "/" + path;
    const Facts facts = ask(question_).facts;
    return {path, level, facts.row ? facts.row->self : 0, facts.is_granted()};
  }

  [[nodiscard]] bool is_wanted(const SeenFolder& folder) const {
    const bool is_writable = (folder.mask & TAVRIX_PERM_MASK_RDWR) == TAVRIX_PERM_MASK_RDWR;
    return wish_.only_writable ? is_writable : folder.is_visible || is_writable;
  }

  const Map map_;
  const TreeWish& wish_;
  Question question_;
  std::vector<SeenFolder> seen_;
};

}  // namespace

std::vector<SeenFolder> tree_for(const Person& person, const Map& map, const TreeWish& wish) {
  const auto top = map.walk.find(wish.path);
  if (!top.exact) return {};
  return Tree(person, map, wish).seen(top.folder);
}

// A lookup goes through all folders of a folder, so a page of a folder with a million of them is
// asked about in an excerpt, where they are few.
std::vector<SeenFolder> children_for(const Person& person, const Walk& walk,
                                     const Walk::Folder& folder,
                                     const std::vector<std::string_view>& names) {
  TreeWish wish;
  wish.path = walk.path_of(folder).substr(1);
  const auto image = excerpt_of(walk, folder, names).image();
  return Tree(person, {image.data(), walk}, wish).children(names);
}

Person member_of(uint32_t gid, uint32_t power_users) {
  Person person;
  person.uid = person.gid = kNobody;
  person.groups = {gid, power_users};
  return person;
}

std::string letters(uint32_t mask) {
  std::string text = "rwdnv";
  for (std::size_t bit = 0; bit < text.size(); ++bit) {
    if ((mask >> bit & 1U) == 0) text[bit] = '-';
  }
  return text;
}

}  // namespace tavrix::explain
