// SPDX-License-Identifier: LGPL-3.0-or-later
// Who gains and who loses between two random maps, compared path by path and person by person with
// a simple model of the rights.

#include <gtest/gtest.h>
#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "perm_enforcer.h"
#include "tests/support/isolated.hpp"
#include "tests/support/map_model.hpp"
#include "tools/mapdiff/rights.hpp"

namespace tavrix::test {
namespace {

using explain::Person;
using explain::Trustee;
using mapdiff::Reach;
using mapdiff::RightsChange;

constexpr uint32_t kPowerUsers = 9002;
constexpr uint32_t kFirstUser = 1000, kFirstGroup = 2000;

std::vector<Person> people() {
  std::vector<Person> found;
  for (uint32_t i = 0; i < 6; ++i) {
    Person person;
    person.uid = kFirstUser + i;
    person.gid = 100 + i;
    person.groups = {kPowerUsers, kFirstGroup + i % 3};
    if (i % 2 == 0) person.groups.push_back(kFirstGroup + 3);
    found.push_back(person);
  }
  return found;
}

std::vector<Ace> random_entries(std::mt19937& random, uint32_t first_id, uint32_t ids) {
  std::vector<Ace> entries;
  for (uint32_t id = first_id; id < first_id + ids; ++id) {
    if (random() % 4 == 0) entries.push_back({id, static_cast<uint16_t>(random() % 32)});
  }
  return entries;
}

Folder random_folder(std::mt19937& random, const std::string& name, int depth) {
  Folder result{.name = name};
  if (random() % 2 == 0) {
    result.users = random_entries(random, kFirstUser, 6);
    result.groups = random_entries(random, kFirstGroup, 4);
  }
  for (const char* child : {"a", "b", "c"}) {
    if (depth > 0 && random() % 4 != 0) {
      result.children.push_back(random_folder(random, child, depth - 1));
    }
  }
  return result;
}

Folder random_map(std::mt19937& random) {
  Folder root = random_folder(random, "/", 0);
  root.children = {random_folder(random, "Shared", 3)};
  return root;
}

void change(Folder& tree, std::mt19937& random) {
  if (random() % 5 == 0) tree.users = random_entries(random, kFirstUser, 6);
  if (random() % 5 == 0) tree.groups.clear();
  if (!tree.children.empty() && tree.name != "/") {
    if (random() % 4 == 0)
      tree.children.pop_back();
    else if (random() % 4 == 0)
      tree.children.front().name = "m";
  }
  for (Folder& child : tree.children) change(child, random);
}

// The first entry of the user; those of the groups too, if there is none, or if it has no rights or
// the right to navigate. Inherited entries with the right to navigate do not count.
uint32_t model_rights(const Person& person, const Folder& root, const std::string& path) {
  const auto governing = naive_lookup(root, path);
  constexpr uint32_t kNavigate = 8;
  std::optional<uint32_t> own;
  uint32_t of_groups = 0;
  for (const auto& entry : governing.entries) {
    if (governing.inherited && (entry.ace.mask & kNavigate) != 0) continue;
    if (entry.type == ACE_TYPE_USER) {
      if (entry.ace.id == person.uid && !own) own = entry.ace.mask;
    } else if (std::ranges::count(person.groups, entry.ace.id) != 0) {
      of_groups |= entry.ace.mask;
    }
  }
  if (own && *own != 0 && (*own & kNavigate) == 0) return *own;
  return own.value_or(0) | of_groups;
}

const Folder* find(const Folder& root, const std::string& path) {
  const Folder* at = &root;
  std::size_t begin = 0;
  while (begin < path.size()) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string name = path.substr(begin, end - begin);
    const auto child = std::ranges::find(at->children, name, &Folder::name);
    if (child == at->children.end()) return nullptr;
    at = &*child;
    begin = end + 1;
  }
  return at;
}

void list_paths(const Folder& folder, const std::string& path, std::set<std::string>& paths) {
  for (const std::string& inside : {std::string("new"), std::string("new/er")}) {
    paths.insert(path + "/" + inside);
  }
  for (const Folder& child : folder.children) {
    paths.insert(path + "/" + child.name);
    list_paths(child, path + "/" + child.name, paths);
  }
}

class ChangedRights : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    vfs_set_admins_powerusers(9001, kPowerUsers);
  }
  // The changes of a path: the lines of the folder, or of the one it inherits from.
  std::pair<uint32_t, uint32_t> told(const Person& person, const std::string& path) const {
    std::string place = path;
    while (!place.empty() && !is_explicit(place)) {
      const auto slash = place.rfind('/');
      place = slash == std::string::npos ? "" : place.substr(0, slash);
    }
    if (place.empty()) place = "Shared";
    const Reach other = place == path ? Reach::kBelow : Reach::kFolder;
    uint32_t gained = 0;
    uint32_t lost = 0;
    for (const RightsChange& change : changes_) {
      if (change.path != place || change.reach == other) continue;
      if (!std::ranges::any_of(*change.whom, [&](const Trustee& trustee) {
            return trustee.is_user ? trustee.id == person.uid
                                   : std::ranges::count(person.groups, trustee.id) != 0;
          })) {
        continue;
      }
      EXPECT_EQ(0U, gained | lost) << "two lines about one person at " << place;
      gained = change.gained;
      lost = change.lost;
    }
    return {gained, lost};
  }
  [[nodiscard]] bool is_explicit(const std::string& path) const {
    for (const Folder* root : {&before_, &after_}) {
      const Folder* folder = find(*root, path);
      if (folder != nullptr && !(folder->users.empty() && folder->groups.empty())) return true;
    }
    return false;
  }
  void compare(std::vector<Person> crowd_of = people()) {
    const auto old_image = build_image(before_);
    const auto new_image = build_image(after_);
    const ImageView old_map(old_image.data());
    const ImageView new_map(new_image.data());
    const mapdiff::Crowd crowd(std::move(crowd_of), {9001, kPowerUsers}, true);
    changes_.clear();
    mapdiff::tell_changed_rights(
        old_map, new_map, mapdiff::compare(old_map, new_map), crowd,
        [this](const RightsChange& change) { changes_.push_back(change); });
  }
  Folder before_, after_;
  std::vector<RightsChange> changes_;
};

// The map gives the account of a computer nothing, and its user the same as others.
TEST_F(ChangedRights, TellAPersonFromAComputerOfTheSameGroups) {
  std::vector<Person> both = people();
  both.resize(2);
  both[0].is_computer = true;
  both[1].groups = both[0].groups;
  const uint32_t gid = both[0].groups[1];
  before_ = {.name = "/", .children = {{.name = "Shared", .children = {{.name = "Team"}}}}};
  after_ = before_;
  after_.children[0].children[0].groups = {{gid, 1}};
  compare(both);
  ASSERT_EQ(1U, changes_.size());
  EXPECT_EQ((std::vector<Trustee>{{true, both[1].uid}}), *changes_[0].whom);
}

TEST_F(ChangedRights, AreThoseOfASimpleModelAtEveryPathForEverybody) {
  std::size_t differences = 0;
  for (uint32_t seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    before_ = random_map(random);
    after_ = before_;
    change(after_, random);
    compare();
    std::set<std::string> paths;
    for (const Folder* root : {&before_, &after_}) list_paths(root->children[0], "Shared", paths);
    for (const std::string& path : paths) {
      for (const Person& person : people()) {
        const uint32_t old_mask = model_rights(person, before_, path);
        const uint32_t new_mask = model_rights(person, after_, path);
        const std::pair expected{new_mask & ~old_mask, old_mask & ~new_mask};
        EXPECT_EQ(expected, told(person, path)) << path << " for " << person.uid;
        differences += old_mask == new_mask ? 0 : 1;
      }
    }
    if (HasFailure()) return;
  }
  EXPECT_GT(differences, 10'000U);
}

}  // namespace
}  // namespace tavrix::test
