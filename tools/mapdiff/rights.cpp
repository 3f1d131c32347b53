// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/rights.hpp"

#include <strings.h>
#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <tuple>

#include "perm_utils.h"
#include "tools/explain/witness.hpp"
#include "tools/mapdiff/places.hpp"

namespace tavrix::mapdiff {
namespace {

using explain::Trustee;

constexpr std::size_t kMostKnown = 100'000;
// A name that no folder has: it inherits from the folder that it is asked in.
constexpr const char* kNewName = "/\x01\x02\x03";

// The entries that govern a folder, with "inherited": two folders with the same ones give the same
// rights.
struct Governing {
  std::vector<Entry> entries;  // in the order in which a reader meets them
  bool is_inherited = false;
  bool operator==(const Governing&) const = default;
};
bool operator<(const Governing& a, const Governing& b) {
  const auto key = [](const Entry& entry) { return std::tuple(entry.type, entry.id, entry.mask); };
  if (a.is_inherited != b.is_inherited) return b.is_inherited;
  return std::lexicographical_compare(
      a.entries.begin(), a.entries.end(), b.entries.begin(), b.entries.end(),
      [&key](const Entry& x, const Entry& y) { return key(x) < key(y); });
}

Governing governing(const void* map, const std::string& path) {
  Governing result;
  tavrix_acl_t* acl = nullptr;
  if (get_tavrix_acl(const_cast<void*>(map), path.c_str(), &acl) != 0) return result;
  for (auto* elem = acl->ace_list_head.first_elem; elem != nullptr; elem = elem->next_elem) {
    const auto& entry = *reinterpret_cast<const tavrix_ace_s*>(elem);
    const uint32_t type = entry.trustee_type == ACE_TYPE_USER ? IDTYPE_UID : IDTYPE_GID;
    result.entries.push_back({type, entry.trustee.uid, entry.perm_mask});
    if (entry.ace_type == TAVRIX_ACE_INHERITED) result.is_inherited = true;
  }
  free_ACL(acl);
  std::free(acl);
  return result;
}

// A change of somebody's rights, without a place.
struct Change {
  uint32_t gained = 0, lost = 0;
  std::shared_ptr<const std::vector<Trustee>> whom;
  bool operator==(const Change& other) const {
    return gained == other.gained && lost == other.lost &&
           (whom == other.whom || *whom == *other.whom);
  }
};
using Changes = std::vector<Change>;

class Evaluation {
 public:
  Evaluation(const ImageView& old_map, const ImageView& new_map, const Crowd& crowd)
      : old_map_(&old_map.header()), new_map_(&new_map.header()), crowd_(crowd) {}

  // The path is below Shared. Remembers what two lists of entries give: few lists govern many
  // folders.
  [[nodiscard]] const Changes& at(const std::string& path) {
    const std::pair key{governing(old_map_, path), governing(new_map_, path)};
    static const Changes kNone;
    if (key.first == key.second) return kNone;
    if (const auto found = known_.find(key); found != known_.end()) return found->second;
    if (known_.size() >= kMostKnown) known_.clear();
    return known_[key] = ask_about(path, key.first, key.second);
  }

 private:
  [[nodiscard]] Changes ask_about(const std::string& path, const Governing& before,
                                  const Governing& after) {
    std::map<std::pair<uint32_t, uint32_t>, Members> found;
    for (const Members& alike : crowd_.alike(trustees_of(before, after))) {
      const explain::Person& person = crowd_[*alike.begin()];
      const uint32_t old_mask = rights(person, path, old_map_);
      const uint32_t new_mask = rights(person, path, new_map_);
      if (old_mask == new_mask) continue;
      found[{new_mask & ~old_mask, old_mask & ~new_mask}].insert(alike.begin(), alike.end());
    }
    Changes changes;
    for (auto& [masks, members] : found) {
      auto whom = std::make_shared<const std::vector<Trustee>>(crowd_.folded(std::move(members)));
      changes.push_back({masks.first, masks.second, std::move(whom)});
    }
    return changes;
  }

  static std::vector<Trustee> trustees_of(const Governing& before, const Governing& after) {
    std::set<std::pair<bool, uint32_t>> seen;
    std::vector<Trustee> trustees;
    for (const auto* list : {&before.entries, &after.entries}) {
      for (const Entry& entry : *list) {
        const bool is_user = entry.type == IDTYPE_UID;
        if (seen.emplace(is_user, entry.id).second) trustees.push_back({is_user, entry.id});
      }
    }
    return trustees;
  }

  static uint32_t rights(const explain::Person& person, const std::string& path, const void* map) {
    explain::Question question;
    question.person = person;
    question.path = TAVRIX_TREE "/" + path;
    question.type = FSTYPE_FOLDER;
    question.map = map;
    const explain::Facts facts = explain::ask(question).facts;
    return facts.row ? facts.row->self : 0;
  }

  const void* old_map_;
  const void* new_map_;
  const Crowd& crowd_;
  std::map<std::pair<Governing, Governing>, Changes> known_;
};

void add(const std::string& path, Reach reach, const Changes& changes,
         std::vector<RightsChange>& found) {
  for (const Change& change : changes) {
    found.push_back({path, reach, change.whom, change.gained, change.lost});
  }
}

bool is_shared(const std::string& path) { return strcasecmp(path.c_str(), "shared") == 0; }
bool is_below_shared(const std::string& path) {
  return strncasecmp(path.c_str(), "shared/", 7) == 0;
}

}  // namespace

std::vector<RightsChange> changed_rights(const ImageView& old_map, const ImageView& new_map,
                                         const Difference& difference, const Crowd& crowd,
                                         const mapcheck::Progress& progress) {
  std::vector<RightsChange> found;
  Evaluation evaluation(old_map, new_map, crowd);
  const std::vector<std::string> places = places_of(old_map, new_map, difference);
  bool is_shared_done = false;
  uint64_t done = 0;
  for (const std::string& path : places) {
    if (progress) progress(++done, places.size());
    if (is_below_shared(path)) {
      // A wildcard is granted before the map is asked.
      const Changes here = path.ends_with("/*") ? Changes{} : evaluation.at(path);
      const Changes below = evaluation.at(path + kNewName);
      const bool is_one = here == below;
      add(path, is_one ? Reach::kFolderAndBelow : Reach::kFolder, here, found);
      if (!is_one) add(path, Reach::kBelow, below, found);
    } else if ((path == "/" || is_shared(path)) && !is_shared_done) {
      // Everybody may read Shared itself; the entries of the root pass down to what is in it.
      is_shared_done = true;
      add("Shared", Reach::kBelow, evaluation.at(std::string("Shared") + kNewName), found);
    }
  }
  return found;
}

}  // namespace tavrix::mapdiff
