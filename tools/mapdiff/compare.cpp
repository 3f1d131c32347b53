// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/compare.hpp"

#include <algorithm>
#include <cstring>

#include "tools/mapdiff/moves.hpp"

namespace tavrix::mapdiff {
namespace {

constexpr uint32_t kNone = UINT32_MAX;
constexpr uint64_t kFoldersBetweenReports = 4096;

// Most folders of two maps have the same bytes here, which spares reading the entries.
bool have_same_bytes(const beacl_s& one, const beacl_s& other) {
  return one.num_aces == other.num_aces &&
         std::memcmp(&one + 1, &other + 1, one.num_aces * sizeof(beace_s)) == 0;
}

}  // namespace

Difference Comparison::run(uint32_t old_folder, uint32_t new_folder,
                           const mapcheck::Progress& progress) {
  Difference found;
  uint64_t done = 0;
  const uint64_t all = old_map_.header().total_fselems;
  to_come_.assign(1, {old_folder, new_folder});
  while (!to_come_.empty()) {
    const FolderPair pair = to_come_.back();
    to_come_.pop_back();
    if (!has_same_entries(pair)) found.changed.push_back(pair);
    pair_children(pair, found);
    if (progress && ++done % kFoldersBetweenReports == 0) progress(done, all);
  }
  return found;
}

bool Comparison::is_same(uint32_t old_folder, uint32_t new_folder) {
  Difference found;
  to_come_.assign(1, {old_folder, new_folder});
  while (!to_come_.empty()) {
    const FolderPair pair = to_come_.back();
    to_come_.pop_back();
    if (!has_same_entries(pair)) return false;
    pair_children(pair, found);
    if (!found.is_empty()) return false;
  }
  return true;
}

bool Comparison::has_same_entries(FolderPair pair) {
  const beacl_s& old_acl = old_map_.acl_of(old_map_.fselem(pair.old_folder));
  const beacl_s& new_acl = new_map_.acl_of(new_map_.fselem(pair.new_folder));
  if (have_same_bytes(old_acl, new_acl)) return true;
  read_entries(old_map_, pair.old_folder, old_entries_);
  read_entries(new_map_, pair.new_folder, new_entries_);
  return old_entries_ == new_entries_;
}

bool Comparison::have_same_name(uint32_t old_folder, uint32_t new_folder) const {
  return name_of(old_map_, old_folder) == name_of(new_map_, new_folder);
}

// Pairs children by place as long as their names agree, which is all of them in most folders, and
// the others by name.
void Comparison::pair_children(FolderPair parents, Difference& found) {
  const Children olds(old_map_, parents.old_folder);
  const Children news(new_map_, parents.new_folder);
  const uint32_t both = std::min(olds.size(), news.size());
  uint32_t same = 0;
  while (same < both && have_same_name(olds[same], news[same])) ++same;
  if (same < olds.size() || same < news.size()) pair_by_name(olds, news, same, found);
  for (uint32_t slot = same; slot > 0; --slot) {
    to_come_.push_back({olds[slot - 1], news[slot - 1]});
  }
}

void Comparison::sort_names(const ImageView& map, const Children& children, uint32_t first,
                            std::vector<Named>& names) {
  names.clear();
  for (uint32_t slot = first; slot < children.size(); ++slot) {
    names.push_back({name_of(map, children[slot]), slot});
  }
  std::stable_sort(names.begin(), names.end(),
                   [](const Named& a, const Named& b) { return a.name < b.name; });
}

void Comparison::pair_by_name(const Children& olds, const Children& news, uint32_t first,
                              Difference& found) {
  sort_names(old_map_, olds, first, old_names_);
  sort_names(new_map_, news, first, new_names_);
  partner_.assign(news.size(), kNone);
  const std::size_t removed_before = found.removed.size();
  auto candidate = new_names_.begin();
  for (const Named& named : old_names_) {
    while (candidate != new_names_.end() && candidate->name < named.name) ++candidate;
    if (candidate != new_names_.end() && candidate->name == named.name) {
      partner_[candidate->slot] = olds[named.slot];
      ++candidate;
    } else {
      found.removed.push_back({olds[named.slot], 0});
    }
  }
  const auto tops = found.removed.begin() + static_cast<std::ptrdiff_t>(removed_before);
  std::sort(tops, found.removed.end(),
            [](const Subtree& a, const Subtree& b) { return a.folder < b.folder; });
  for (uint32_t slot = first; slot < news.size(); ++slot) {
    if (partner_[slot] == kNone) found.added.push_back({news[slot], 0});
  }
  for (uint32_t slot = news.size(); slot > first; --slot) {
    if (partner_[slot - 1] != kNone) to_come_.push_back({partner_[slot - 1], news[slot - 1]});
  }
}

std::vector<EntryChange> changed_entries(const std::vector<Entry>& old_entries,
                                         const std::vector<Entry>& new_entries) {
  std::vector<EntryChange> changes;
  const auto precedes = [](const Entry& a, const Entry& b) {
    return a.type != b.type ? a.type < b.type : a.id < b.id;
  };
  auto before = old_entries.begin();
  auto after = new_entries.begin();
  while (before != old_entries.end() || after != new_entries.end()) {
    if (after == new_entries.end() || (before != old_entries.end() && precedes(*before, *after))) {
      changes.push_back({before->type, before->id, before->mask, std::nullopt});
      ++before;
    } else if (before == old_entries.end() || precedes(*after, *before)) {
      changes.push_back({after->type, after->id, std::nullopt, after->mask});
      ++after;
    } else {
      if (before->mask != after->mask) {
        changes.push_back({before->type, before->id, before->mask, after->mask});
      }
      ++before;
      ++after;
    }
  }
  return changes;
}

Difference compare(const ImageView& old_map, const ImageView& new_map,
                   const mapcheck::Progress& progress) {
  Comparison comparison(old_map, new_map);
  Difference found = comparison.run(0, 0, progress);
  find_moves(old_map, new_map, found);
  return found;
}

}  // namespace tavrix::mapdiff
