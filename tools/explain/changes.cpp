// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/changes.hpp"

#include <algorithm>
#include <bit>

namespace tavrix::explain {
namespace {

constexpr uint32_t kRights = TAVRIX_PERM_MASK_RDWRDEL | TAVRIX_PERM_MASK_NAVIGATE;  // to be given
constexpr std::size_t kMostTriedOut = 10;  // entries whose every subset is tried

// Asks a question again, with the object known and in another map.
class WhatIf {
 public:
  WhatIf(const Question& question, const Answer& answer) : question_(question) {
    question_.type = answer.facts.type;
  }
  [[nodiscard]] e_vfs_enforce_perms verdict_in(const Chain& chain) {
    const std::vector<std::byte> image = chain.image();
    question_.map = image.data();
    return ask(question_).facts.verdict;
  }

 private:
  Question question_;
};

// --- rights to give ------------------------------------------------------------------------------

struct Giving {
  std::size_t level;
  Trustee trustee;
  uint32_t rights;
};

// The levels at which a right would be noticed, the likeliest first: the folders whose entries
// count now, then the parent and the object themselves.
std::vector<std::size_t> levels_to_try(const Chain& chain) {
  const std::size_t object = chain.levels_of_path();
  const std::size_t parent = object == 0 ? 0 : object - 1;
  std::vector<std::size_t> levels;
  for (const std::size_t level :
       {chain.holder_of(parent), chain.holder_of(object), parent, object}) {
    if (std::find(levels.begin(), levels.end(), level) == levels.end()) levels.push_back(level);
  }
  return levels;
}

bool is_group_of(const Person& person, const Trustee& trustee) {
  if (trustee.is_user) return false;
  return trustee.id == person.gid ||
         std::find(person.groups.begin(), person.groups.end(), trustee.id) != person.groups.end();
}

std::vector<Trustee> trustees_to_try(const Chain& chain, const Person& person,
                                     Receivers receivers) {
  std::vector<Trustee> trustees{{true, person.uid}};
  if (receivers == Receivers::kCaller) return trustees;
  for (const std::size_t level : levels_to_try(chain)) {
    for (const Entry& entry : chain.entries_at(level)) {
      if (is_group_of(person, entry.trustee) &&
          std::find(trustees.begin(), trustees.end(), entry.trustee) == trustees.end()) {
        trustees.push_back(entry.trustee);
      }
    }
  }
  return trustees;
}

// Tries gifts by their number of rights, so that the first that grants is a least one: whoever
// leaves a right out of it finds what was tried before.
class GiftSearch {
 public:
  GiftSearch(const Chain& chain, WhatIf& what_if, const std::vector<Trustee>& trustees)
      : chain_(chain), what_if_(what_if) {
    for (const std::size_t level : levels_to_try(chain)) {
      for (const Trustee& trustee : trustees) places_.push_back({level, trustee, 0});
    }
  }

  [[nodiscard]] std::vector<Giving> find() {
    const auto most = static_cast<int>(2 * std::popcount(kRights));
    for (int rights = 1; rights <= most; ++rights) {
      if (try_one(rights) || try_two(rights)) return found_;
    }
    return {};
  }

 private:
  static bool is_of(uint32_t mask, int rights) {
    return (mask & ~kRights) == 0 && std::popcount(mask) == rights;
  }
  bool grants(const std::vector<Giving>& givings) {
    Chain changed = chain_;
    for (const Giving& giving : givings) changed.give(giving.level, giving.trustee, giving.rights);
    if (what_if_.verdict_in(changed) != TXPERMS_HAS_PERMS) return false;
    found_ = givings;
    return true;
  }
  bool try_one(int rights) {
    for (Giving place : places_) {
      for (place.rights = 1; place.rights <= kRights; ++place.rights) {
        if (is_of(place.rights, rights) && grants({place})) return true;
      }
    }
    return false;
  }
  bool try_two(int rights) {
    for (std::size_t first = 0; first < places_.size(); ++first) {
      for (std::size_t second = first + 1; second < places_.size(); ++second) {
        if (places_[first].level == places_[second].level) continue;
        if (try_pair(places_[first], places_[second], rights)) return true;
      }
    }
    return false;
  }
  bool try_pair(Giving one, Giving other, int rights) {
    // The higher folder first: a lower one that inherits takes its entries as they are then.
    if (one.level > other.level) std::swap(one, other);
    for (one.rights = 1; one.rights <= kRights; ++one.rights) {
      for (other.rights = 1; other.rights <= kRights; ++other.rights) {
        if (std::popcount(one.rights) + std::popcount(other.rights) == rights &&
            grants({one, other})) {
          return true;
        }
      }
    }
    return false;
  }

  const Chain& chain_;
  WhatIf& what_if_;
  std::vector<Giving> places_;
  std::vector<Giving> found_;
};

// All rights on the parent and on the object: if that does not grant, no right does.
bool is_in_power_of_rights(const Chain& chain, const Person& person, WhatIf& what_if) {
  Chain changed = chain;
  const std::size_t object = chain.levels_of_path();
  if (object > 0) changed.give(object - 1, {true, person.uid}, kRights);
  changed.give(object, {true, person.uid}, kRights);
  return what_if.verdict_in(changed) == TXPERMS_HAS_PERMS;
}

// --- entries to take -----------------------------------------------------------------------------

struct Place {
  std::size_t level;
  std::size_t index;  // in the order in which readers meet the entries
};
using Places = std::vector<Place>;

bool concerns(const Person& person, const Trustee& trustee) {
  return trustee.is_user ? trustee.id == person.uid : is_group_of(person, trustee);
}

// The entries of the caller and of its groups, on all folders of the way: where a folder loses its
// last entry, those above it govern.
Places entries_to_try(const Chain& chain, const Person& person) {
  Places places;
  for (std::size_t level = chain.folders(); level-- > 0;) {
    const std::vector<Entry> entries = chain.entries_at(level);
    for (std::size_t index = 0; index < entries.size(); ++index) {
      if (concerns(person, entries[index].trustee)) places.push_back({level, index});
    }
  }
  return places;
}

class RemovalSearch {
 public:
  RemovalSearch(const Chain& chain, WhatIf& what_if, Places places)
      : chain_(chain), what_if_(what_if), places_(std::move(places)) {}

  [[nodiscard]] Places find() {
    if (!refuses(places_)) return {};
    if (places_.size() > kMostTriedOut) return thinned();
    for (std::size_t count = 1; count < places_.size(); ++count) {
      for (uint32_t chosen = 1; chosen < 1U << places_.size(); ++chosen) {
        if (std::popcount(chosen) != static_cast<int>(count)) continue;
        const Places some = chosen_by(chosen);
        if (refuses(some)) return some;
      }
    }
    return places_;
  }

 private:
  [[nodiscard]] Places chosen_by(uint32_t chosen) const {
    Places some;
    for (std::size_t i = 0; i < places_.size(); ++i) {
      if ((chosen >> i & 1U) != 0) some.push_back(places_[i]);
    }
    return some;
  }
  // Leaves out one entry after the other, as long as what remains refuses.
  [[nodiscard]] Places thinned() {
    Places kept = places_;
    for (std::size_t i = 0; i < kept.size();) {
      Places fewer = kept;
      fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(i));
      if (!fewer.empty() && refuses(fewer)) {
        kept = std::move(fewer);
        i = 0;
      } else {
        ++i;
      }
    }
    return kept;
  }
  bool refuses(const Places& places) {
    Chain changed = chain_;
    // From the last entry of a folder to its first, so that the others keep their numbers.
    for (auto place = places.rbegin(); place != places.rend(); ++place) {
      changed.remove(place->level, place->index);
    }
    return what_if_.verdict_in(changed) == TXPERMS_NO_PERM;
  }

  const Chain& chain_;
  WhatIf& what_if_;
  Places places_;
};

}  // namespace

std::vector<Gift> would_grant(const Question& question, const Answer& answer, Receivers receivers) {
  if (!answer.facts.is_refused() || !answer.chain) return {};
  const Chain& chain = *answer.chain;
  WhatIf what_if(question, answer);
  if (!is_in_power_of_rights(chain, question.person, what_if)) return {};
  GiftSearch search(chain, what_if, trustees_to_try(chain, question.person, receivers));
  std::vector<Gift> gifts;
  for (const Giving& giving : search.find()) {
    gifts.push_back({chain.path_of(giving.level), giving.trustee, giving.rights});
  }
  return gifts;
}

std::vector<Removal> would_refuse(const Question& question, const Answer& answer) {
  if (!answer.facts.is_granted() || !answer.chain) return {};
  const Chain& chain = *answer.chain;
  WhatIf what_if(question, answer);
  RemovalSearch search(chain, what_if, entries_to_try(chain, question.person));
  std::vector<Removal> removals;
  for (const auto& [level, index] : search.find()) {
    removals.push_back({chain.path_of(level), chain.entries_at(level).at(index)});
  }
  return removals;
}

}  // namespace tavrix::explain
