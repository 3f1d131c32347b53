// SPDX-License-Identifier: LGPL-3.0-or-later
// Explained decisions of random questions about random maps, compared with the independent
// evaluator: verdicts, entries, masks, and what would turn a verdict. TAVRIX_QUESTIONS is the
// number of questions.

#include <gtest/gtest.h>
#include <algorithm>
#include <bit>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "perm_enforcer.h"
#include "tests/samba/matrix/judge.hpp"
#include "tests/support/importer.hpp"
#include "tests/support/log_capture.hpp"
#include "tools/explain/changes.hpp"
#include "tools/explain/operations.hpp"

namespace tavrix::test {
namespace {

using explain::Gift;
using explain::Removal;
using explain::Trustee;

constexpr uint32_t kAllRights = 15;  // read, write, delete, navigate
constexpr std::size_t kQuestionsOfAWorld = 250;
constexpr std::size_t kImports = 1000;
constexpr uint32_t kFirstId = 1000;
constexpr uint32_t kIds = 8;

std::size_t questions_to_ask() {
  const char* given = std::getenv("TAVRIX_QUESTIONS");
  return given == nullptr ? 10'000 : std::strtoul(given, nullptr, 10);
}

// --- changes of the map, made in the model -------------------------------------------------------

std::vector<std::string> parts_of(const std::string& path) {
  std::vector<std::string> parts;
  std::istringstream in(path);
  for (std::string part; std::getline(in, part, '/');) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

bool is_same_name(const std::string& a, const std::string& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
    return std::toupper(x) == std::toupper(y);
  });
}

// The folders from the root to the path, added where the map lacks them.
std::vector<Folder*> way_to(Folder& root, const std::string& path) {
  std::vector<Folder*> way{&root};
  for (const std::string& part : parts_of(path)) {
    auto& children = way.back()->children;
    auto found = std::find_if(children.begin(), children.end(), [&part](const Folder& child) {
      return is_same_name(child.name, part);
    });
    if (found == children.end()) found = children.insert(found, Folder{.name = part});
    way.push_back(&*found);
  }
  return way;
}

bool has_entries(const Folder* folder) { return !folder->users.empty() || !folder->groups.empty(); }

void give(Folder& root, const Gift& gift) {
  const std::vector<Folder*> way = way_to(root, gift.folder);
  Folder& folder = *way.back();
  if (!has_entries(&folder)) {
    const auto governing = std::find_if(way.rbegin(), way.rend() - 1, has_entries);
    folder.users = (*governing)->users;
    folder.groups = (*governing)->groups;
  }
  auto& list = gift.trustee.is_user ? folder.users : folder.groups;
  const auto entry = std::find_if(list.begin(), list.end(),
                                  [&gift](const Ace& ace) { return ace.id == gift.trustee.id; });
  if (entry == list.end()) {
    list.push_back({gift.trustee.id, static_cast<uint16_t>(gift.rights)});
  } else {
    entry->mask = static_cast<uint16_t>(entry->mask | gift.rights);
  }
}

void take(Folder& root, const Removal& removal) {
  Folder& folder = *way_to(root, removal.folder).back();
  auto& list = removal.entry.trustee.is_user ? folder.users : folder.groups;
  const auto found =
      std::find(list.begin(), list.end(),
                Ace{removal.entry.trustee.id, static_cast<uint16_t>(removal.entry.mask)});
  ASSERT_NE(list.end(), found);
  list.erase(found);
}

// One right each.
std::vector<Gift> single(const std::vector<Gift>& gifts) {
  std::vector<Gift> parts;
  for (const Gift& gift : gifts) {
    for (uint32_t right = 1; right <= kAllRights; right *= 2) {
      if ((gift.rights & right) != 0) parts.push_back({gift.folder, gift.trustee, right});
    }
  }
  return parts;
}

// --- a world
// ---------------------------------------------------------------------------------------

class RandomQuestions : public Importer {
 protected:
  struct Asked {
    explain::Question question;
    std::string path;
    Caller caller;
  };

  void SetUp() override {
    Importer::SetUp();
    give_samba_library_its_name();
    set_debug_level(-1);
    vfs_set_admins_powerusers(kAdmins, kPowerUsers);
  }

  uint32_t up_to(std::size_t bound) { return static_cast<uint32_t>(random_() % bound); }

  // Few ids and many rights, so that entries are about a caller and grant something.
  void bring_together(Folder& folder) {
    for (auto* list : {&folder.users, &folder.groups}) {
      for (Ace& ace : *list) {
        ace.id = kFirstId + ace.id % kIds;
        if (up_to(2) == 0) ace.mask = up_to(2) == 0 ? 7 : 3;
      }
    }
    for (Folder& child : folder.children) bring_together(child);
  }
  uint32_t any_id() { return kFirstId + up_to(kIds); }

  // A map, and a tree on the disk that has most of its folders, some others, and files.
  void make_world(uint32_t seed) {
    random_.seed(seed);
    Folder shared = random_tree(seed, 40, Bytes::kUtf8);
    bring_together(shared);
    shared.name = "Shared";
    map_ = Folder{.name = "/", .groups = {{any_id(), 1}}, .children = {std::move(shared)}};
    tavrix::test::publish(build_image(map_));
    std::filesystem::remove_all("/tavrix/Shared");
    std::filesystem::remove_all("/tavrix/Private");
    paths_ = {"Shared", "Private"};
    for (const std::string& path : paths_of(map_)) {
      if (path != "Shared" && up_to(5) == 0) continue;
      std::filesystem::create_directories("/tavrix/" + path);
      if (up_to(3) == 0) make_file(path + "/file" + std::to_string(up_to(3)));
      if (up_to(4) == 0) make_folder(path + "/loose/deep");
    }
    for (const uid_t owner : {1000U, 1001U, 1002U}) {
      const std::string folder = "Private/user" + std::to_string(owner);
      make_folder(folder + "/notes");
      make_file(folder + "/diary");
      ASSERT_EQ(0, chown(("/tavrix/" + folder).c_str(), owner, kPeople));
    }
    make_file("top");
    disk_ = Disk::now("/tavrix");
    for (const auto& [path, object] : disk_.objects()) {
      if (!path.empty()) paths_.push_back(path);
    }
  }
  static void make_folder(const std::string& path) {
    std::filesystem::create_directories("/tavrix/" + path);
  }
  static void make_file(const std::string& path) { write_file("/tavrix/" + path, "content"); }

  Caller any_caller() {
    Caller caller{"user", any_id(), any_id(), {}};
    for (uint32_t i = up_to(4); i > 0; --i) caller.groups.push_back(any_id());
    switch (up_to(20)) {
      case 0:
        caller.groups.push_back(kAdmins);
        break;
      case 1:  // a standard user
        break;
      case 2:
        caller.name = up_to(2) == 0 ? "host$" : "syncagent";
        break;
      default:
        caller.groups.push_back(kPowerUsers);
        break;
    }
    return caller;
  }

  std::string any_path() {
    const std::string& path = paths_[up_to(paths_.size())];
    if (up_to(4) != 0) return path;
    const Disk::Object* object = disk_.find(path);
    if (object == nullptr || !object->is_folder) return path;
    return path + (up_to(20) == 0 ? "/x.sb-1" : "/none");
  }

  Asked any_question() {
    static const auto operations = operations_with_a_rule();
    Asked asked;
    asked.path = any_path();
    asked.caller = any_caller();
    explain::Question& question = asked.question;
    question.path = "/tavrix/" + asked.path;
    question.op = operations[up_to(operations.size())];
    question.person = {asked.caller.name, asked.caller.uid, asked.caller.gid, {}, false, false};
    question.person.groups.assign(asked.caller.groups.begin(), asked.caller.groups.end());
    question.person.is_reserved = asked.caller.name == "syncagent";
    question.person.is_computer = asked.caller.name == "host$";
    return asked;
  }

  [[nodiscard]] bool judged(const Folder& map, const Asked& asked) const {
    return Judge(map, asked.caller, disk_).may(asked.question.op, asked.path);
  }

  [[nodiscard]] static bool is_granted_after_import(const Folder& map, const Asked& asked) {
    explain::Question question = asked.question;
    const std::vector<std::byte> image = import(map);
    question.map = image.data();
    return explain::ask(question).facts.is_granted();
  }

  // --- comparisons -------------------------------------------------------------------------------

  static void expect_entries(const Folder& map, const explain::Governing& governing) {
    const Governing expected = naive_lookup(map, governing.path);
    Governing found;
    for (const explain::Entry& entry : governing.entries) {
      found.entries.push_back({entry.trustee.is_user ? ACE_TYPE_USER : ACE_TYPE_GROUP,
                               {entry.trustee.id, static_cast<uint16_t>(entry.mask)}});
    }
    found.inherited = !found.entries.empty() && !governing.is_explicit;
    EXPECT_EQ(expected, found) << governing.path;
  }

  // The mask is what the entries that count make together.
  static void expect_sum(const explain::Governing& governing) {
    uint32_t sum = 0;
    for (const explain::Entry& entry : governing.entries) sum |= entry.counts() ? entry.mask : 0;
    EXPECT_EQ(sum, governing.mask) << governing.path;
  }

  void expect_facts(const Asked& asked, const explain::Facts& facts) const {
    const Judge judge(map_, asked.caller, disk_);
    EXPECT_EQ(judge.may(asked.question.op, asked.path), facts.is_granted());
    EXPECT_EQ(!facts.is_granted(), facts.is_refused());
    if (facts.object && facts.type != FSTYPE_DOES_NOT_EXIST) {
      expect_entries(map_, *facts.object);
      expect_sum(*facts.object);
    }
    if (facts.object) {
      EXPECT_EQ(judge.mask_on(facts.path), facts.object->mask);
    }
    if (!facts.parent || facts.parent->path == "/") return;
    expect_entries(map_, *facts.parent);
    expect_sum(*facts.parent);
    EXPECT_EQ(judge.mask_on(facts.parent->path), facts.parent->mask);
  }

  // True if some of the parts, the bits of `chosen`, turn the verdict.
  template <typename Part, typename Apply>
  bool turns(const Asked& asked, const std::vector<Part>& parts, uint32_t chosen, bool granted,
             Apply apply) const {
    Folder changed = map_;
    for (std::size_t i = 0; i < parts.size(); ++i) {
      if ((chosen >> i & 1U) != 0) apply(changed, parts[i]);
    }
    return judged(changed, asked) != granted;
  }

  // All parts turn the verdict, and no fewer do.
  template <typename Part, typename Apply>
  void expect_least(const Asked& asked, const std::vector<Part>& parts, bool granted, Apply apply) {
    ASSERT_LT(parts.size(), 12U);
    const uint32_t all = (1U << parts.size()) - 1;
    EXPECT_TRUE(turns(asked, parts, all, granted, apply));
    for (uint32_t some = 0; some < all; ++some) {
      EXPECT_FALSE(turns(asked, parts, some, granted, apply)) << some;
    }
    if (imports_ == kImports || random_() % 8 != 0) return;
    ++imports_;
    Folder changed = map_;
    for (const Part& part : parts) apply(changed, part);
    EXPECT_NE(granted, is_granted_after_import(changed, asked));
  }

  void expect_gifts(const Asked& asked, const explain::Answer& answer,
                    explain::Receivers receivers) {
    const auto gifts = explain::would_grant(asked.question, answer, receivers);
    if (!gifts.empty()) {
      ++gifts_;
      expect_least(asked, single(gifts), false, give);
      return;
    }
    ++hopeless_;
    Folder changed = map_;
    const Trustee user{true, asked.caller.uid};
    for (const std::string& folder : {parent_of(asked.path), asked.path}) {
      if (folder.starts_with("Shared")) give(changed, {folder, user, kAllRights});
    }
    EXPECT_FALSE(judged(changed, asked));
  }

  void expect_removals(const Asked& asked, const explain::Answer& answer) {
    const auto removals = explain::would_refuse(asked.question, answer);
    if (!removals.empty()) {
      ++removals_;
      expect_least(asked, removals, true, take);
      return;
    }
    // Nobody has an entry any more.
    Folder changed{.name = "/", .children = {{.name = "Shared"}}};
    EXPECT_TRUE(judged(changed, asked));
  }

  void ask_one() {
    const Asked asked = any_question();
    SCOPED_TRACE(explain::name_of(asked.question.op) + " " + asked.path + " as uid " +
                 std::to_string(asked.caller.uid));
    const explain::Answer answer = explain::ask(asked.question);
    expect_facts(asked, answer.facts);
    if (answer.facts.is_granted()) {
      expect_removals(asked, answer);
    } else {
      expect_gifts(asked, answer, explain::Receivers::kCallerAndGroups);
      if (random_() % 4 == 0) expect_gifts(asked, answer, explain::Receivers::kCaller);
    }
  }

  std::mt19937 random_;
  Folder map_;
  Disk disk_;
  std::vector<std::string> paths_;
  std::size_t gifts_ = 0, hopeless_ = 0, removals_ = 0, imports_ = 0;
};

TEST_F(RandomQuestions, AreAnsweredAndExplainedAsTheIndependentEvaluatorSays) {
  const std::size_t count = questions_to_ask();
  for (std::size_t asked = 0; asked < count && !HasFailure(); ++asked) {
    const auto seed = static_cast<uint32_t>(asked / kQuestionsOfAWorld);
    SCOPED_TRACE("world " + std::to_string(seed));
    if (asked % kQuestionsOfAWorld == 0) make_world(seed + 1);
    ask_one();
  }
  RecordProperty("gifts", static_cast<int>(gifts_));
  std::printf("%zu questions: %zu gifts, %zu beyond any right, %zu removals, %zu imports\n", count,
              gifts_, hopeless_, removals_, imports_);
  EXPECT_LT(count / 20, gifts_);
  EXPECT_LT(count / 20, removals_);
  EXPECT_LT(std::min(count, 8 * kImports) / 100, imports_);
}

}  // namespace
}  // namespace tavrix::test
