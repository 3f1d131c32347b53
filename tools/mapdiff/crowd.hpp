// SPDX-License-Identifier: LGPL-3.0-or-later
// The users about whose rights is asked, and the groups that stand for many of them.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "tools/explain/person.hpp"

namespace tavrix::mapdiff {

// Users by their places in people().
using Members = std::set<uint32_t>;

class Crowd {
 public:
  // `classes` are the reserved groups. People are folded into groups only if asked for: a single
  // person is not.
  Crowd(std::vector<explain::Person> people, std::set<uint32_t> classes, bool has_groups);

  [[nodiscard]] const explain::Person& operator[](uint32_t place) const { return people_[place]; }

  // The people of a group, or the one of a user id.
  [[nodiscard]] const Members& members_of(const explain::Trustee& trustee) const;

  // Those whom entries for these trustees concern, in sets of people for whom they are alike: the
  // first of a set answers for all of it.
  [[nodiscard]] std::vector<Members> alike(const std::vector<explain::Trustee>& trustees) const;

  // As few groups and users as are exactly these people. A group stands for all of its members.
  [[nodiscard]] std::vector<explain::Trustee> folded(Members members) const;

 private:
  std::vector<explain::Person> people_;
  std::set<uint32_t> classes_;
  std::map<uint32_t, Members> of_group_, of_uid_;
  bool has_groups_;
};

}  // namespace tavrix::mapdiff
