// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/places.hpp"

#include <strings.h>
#include <algorithm>
#include <array>
#include <string_view>

#include "tools/mapdiff/child_index.hpp"
#include "tools/mapdiff/marks.hpp"

namespace tavrix::mapdiff {
namespace {

constexpr std::size_t kSides = 2;  // the old map and the new one
constexpr std::string_view kShared = "Shared";

// A lookup takes names that differ in case only for the same.
int order_of(std::string_view a, std::string_view b) {
  const int order = strncasecmp(a.data(), b.data(), std::min(a.size(), b.size()));
  if (order != 0 || a.size() == b.size()) return order;
  return a.size() < b.size() ? -1 : 1;
}

struct Folder {
  std::size_t side;
  uint32_t offset;
};

// The end of a lookup.
struct Match {
  uint32_t folder = 0;
  uint32_t holder = 0;   // the nearest folder with entries, from this one upwards; or the root
  bool is_exact = true;  // the folder is the path itself, not one that stands in for it
  [[nodiscard]] Governor governor() const {
    return {.holder = holder, .is_own = is_exact && holder == folder};
  }
};

// Folders of one path, from one map or both. Their names may differ in case.
struct Group {
  std::vector<Folder> folders;
  std::array<Match, kSides> matches;
};

// The folders in a group, on the way to places. Folders of one name follow each other.
class Level {
 public:
  // A name, or all that is below it. The paths of a tree are not sorted as its folders are: "a b"
  // comes after "a", but before "a/x".
  struct Step {
    std::size_t first, end;  // among the folders
    bool is_below;
  };

  void fill(const std::array<const ImageView*, kSides>& maps,
            const std::array<Marks, kSides>& marks, const Group& group) {
    named_.clear();
    steps_.clear();
    next_ = 0;
    matches_ = group.matches;
    for (const Folder& folder : group.folders) {
      const ImageView& map = *maps[folder.side];
      const Children children(map, folder.offset);
      for (uint32_t slot = 0; slot < children.size(); ++slot) {
        const uint32_t child = children[slot];
        if (!marks[folder.side].lead_through(child)) continue;
        named_.push_back(
            {name_of(map, child), {folder.side, child}, Children(map, child).size() > 0});
      }
    }
    if (named_.empty()) return;
    for (std::size_t side = 0; side < kSides; ++side) {
      names_[side].clear();
      if (matches_[side].is_exact) names_[side].fill(*maps[side], matches_[side].folder);
    }
    sort_steps();
  }

  // The next step; nothing at the end.
  [[nodiscard]] const Step* next() { return next_ < steps_.size() ? &steps_[next_++] : nullptr; }
  [[nodiscard]] std::string_view name_of_step(const Step& step) const {
    return named_[step.first].name;
  }
  void read_group(const std::array<const ImageView*, kSides>& maps, const Step& step,
                  Group& group) const {
    group.folders.clear();
    for (std::size_t i = step.first; i < step.end; ++i) group.folders.push_back(named_[i].folder);
    const Folder& first = named_[step.first].folder;
    const ImageView& map = *maps[first.side];
    const uint32_t hash = map.name_of(map.fselem(first.offset)).hashval;
    for (std::size_t side = 0; side < kSides; ++side) {
      group.matches[side] = match_of(*maps[side], side, name_of_step(step), hash);
    }
  }
  [[nodiscard]] Match match_of(const ImageView& map, std::size_t side, std::string_view name,
                               uint32_t hash) const {
    Match match = matches_[side];
    if (!match.is_exact) return match;
    const uint32_t child = names_[side].find(name, hash);
    match.is_exact = child != ChildIndex::kNone;
    if (!match.is_exact) return match;
    match.folder = child;
    if (has_entries(map, child)) match.holder = child;
    return match;
  }

 private:
  struct Named {
    std::string_view name;
    Folder folder;
    bool has_children;
  };
  [[nodiscard]] bool goes_on(std::size_t first, std::size_t end) const {
    for (std::size_t i = first; i < end; ++i) {
      if (named_[i].has_children) return true;
    }
    return false;
  }

  void sort_steps() {
    std::ranges::sort(named_,
                      [](const Named& a, const Named& b) { return order_of(a.name, b.name) < 0; });
    for (std::size_t first = 0, end = 0; first < named_.size(); first = end) {
      while (end < named_.size() && order_of(named_[first].name, named_[end].name) == 0) ++end;
      steps_.push_back({first, end, false});
      if (goes_on(first, end)) steps_.push_back({first, end, true});
    }
    const auto order = [this](const Step& a, const Step& b) { return precedes(a, b); };
    if (!std::ranges::is_sorted(steps_, order)) std::ranges::sort(steps_, order);
  }
  // Compares paths: a step below ends in a slash.
  [[nodiscard]] bool precedes(const Step& a, const Step& b) const {
    const std::string_view left = name_of_step(a);
    const std::string_view right = name_of_step(b);
    const std::size_t both = std::min(left.size(), right.size());
    const int order = strncasecmp(left.data(), right.data(), both);
    if (order != 0) return order < 0;
    const auto byte_behind = [both](std::string_view name, const Step& step) -> int {
      if (both < name.size()) return static_cast<unsigned char>(name[both]);
      return step.is_below ? '/' : '\0';
    };
    return byte_behind(left, a) < byte_behind(right, b);
  }

  std::array<Match, kSides> matches_;
  std::array<ChildIndex, kSides> names_;
  std::vector<Named> named_;
  std::vector<Step> steps_;
  std::size_t next_ = 0;
};

// The walk through both maps at once, down the ways to the marked folders. The way down is kept on
// the heap, because a map may be deeper than the stack allows.
class Walk {
 public:
  Walk(const ImageView& old_map, const ImageView& new_map,
       const std::function<void(const Place&)>& visit)
      : maps_{&old_map, &new_map}, marks_{Marks(old_map), Marks(new_map)}, visit_(visit) {}

  void mark(const Difference& difference) {
    for (const FolderPair& pair : difference.changed) marks_[1].add(pair.new_folder);
    for (const Subtree& gone : difference.removed) marks_[0].add_those_with_entries(gone.folder);
    for (const Subtree& come : difference.added) marks_[1].add_those_with_entries(come.folder);
    for (const Move& move : difference.moved) {
      marks_[0].add_those_with_entries(move.old_folder);
      marks_[1].add_those_with_entries(move.new_folder);
    }
  }

  void run() {
    const Group root{{{0, 0}, {1, 0}}, {}};
    const Group shared = shared_in_root();
    // Everybody may read Shared itself; the entries of the root pass down to what is in it.
    if (is_place(root) || is_place(shared)) tell(std::string(kShared), shared);
    go_below(shared);
  }

 private:
  [[nodiscard]] Group shared_in_root() const {
    Group shared;
    for (std::size_t side = 0; side < kSides; ++side) {
      const ImageView& map = *maps_[side];
      Match& match = shared.matches[side];
      match.is_exact = false;
      const Children children(map, 0);
      for (uint32_t slot = 0; slot < children.size(); ++slot) {
        const uint32_t child = children[slot];
        if (order_of(name_of(map, child), kShared) != 0) continue;
        shared.folders.push_back({side, child});
        if (match.is_exact) continue;  // a lookup finds the first
        match = {child, has_entries(map, child) ? child : 0, true};
      }
    }
    return shared;
  }

  void go_below(const Group& top) {
    std::size_t depth = 1;
    level_at(depth).fill(maps_, marks_, top);
    Group group;
    while (depth > 0) {
      const Level::Step* step = level_at(depth).next();
      if (step == nullptr) {
        --depth;
        continue;
      }
      level_at(depth).read_group(maps_, *step, group);
      if (step->is_below) {
        level_at(++depth).fill(maps_, marks_, group);
      } else if (is_place(group)) {
        tell(path_of_place(group), group);
      }
    }
  }

  Level& level_at(std::size_t depth) {
    if (levels_.size() < depth) levels_.resize(depth);
    return levels_[depth - 1];
  }
  [[nodiscard]] bool is_marked(const Folder& folder) const {
    return marks_[folder.side].has(folder.offset);
  }
  [[nodiscard]] bool is_place(const Group& group) const {
    return std::ranges::any_of(group.folders,
                               [this](const Folder& folder) { return is_marked(folder); });
  }
  // Of several spellings, the first.
  [[nodiscard]] std::string path_of_place(const Group& group) const {
    std::string path;
    for (const Folder& folder : group.folders) {
      if (!is_marked(folder)) continue;
      std::string spelling = path_of(*maps_[folder.side], folder.offset);
      if (path.empty() || spelling < path) path = std::move(spelling);
    }
    return path;
  }
  void tell(std::string path, const Group& group) {
    visit_({std::move(path), group.matches[0].governor(), group.matches[1].governor()});
  }

  std::array<const ImageView*, kSides> maps_;
  std::array<Marks, kSides> marks_;
  const std::function<void(const Place&)>& visit_;
  std::vector<Level> levels_;
};

}  // namespace

void visit_places(const ImageView& old_map, const ImageView& new_map, const Difference& difference,
                  const std::function<void(const Place&)>& visit) {
  Walk walk(old_map, new_map, visit);
  walk.mark(difference);
  walk.run();
}

}  // namespace tavrix::mapdiff
