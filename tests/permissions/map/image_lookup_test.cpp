// SPDX-License-Identifier: LGPL-3.0-or-later
// Paths in an image: the folder that is found, and the ACL that governs.

#include <gtest/gtest.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <random>

#include "mkperms_shm.h"
#include "perm_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/map_model.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

// --- finding -------------------------------------------------------------------------------------

Folder example() {
  const Folder leaf{.name = "leaf", .users = {{5, 1}}};
  const Folder mixed{.name = "MiXed", .groups = {{6, 3}}, .children = {leaf}};
  const Folder plain{.name = "plain"};
  return {.name = "/", .users = {{1, 7}, {2, 3}}, .groups = {{3, 1}}, .children = {mixed, plain}};
}

class Lookup : public Isolated {
 protected:
  void use(const Folder& tree) { image_ = build_image(tree); }
  void* map() { return image_.data(); }

  struct Found {
    membe_shm_err code;
    uint32_t offset;
    bool operator==(const Found&) const = default;
  };
  Found find(const std::string& path) {
    path_array* array = nullptr;
    get_path_elem_smb4(path.c_str(), static_cast<uint32_t>(path.size() + 1), &array);
    Found found{SHM_MEMBE_OK, 0};
    found.code = find_fselem_fromname(map(), array, &found.offset);
    cleanup_path_array_smb4(&array);
    return found;
  }
  Governing acl(const std::string& path) {
    tavrix_acl_t* acl = nullptr;
    EXPECT_EQ(0, get_tavrix_acl(map(), path.c_str(), &acl));
    Governing governing = governing_of(*acl);
    free_ACL(acl);
    std::free(acl);
    return governing;
  }

  std::vector<std::byte> image_ = build_image(example());
};

TEST_F(Lookup, FindsFoldersInAnyCase) {
  EXPECT_EQ((Found{SHM_MEMBE_OK, 24}), find("mixed"));
  EXPECT_EQ((Found{SHM_MEMBE_OK, 24}), find("/MIXED/"));
  EXPECT_EQ((Found{SHM_MEMBE_OK, 48}), find("mIxEd//LEAF"));
  EXPECT_EQ((Found{SHM_MEMBE_OK, 72}), find("/plain"));
}

TEST_F(Lookup, TakesTheRootForAnAncestor) {
  EXPECT_EQ((Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}), find("/"));
  EXPECT_TRUE(acl("/").inherited);
  EXPECT_EQ(3U, acl("/").entries.size());
}

TEST_F(Lookup, StopsAtTheDeepestFolderThatMatches) {
  EXPECT_EQ((Found{SHM_MEMBE_OK_NAMEREMAPPED, 24}), find("mixed/other"));
  EXPECT_EQ((Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}), find("other/leaf"));
  EXPECT_EQ((Found{SHM_MEMBE_OK_NAMEREMAPPED, 48}), find("mixed/leaf/deeper/still"));
  EXPECT_EQ((Found{SHM_MEMBE_OK_NAMEREMAPPED, 24}), find("mixed/leaf2"));
}

TEST_F(Lookup, OfAMissingNameGivesTheParentsEntriesAsInherited) {
  EXPECT_EQ((Governing{{{ACE_TYPE_GROUP, {6, 3}}}, true}), acl("mixed/other"));
}

TEST_F(Lookup, GivesTheFoldersOwnEntriesInDocumentOrder) {
  use({.name = "/",
       .children = {{.name = "a", .users = {{1, 7}, {2, 3}}, .groups = {{3, 1}, {4, 8}}}}});
  EXPECT_EQ((Governing{{{ACE_TYPE_USER, {1, 7}},
                        {ACE_TYPE_USER, {2, 3}},
                        {ACE_TYPE_GROUP, {3, 1}},
                        {ACE_TYPE_GROUP, {4, 8}}},
                       false}),
            acl("a"));
}

TEST_F(Lookup, InheritsFromTheNearestAncestorWithEntries) {
  const Folder c{.name = "c"};
  const Folder b{.name = "b", .children = {c}};
  use({.name = "/",
       .users = {{9, 1}},
       .children = {{.name = "a", .users = {{1, 7}}, .children = {b}}}});
  EXPECT_EQ((Governing{{{ACE_TYPE_USER, {1, 7}}}, true}), acl("a/b/c"));
  EXPECT_EQ((Governing{{{ACE_TYPE_USER, {1, 7}}}, false}), acl("a"));
}

TEST_F(Lookup, OfAnEmptyRootIsAnAclWithoutEntries) {
  use({.name = "/"});
  EXPECT_EQ((Governing{{}, false}), acl("/x"));
}

TEST_F(Lookup, NeedsSambaOnlyWhereExtendedBytesMeet) {
  use({.name = "/", .children = {{.name = "\xc3\xa9"}, {.name = "abc"}}});
  hide_samba_library();
  EXPECT_EQ(SHM_MEMBE_OK, find("ABC").code);
  const Outcome outcome = in_child([this] { find("\xc3\x89"); });
  EXPECT_EQ(1, outcome.exit_code);
}

TEST_F(Lookup, FindsExtendedNamesInAnyCase) {
  give_samba_library_its_name();
  use({.name = "/", .children = {{.name = "caf\xc3\xa8"}, {.name = "caf\xc3\xa9"}}});
  EXPECT_EQ((Found{SHM_MEMBE_OK, 48}), find("CAF\xc3\x89"));
  EXPECT_EQ((Found{SHM_MEMBE_OK, 24}), find("caf\xc3\xa8"));
  EXPECT_EQ((Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}), find("caf\xc3\xaa"));
}

// Samba counts characters, not bytes: without an end it would read into the next name.
TEST_F(Lookup, FindsExtendedNamesInTheMiddleOfAPath) {
  give_samba_library_its_name();
  use({.name = "/",
       .children = {{.name = "\xe2\x82\xac"
                             "A",
                     .children = {{.name = "b"}}}}});
  EXPECT_EQ((Found{SHM_MEMBE_OK, 48}), find("\xe2\x82\xac"
                                            "a/b"));
  EXPECT_FALSE(acl("\xe2\x82\xac"
                   "a/b")
                   .inherited &&
               find("\xe2\x82\xac"
                    "a/b")
                       .offset == 0);
}

TEST_F(Lookup, TakesTheFirstOfTwoNamesThatAreEqual) {
  give_samba_library_its_name();
  use({.name = "/", .children = {{.name = "\xc3\x89"}, {.name = "\xc3\xa9"}}});
  EXPECT_EQ((Found{SHM_MEMBE_OK, 24}), find("\xc3\xa9"));
}

TEST_F(Lookup, IsTheNaiveOneOnRandomTrees) {
  give_samba_library_its_name();
  std::mt19937 random(7);
  for (uint32_t seed = 1; seed <= 12; ++seed) {
    const Folder tree = random_tree(seed, 400);
    use(tree);
    for (std::string path : paths_of(tree)) {
      for (char& c : path) {
        if (random() % 3 == 0 && static_cast<signed char>(c) > 0) {
          c = static_cast<char>(std::isupper(c) != 0 ? std::tolower(c) : std::toupper(c));
        }
      }
      switch (random() % 6) {
        case 0:
          path += "/missing";
          break;
        case 1:
          path = "/" + path + "//";
          break;
        case 2:
          path.insert(0, "///");
          break;
        case 3:
          path += "/Missing/below";
          break;
        default:
          break;
      }
      ASSERT_EQ(naive_lookup(tree, path), acl(path)) << "seed " << seed << " path " << path;
    }
  }
}

TEST_F(Lookup, LeavesNothingOnTheHeap) {
  acl("mixed/leaf");
  const long blocks = live_allocations();
  for (const char* path : {"mixed/leaf", "/", "nothing/at/all"}) acl(path);
  EXPECT_EQ(blocks, live_allocations());
}

// --- refusals and aborts -------------------------------------------------------------------------

TEST_F(Lookup, OfNothingIsRefused) {
  tavrix_acl_t* acl = nullptr;
  EXPECT_EQ(0, level_of("ENFORCE_PERMS Null membuf",
                        [&] { EXPECT_EQ(3, get_tavrix_acl(nullptr, "a", &acl)); }));
  EXPECT_EQ(0, level_of("ENFORCE_PERMS Empty path",
                        [&] { EXPECT_EQ(3, get_tavrix_acl(map(), "", &acl)); }));
  EXPECT_EQ(nullptr, acl);
  uint32_t offset = 0;
  path_array* array = nullptr;
  get_path_elem_smb4("a", 2, &array);
  EXPECT_EQ(0, level_of("NULL perm map", [&] {
              EXPECT_EQ(SHM_MEMBE_ERR_MAP_CORRUPTION,
                        find_fselem_fromname(nullptr, array, &offset));
            }));
  EXPECT_EQ(0, level_of("Null file path ", [&] {
              EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, find_fselem_fromname(map(), nullptr, &offset));
            }));
  EXPECT_EQ(0, level_of("Invalid perm map", [&] {
              EXPECT_EQ(SHM_MEMBE_ERR_BADARGS,
                        get_nonempty_tavrixacl_fromfselemoffset(nullptr, 0, &acl));
            }));
  cleanup_path_array_smb4(&array);
}

TEST_F(Lookup, InAForeignMapIsReported) {
  image_[172] = std::byte{0};
  EXPECT_EQ((Found{SHM_MEMBE_ERR_BADARGS, 0}), find("a"));
  EXPECT_EQ(0, level_of("Corrupted map ", [this] { find("a"); }));
  const Outcome outcome = in_child([this] {
    std::signal(SIGABRT, [](int) { std::fprintf(stderr, "<%s>\n", messages().back().c_str()); });
    acl("a");
  });
  EXPECT_TRUE(outcome.aborted_with("ret == SHM_MEMBE_OK")) << outcome.err;
  EXPECT_NE(std::string::npos,
            outcome.err.find("<ENFORCE_PERMS Cannot find path in permission map 3>"));
}

struct Damage {
  const char* condition;
  std::size_t at;  // in the image of example()
  uint32_t value;
};

TEST_F(Lookup, AbortsOnEachBrokenRecord) {
  const auto names = 176U + 24 * 4;
  const auto lists = image_.size() - 16 * 4;
  const Damage damages[] = {
      {"fselem->signature == FSELEMSIG", 176, 1},
      {"fselem->parent_offset == FSELEM_ROOT_OFFSET2", 176 + 4, 0xFFFFFFFF},
      {"strcmp(nelem->name, \"/\") == 0", names + 12, 'x'},
      {"nelem->signature == NAMESIG", names + 4, 1},
      {"clist->signature == LISTSIG", lists + 16, 1},
      {"fselem->signature == FSELEMSIG", 176 + 24, 1},
  };
  for (const Damage& damage : damages) {
    const Outcome outcome = in_child([&] {
      std::memcpy(image_.data() + damage.at, &damage.value, damage.at == names + 12 ? 1 : 4);
      find("mixed/leaf");
    });
    EXPECT_TRUE(outcome.aborted_with(damage.condition)) << damage.condition << outcome.err;
  }
}

TEST_F(Lookup, AbortsOnANullPathAndAUsedOffset) {
  EXPECT_TRUE(in_child([this] {
                tavrix_acl_t* acl = nullptr;
                get_tavrix_acl(map(), nullptr, &acl);
              }).aborted_with("path != NULL"));
  EXPECT_TRUE(in_child([this] {
                path_array* array = nullptr;
                get_path_elem_smb4("a", 2, &array);
                uint32_t offset = 24;
                find_fselem_fromname(map(), array, &offset);
              }).aborted_with("*offset == 0"));
}

TEST_F(Lookup, DoesNotRunInACircleOfParents) {
  const Outcome outcome = in_child([this] {
    use({.name = "/", .children = {{.name = "a", .children = {{.name = "b"}}}}});
    const uint32_t child = 48;
    std::memcpy(image_.data() + 176 + 24 + 4, &child, 4);  // a's parent becomes its child
    acl("a/b");
  });
  EXPECT_EQ(SIGABRT, outcome.signal);
}

// --- traces --------------------------------------------------------------------------------------

TEST_F(Lookup, IsTraced) {
  EXPECT_EQ(10, level_of("tavrix_strncasecmp strcmpres 0", [this] { find("mixed"); }));
  EXPECT_EQ(10, level_of("Found match cnelem MiXed and pelem mixed", [this] { find("mixed"); }));
  EXPECT_EQ(10, level_of("Matched name MiXed", [this] { find("mixed"); }));
  EXPECT_EQ(4, level_of("setting inherited as ret is SHM_MEMBE_OK_NAMEREMAPPED",
                        [this] { acl("mixed/x"); }));
  EXPECT_EQ(4, level_of("Before ACL  traversal", [this] { acl("mixed"); }));
  EXPECT_EQ(4, level_of("After ACL  traversal", [this] { acl("mixed"); }));
}

TEST_F(Lookup, OfExtendedNamesIsTraced) {
  give_samba_library_its_name();
  use({.name = "/", .children = {{.name = "\xc3\xa9"}}});
  EXPECT_EQ(10, level_of("tavrix_strncasecmp strcmpres 2", [this] { find("\xc3\xa9"); }));
  EXPECT_EQ(10, level_of("StrnCaseCmp strcmpres 0", [this] { find("\xc3\xa9"); }));
}

TEST_F(Lookup, AnswersForAMissingMapBeforeAMissingPath) {
  tavrix_acl_t* acl = nullptr;
  EXPECT_EQ(0, level_of("ENFORCE_PERMS Null membuf",
                        [&] { EXPECT_EQ(3, get_tavrix_acl(nullptr, nullptr, &acl)); }));
}

// A finished image has as many slots filled as there are; a lookup goes by the slots.
TEST_F(Lookup, ScansAllSlotsOfAFolder) {
  const Folder root{
      .name = "/",
      .users = {{1, 1}},
      .children = {{.name = "a", .users = {{2, 2}}}, {.name = "b", .users = {{3, 3}}}}};
  auto image = build_image(root);
  const auto* header = reinterpret_cast<const tavrix_be_header*>(image.data());
  const auto* top = reinterpret_cast<const fs_elem_s*>(image.data() + header->fselem_offset);
  auto* list =
      reinterpret_cast<child_list_s*>(image.data() + header->list_offset + top->clist_offset);
  ASSERT_EQ(2U, list->num_children);
  list->next_index = 1;
  tavrix_acl_t* acl = nullptr;
  ASSERT_EQ(0, get_tavrix_acl(image.data(), "b", &acl));
  EXPECT_EQ(3U, governing_of(*acl).entries.at(0).ace.id);
  free_ACL(acl);
  std::free(acl);
}

}  // namespace
}  // namespace tavrix::test
