// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/crowd.hpp"

#include <algorithm>
#include <utility>

namespace tavrix::mapdiff {
namespace {

using explain::Trustee;

bool holds_all(const Members& whole, const Members& part) {
  return std::includes(whole.begin(), whole.end(), part.begin(), part.end());
}

}  // namespace

Crowd::Crowd(std::vector<explain::Person> people, std::set<uint32_t> classes, bool has_groups)
    : people_(std::move(people)), classes_(std::move(classes)), has_groups_(has_groups) {
  for (uint32_t place = 0; place < people_.size(); ++place) {
    of_uid_[people_[place].uid].insert(place);
    for (const uint32_t gid : people_[place].groups) of_group_[gid].insert(place);
    of_group_[people_[place].gid].insert(place);
  }
}

const Members& Crowd::members_of(const Trustee& trustee) const {
  static const Members kNobody;
  const auto& index = trustee.is_user ? of_uid_ : of_group_;
  const auto found = index.find(trustee.id);
  return found == index.end() ? kNobody : found->second;
}

std::vector<Members> Crowd::alike(const std::vector<Trustee>& trustees) const {
  // The trustees that concern a person tell the sets apart.
  std::map<uint32_t, std::vector<std::size_t>> concerned;
  for (std::size_t i = 0; i < trustees.size(); ++i) {
    const auto& index = trustees[i].is_user ? of_uid_ : of_group_;
    const auto found = index.find(trustees[i].id);
    if (found == index.end()) continue;
    for (const uint32_t place : found->second) concerned[place].push_back(i);
  }
  std::map<std::vector<std::size_t>, Members> sets;
  for (auto& [place, which] : concerned) {
    // Administrators and power users are told apart too, by the groups that make them so.
    for (const uint32_t gid : people_[place].groups) {
      if (classes_.contains(gid)) which.push_back(trustees.size() + gid);
    }
    sets[which].insert(place);
  }
  std::vector<Members> result;
  for (auto& [which, members] : sets) result.push_back(std::move(members));
  return result;
}

std::vector<Trustee> Crowd::folded(Members members) const {
  std::vector<Trustee> trustees;
  std::vector<std::pair<uint32_t, const Members*>> groups;
  if (has_groups_) {
    for (const auto& [gid, of_group] : of_group_) {
      if (of_group.size() > 1 && holds_all(members, of_group)) groups.emplace_back(gid, &of_group);
    }
  }
  std::stable_sort(groups.begin(), groups.end(), [](const auto& a, const auto& b) {
    return a.second->size() > b.second->size();
  });
  for (const auto& [gid, of_group] : groups) {
    const bool is_new = std::any_of(of_group->begin(), of_group->end(),
                                    [&members](uint32_t place) { return members.contains(place); });
    if (!is_new) continue;
    trustees.push_back({false, gid});
    for (const uint32_t place : *of_group) members.erase(place);
  }
  for (const uint32_t place : members) trustees.push_back({true, people_[place].uid});
  return trustees;
}

}  // namespace tavrix::mapdiff
