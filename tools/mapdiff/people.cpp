// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/people.hpp"

#include <set>
#include <utility>

#include "tools/explain/request.hpp"

namespace tavrix::mapdiff {
namespace {

Crowd crowd_of(std::vector<explain::Person> people, const explain::Groups& groups,
               bool has_groups) {
  explain::take_reserved_groups(groups);
  std::set<uint32_t> classes;
  for (const auto gid : {groups.administrators(), groups.power_users()}) {
    if (gid) classes.insert(*gid);
  }
  return {std::move(people), std::move(classes), has_groups};
}

}  // namespace

People everybody(const explain::Groups& groups) {
  std::vector<explain::Person> people;
  std::size_t without_account = 0;
  for (const groupmap::User& user : groups.map.users) {
    const auto identity = explain::person_named(user.name, groups);
    if (!identity) ++without_account;
    if (identity) people.push_back(identity->person);
  }
  const std::size_t users = people.size();
  return {crowd_of(std::move(people), groups, true), users, without_account};
}

Crowd only(const explain::Person& person, const explain::Groups& groups) {
  return crowd_of({person}, groups, false);
}

std::size_t count_touched(const std::vector<RightsChange>& changes, const Crowd& crowd) {
  // Few lists of people stand for many places.
  std::set<const std::vector<explain::Trustee>*> lists;
  Members touched;
  for (const RightsChange& change : changes) {
    if (!lists.insert(change.whom.get()).second) continue;
    for (const explain::Trustee& trustee : *change.whom) {
      const Members& members = crowd.members_of(trustee);
      touched.insert(members.begin(), members.end());
    }
  }
  return touched.size();
}

}  // namespace tavrix::mapdiff
