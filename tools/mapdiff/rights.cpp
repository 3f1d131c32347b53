// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/rights.hpp"

#include <algorithm>
#include <tuple>
#include <unordered_map>

#include "tools/mapdiff/answers.hpp"
#include "tools/mapdiff/places.hpp"

namespace tavrix::mapdiff {
namespace {

using explain::Trustee;
using Whom = std::shared_ptr<const std::vector<Trustee>>;

constexpr std::size_t kMostPairs = 100'000;
constexpr std::size_t kMostBytesOfMembers = 32U << 20U;

// Lists of entries by their bytes: equal ones have one number.
class Lists {
 public:
  [[nodiscard]] uint32_t number_of(const ImageView& map, uint32_t holder) {
    const beacl_s& acl = map.acl_of(map.fselem(holder));
    const std::string_view bytes(reinterpret_cast<const char*>(&acl + 1),
                                 acl.num_aces * sizeof(beace_s));
    const auto [place, is_new] = numbers_.try_emplace(bytes, static_cast<uint32_t>(lists_.size()));
    if (is_new) lists_.push_back(bytes);
    return place->second;
  }
  // In the order in which a reader meets them, the reverse of the stored one.
  void read(uint32_t number, std::vector<explain::Entry>& entries) const {
    const std::string_view bytes = lists_[number];
    const auto* stored = reinterpret_cast<const beace_s*>(bytes.data());
    entries.clear();
    for (std::size_t i = bytes.size() / sizeof(beace_s); i > 0; --i) {
      const beace_s& entry = stored[i - 1];
      entries.push_back({{entry.idtype == IDTYPE_UID, entry.id}, entry.perm_mask});
    }
  }

 private:
  std::unordered_map<std::string_view, uint32_t> numbers_;
  std::vector<std::string_view> lists_;
};

// A change of somebody's rights, without a place.
struct Change {
  uint32_t gained = 0, lost = 0;
  Whom whom;
  bool operator==(const Change& other) const {
    return gained == other.gained && lost == other.lost &&
           (whom == other.whom || *whom == *other.whom);
  }
};
using Changes = std::vector<Change>;

// Those who gain and lose the same.
struct Affected {
  uint32_t gained, lost;
  Members members;
};

// The names of sets of people, which are the same at many places.
class Names {
 public:
  explicit Names(const Crowd& crowd) : crowd_(crowd) {}
  [[nodiscard]] Whom of(const Members& members) {
    if (const auto found = known_.find(members); found != known_.end()) return found->second;
    if (known_.size() * (crowd_.size() / 8 + 1) > kMostBytesOfMembers) known_.clear();
    return known_[members] = std::make_shared<const std::vector<Trustee>>(crowd_.folded(members));
  }

 private:
  const Crowd& crowd_;
  std::unordered_map<Members, Whom, Members::Hash> known_;
};

// A list of entries that governs a path, and how.
struct Governing {
  uint32_t list;
  bool is_own;
  [[nodiscard]] uint64_t bits() const { return uint64_t{list} << 1U | (is_own ? 1U : 0U); }
};

// The changes at a place: on the folder, and on what inherits from it.
struct Outcome {
  Changes here, below;
};

class Evaluation {
 public:
  explicit Evaluation(const Crowd& crowd) : crowd_(crowd), audience_(crowd), names_(crowd) {}

  [[nodiscard]] const Outcome& of(const ImageView& old_map, const ImageView& new_map,
                                  const Place& place) {
    const Governing before{lists_.number_of(old_map, place.old_map.holder), place.old_map.is_own};
    const Governing after{lists_.number_of(new_map, place.new_map.holder), place.new_map.is_own};
    static const Outcome kNone;
    if (before.bits() == after.bits()) return kNone;
    const uint64_t key = before.bits() << 32U | after.bits();
    if (const auto found = known_.find(key); found != known_.end()) return found->second;
    if (known_.size() >= kMostPairs) known_.clear();
    return known_[key] = compare(before, after);
  }

 private:
  // Some entries of a list, and the rights that they give.
  struct Side {
    std::vector<explain::Entry> entries;
    std::vector<std::size_t> trustees;  // of each entry, its place among all trustees
    std::vector<explain::Entry> concerning;
  };

  [[nodiscard]] Outcome compare(const Governing& before, const Governing& after) {
    lists_.read(before.list, old_side_.entries);
    lists_.read(after.list, new_side_.entries);
    gather_trustees();
    audience_.gather(trustees_);
    here_.clear();
    below_.clear();
    for (const Members& alike : audience_.sets()) {
      const Rights old_rights = rights_of(alike.first(), old_side_);
      const Rights new_rights = rights_of(alike.first(), new_side_);
      add(before.is_own ? old_rights.own : old_rights.inherited,
          after.is_own ? new_rights.own : new_rights.inherited, alike, here_);
      add(old_rights.inherited, new_rights.inherited, alike, below_);
    }
    return {named(here_), named(below_)};
  }

  void gather_trustees() {
    const auto key = [](const Trustee& trustee) { return std::tuple(trustee.is_user, trustee.id); };
    trustees_.clear();
    for (const Side* side : {&old_side_, &new_side_}) {
      for (const explain::Entry& entry : side->entries) trustees_.push_back(entry.trustee);
    }
    std::ranges::sort(trustees_, {}, key);
    trustees_.erase(std::unique(trustees_.begin(), trustees_.end()), trustees_.end());
    for (Side* side : {&old_side_, &new_side_}) {
      side->trustees.clear();
      for (const explain::Entry& entry : side->entries) {
        const auto place = std::ranges::lower_bound(trustees_, key(entry.trustee), {}, key);
        side->trustees.push_back(static_cast<std::size_t>(place - trustees_.begin()));
      }
    }
  }

  [[nodiscard]] Rights rights_of(uint32_t person, Side& side) {
    side.concerning.clear();
    for (std::size_t i = 0; i < side.entries.size(); ++i) {
      if (audience_.is_concerned(person, side.trustees[i])) {
        side.concerning.push_back(side.entries[i]);
      }
    }
    return answers_.rights_of(crowd_[person], crowd_.kinds_of(person), side.concerning);
  }

  static void add(uint32_t old_mask, uint32_t new_mask, const Members& alike,
                  std::vector<Affected>& found) {
    if (old_mask == new_mask) return;
    const uint32_t gained = new_mask & ~old_mask;
    const uint32_t lost = old_mask & ~new_mask;
    const auto same = std::ranges::find_if(found, [&](const Affected& affected) {
      return affected.gained == gained && affected.lost == lost;
    });
    if (same == found.end()) {
      found.push_back({gained, lost, alike});
    } else {
      same->members |= alike;
    }
  }

  [[nodiscard]] Changes named(std::vector<Affected>& found) {
    std::ranges::sort(found, {}, [](const Affected& affected) {
      return std::tuple(affected.gained, affected.lost);
    });
    Changes changes;
    changes.reserve(found.size());
    for (const Affected& affected : found) {
      changes.push_back({affected.gained, affected.lost, names_.of(affected.members)});
    }
    return changes;
  }

  const Crowd& crowd_;
  Lists lists_;
  Audience audience_;
  Answers answers_;
  Names names_;
  Side old_side_, new_side_;
  std::vector<Trustee> trustees_;
  std::vector<Affected> here_, below_;
  std::unordered_map<uint64_t, Outcome> known_;  // few pairs of lists govern many folders
};

// Tells changes at one place after the other.
class Teller {
 public:
  explicit Teller(const std::function<void(const RightsChange&)>& tell) : tell_(tell) {}
  void go_to(const std::string& path) { change_.path = path; }
  void tell(Reach reach, const Changes& changes) {
    change_.reach = reach;
    for (const Change& change : changes) {
      change_.whom = change.whom;
      change_.gained = change.gained;
      change_.lost = change.lost;
      tell_(change_);
    }
  }

 private:
  const std::function<void(const RightsChange&)>& tell_;
  RightsChange change_;
};

}  // namespace

void tell_changed_rights(const ImageView& old_map, const ImageView& new_map,
                         const Difference& difference, const Crowd& crowd,
                         const std::function<void(const RightsChange&)>& tell) {
  Evaluation evaluation(crowd);
  Teller teller(tell);
  visit_places(old_map, new_map, difference, [&](const Place& place) {
    const Outcome& outcome = evaluation.of(old_map, new_map, place);
    teller.go_to(place.path);
    const bool is_top = place.path.find('/') == std::string::npos;
    // Everybody may read Shared, and a wildcard is granted before the map is asked.
    const bool is_ruled = !is_top && !place.path.ends_with("/*");
    static const Changes kNone;
    const Changes& here = is_ruled ? outcome.here : kNone;
    if (is_ruled && here == outcome.below) {
      teller.tell(Reach::kFolderAndBelow, here);
      return;
    }
    teller.tell(Reach::kFolder, here);
    teller.tell(Reach::kBelow, outcome.below);
  });
}

}  // namespace tavrix::mapdiff
