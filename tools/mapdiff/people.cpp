// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/people.hpp"

#include <memory>
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
  return {std::move(people), classes, has_groups};
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

std::size_t count_touched(const RightsSource& changes, const Crowd& crowd) {
  // Few lists of people stand for many places.
  std::set<const std::vector<explain::Trustee>*> lists;
  std::vector<std::shared_ptr<const std::vector<explain::Trustee>>> kept;  // no address comes twice
  Members touched(crowd.size());
  changes([&](const RightsChange& change) {
    if (!lists.insert(change.whom.get()).second) return;
    kept.push_back(change.whom);
    for (const explain::Trustee& trustee : *change.whom) crowd.add_concerned(trustee, touched);
  });
  std::size_t count = 0;
  touched.each([&count](uint32_t) { ++count; });
  return count;
}

}  // namespace tavrix::mapdiff
