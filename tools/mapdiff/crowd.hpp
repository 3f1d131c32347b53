// SPDX-License-Identifier: LGPL-3.0-or-later
// The users about whose rights is asked, and the groups that stand for many of them.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <vector>

#include "tools/explain/person.hpp"
#include "tools/mapdiff/members.hpp"

namespace tavrix::mapdiff {

class Crowd {
 public:
  // `classes` are the reserved groups. People are folded into groups only if asked for: a single
  // person is not.
  Crowd(std::vector<explain::Person> people, const std::set<uint32_t>& classes, bool has_groups);
  Crowd(Crowd&&) = default;
  Crowd(const Crowd&) = delete;
  Crowd& operator=(Crowd&&) = delete;
  Crowd& operator=(const Crowd&) = delete;
  ~Crowd() = default;

  [[nodiscard]] const explain::Person& operator[](uint32_t place) const { return people_[place]; }
  [[nodiscard]] std::size_t size() const { return people_.size(); }

  // Administrators, power users, the reserved user and accounts of computers: the decision asks for
  // these before it asks an entry. A bit for each kind that somebody is of.
  [[nodiscard]] uint32_t kinds_of(uint32_t place) const;
  [[nodiscard]] const std::vector<Members>& kinds() const { return kinds_; }

  // Adds those whom an entry for the trustee concerns.
  void add_concerned(const explain::Trustee& trustee, Members& members) const;

  // As few groups and users as are exactly these people. A group stands for all of its members.
  [[nodiscard]] std::vector<explain::Trustee> folded(Members members) const;

 private:
  using Places = std::vector<uint32_t>;  // sorted
  struct Group {
    uint32_t gid;
    const Places* members;
  };
  void add_kind(const std::function<bool(const explain::Person&)>& is_of_kind);
  void rank_groups();

  std::vector<explain::Person> people_;
  std::map<uint32_t, Places> of_group_, of_uid_;
  std::vector<Members> kinds_;
  std::vector<Group> ranked_;  // groups that may stand for people, the largest first
  std::vector<std::vector<uint32_t>> led_by_;  // the ranks of the groups whose first member it is
};

// Those whom entries for some trustees concern, in sets of people for whom they are alike. Keeps
// its working memory for the next trustees.
class Audience {
 public:
  explicit Audience(const Crowd& crowd) : crowd_(crowd) {}
  void gather(const std::vector<explain::Trustee>& trustees);

  // The first of a set answers for all of it.
  [[nodiscard]] const std::vector<Members>& sets() const { return sets_; }
  [[nodiscard]] bool is_concerned(uint32_t place, std::size_t trustee) const {
    return concerned_[trustee].has(place);
  }

 private:
  void split_by(const Members& others);

  const Crowd& crowd_;
  std::vector<Members> concerned_;  // by each trustee
  std::vector<Members> sets_;
};

}  // namespace tavrix::mapdiff
