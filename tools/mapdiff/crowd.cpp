// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/crowd.hpp"

#include <algorithm>
#include <utility>

namespace tavrix::mapdiff {

using explain::Person;
using explain::Trustee;

Crowd::Crowd(std::vector<Person> people, const std::set<uint32_t>& classes, bool has_groups)
    : people_(std::move(people)) {
  for (uint32_t place = 0; place < people_.size(); ++place) {
    const Person& person = people_[place];
    of_uid_[person.uid].push_back(place);
    std::set<uint32_t> gids(person.groups.begin(), person.groups.end());
    gids.insert(person.gid);
    for (const uint32_t gid : gids) of_group_[gid].push_back(place);
  }
  for (const uint32_t gid : classes) {
    add_kind([gid](const Person& person) { return std::ranges::count(person.groups, gid) != 0; });
  }
  add_kind([](const Person& person) { return person.is_reserved; });
  add_kind([](const Person& person) { return person.is_computer; });
  led_by_.resize(people_.size());
  if (has_groups) rank_groups();
}

void Crowd::add_kind(const std::function<bool(const Person&)>& is_of_kind) {
  Members kind(people_.size());
  for (uint32_t place = 0; place < people_.size(); ++place) {
    if (is_of_kind(people_[place])) kind.add(place);
  }
  kinds_.push_back(std::move(kind));
}

void Crowd::rank_groups() {
  for (const auto& [gid, members] : of_group_) {
    if (members.size() > 1) ranked_.push_back({gid, &members});
  }
  std::ranges::stable_sort(ranked_, [](const Group& a, const Group& b) {
    return a.members->size() > b.members->size();
  });
  for (uint32_t rank = 0; rank < ranked_.size(); ++rank) {
    led_by_[ranked_[rank].members->front()].push_back(rank);
  }
}

uint32_t Crowd::kinds_of(uint32_t place) const {
  uint32_t bits = 0;
  for (std::size_t kind = 0; kind < kinds_.size(); ++kind) {
    if (kinds_[kind].has(place)) bits |= 1U << kind;
  }
  return bits;
}

void Crowd::add_concerned(const Trustee& trustee, Members& members) const {
  const auto& index = trustee.is_user ? of_uid_ : of_group_;
  const auto found = index.find(trustee.id);
  if (found == index.end()) return;
  for (const uint32_t place : found->second) members.add(place);
}

std::vector<Trustee> Crowd::folded(Members members) const {
  std::vector<uint32_t> ranks;
  members.each([&](uint32_t place) {
    for (const uint32_t rank : led_by_[place]) {
      const auto& group = *ranked_[rank].members;
      if (std::ranges::all_of(group, [&](uint32_t other) { return members.has(other); })) {
        ranks.push_back(rank);
      }
    }
  });
  std::ranges::sort(ranks);
  std::vector<Trustee> trustees;
  for (const uint32_t rank : ranks) {
    const auto& group = *ranked_[rank].members;
    if (std::ranges::none_of(group, [&](uint32_t place) { return members.has(place); })) continue;
    trustees.push_back({false, ranked_[rank].gid});
    for (const uint32_t place : group) members.remove(place);
  }
  members.each([&](uint32_t place) { trustees.push_back({true, people_[place].uid}); });
  return trustees;
}

void Audience::gather(const std::vector<Trustee>& trustees) {
  Members all(crowd_.size());
  concerned_.resize(std::max(concerned_.size(), trustees.size()), Members(crowd_.size()));
  for (std::size_t i = 0; i < trustees.size(); ++i) {
    concerned_[i].clear();
    crowd_.add_concerned(trustees[i], concerned_[i]);
    all |= concerned_[i];
  }
  sets_.clear();
  if (all.is_empty()) return;
  sets_.push_back(std::move(all));
  for (const Members& kind : crowd_.kinds()) split_by(kind);
  for (std::size_t i = 0; i < trustees.size(); ++i) split_by(concerned_[i]);
}

void Audience::split_by(const Members& others) {
  for (std::size_t i = sets_.size(); i > 0; --i) {
    Members both = sets_[i - 1];
    both &= others;
    if (both.is_empty() || both == sets_[i - 1]) continue;
    sets_[i - 1] -= both;
    sets_.push_back(std::move(both));
  }
}

}  // namespace tavrix::mapdiff
