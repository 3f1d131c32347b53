// SPDX-License-Identifier: LGPL-3.0-or-later
// Walks through images: sound ones, damaged ones, and how little of a large one they look at.

#include "tools/mapcheck/walk.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <csignal>
#include <cstring>
#include <random>

#include "perm_utils.h"
#include "tests/support/isolated.hpp"
#include "tests/support/map_model.hpp"
#include "tools/mapbrowse/children.hpp"
#include "tools/mapbrowse/search.hpp"
#include "tools/mapcheck/verify.hpp"

namespace tavrix::test {
namespace {

using Image = std::vector<std::byte>;
using mapcheck::Broken;
using mapcheck::Walk;

Folder tree() {
  const Folder b{.name = "b", .children = {{.name = "deep"}}};
  const Folder a{.name = "a", .groups = {{2, 3}}, .children = {b, {.name = "B2"}}};
  return {.name = "/", .users = {{1, 7}}, .children = {a, {.name = "c", .users = {{5, 1}}}}};
}

uint32_t library_offset(const Image& image, const std::string& path) {
  path_array* parts = nullptr;
  get_path_elem_smb4(path.c_str(), static_cast<uint32_t>(path.size() + 1), &parts);
  uint32_t offset = 0;
  find_fselem_fromname(const_cast<std::byte*>(image.data()), parts, &offset);
  cleanup_path_array_smb4(&parts);
  return offset;
}

// The entries that govern a path, in the order of the library.
Governing governing(const Walk& walk, const std::string& path) {
  const auto found = walk.find(path);
  const auto source = walk.source_of(found.folder);
  Governing acl;
  acl.inherited = !found.exact || source.offset != found.folder.offset;
  const auto entries = walk.entries_of(source);
  for (uint32_t left = entries.size; left > 0; --left) {
    const beace_s ace = entries[left - 1];
    acl.entries.push_back(
        {ace.idtype == IDTYPE_UID ? ACE_TYPE_USER : ACE_TYPE_GROUP, {ace.id, ace.perm_mask}});
  }
  return acl;
}

// Names beyond ASCII are compared by the server's library.
class WalkWithTheServer : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    give_samba_library_its_name();
  }
};

TEST_F(WalkWithTheServer, FindsWhatTheLibraryFinds) {
  for (uint32_t seed = 1; seed < 15; ++seed) {
    const Folder root = random_tree(seed, 200);
    const Image image = build_image(root);
    const Walk walk(image);
    for (std::string path : paths_of(root)) {
      for (const char* more : {"", "/not there"}) {
        path += more;
        ASSERT_EQ(library_offset(image, "/" + path), walk.find(path).folder.offset) << path;
        tavrix_acl_t* acl = nullptr;
        ASSERT_EQ(0,
                  get_tavrix_acl(const_cast<std::byte*>(image.data()), ("/" + path).c_str(), &acl));
        ASSERT_EQ(governing_of(*acl).entries, governing(walk, path).entries) << path;
        free_ACL(acl);
        std::free(acl);
      }
    }
  }
}

TEST(Walk, KnowsPathsAndMisses) {
  const Image image = build_image(tree());
  const Walk walk(image);
  EXPECT_EQ("/a/b/deep", walk.path_of(walk.find("A//B/deep/").folder));
  EXPECT_EQ("/", walk.path_of(walk.find("").folder));
  EXPECT_TRUE(walk.find("/").exact);
  const auto missing = walk.find("a/none/deep");
  EXPECT_FALSE(missing.exact);
  EXPECT_EQ("/a", walk.path_of(missing.folder));
  EXPECT_EQ("/a", walk.path_of(walk.source_of(walk.find("a/b/deep").folder)));
}

void damage(Image& image, std::size_t at, uint32_t value) {
  std::memcpy(image.data() + at, &value, sizeof value);
}
uint32_t word(const Image& image, std::size_t at) {
  uint32_t value = 0;
  std::memcpy(&value, image.data() + at, sizeof value);
  return value;
}

// The last folder is "c", which is not on the way.
TEST(Walk, LeavesRecordsAloneThatAreNotOnTheWay) {
  Image image = build_image(tree());
  const uint32_t folders = word(image, 124);
  const std::size_t c = folders + 24 * (word(image, 112) - 1);
  damage(image, c + 16, 0xFFFFFFF0);  // its ACL
  EXPECT_GT(mapcheck::verify(image).errors(), 0U);
  const Walk walk(image);
  EXPECT_EQ("/a/b", walk.path_of(walk.find("a/b").folder));
  EXPECT_THROW(static_cast<void>(walk.source_of(walk.find("c").folder)), Broken);
}

TEST(Walk, RefusesDamageOnTheWay) {
  const Image sound = build_image(tree());
  const uint32_t folders = word(sound, 124), names = word(sound, 136), acls = word(sound, 148),
                 lists = word(sound, 160);
  const std::pair<std::size_t, uint32_t> damages[] = {
      {172, 1},            // the header
      {124, 170},          // a region
      {folders, 1},        // the root
      {folders + 4, 0},    // its parent
      {folders + 24, 1},   // the first child
      {folders + 28, 24},  // its parent is itself
      {folders + 32, 3},   // its name
      {names + 4, 0},      // the root's name
      {names + 12, 'x'},
      {acls, 0},
      {acls + 4, 0xFFFF},  // more entries than fit
      {acls + 8, 3},       // a kind of entry that is none
      {lists + 16, 0},
      {lists + 20, 0xFFFF},  // behind the list that the import reserves
      {lists + 28, 25},      // a child that is no folder
      {lists + 28, 0xFFFFFFF0},
  };
  for (const auto& [at, value] : damages) {
    Image image = sound;
    damage(image, at, value);
    EXPECT_THROW(
        {
          const Walk walk(image);
          const auto folder = walk.find("a").folder;
          static_cast<void>(walk.entries_of(walk.root()));
          static_cast<void>(walk.path_of(folder));
          walk.vouch_for(folder);
        },
        Broken)
        << at;
  }
}

// All that the commands ask.
void look_everywhere(const Image& image) {
  try {
    const Walk walk(image);
    for (const char* path : {"", "a", "a/b/c", "B/a/none"}) {
      const auto folder = walk.find(path).folder;
      static_cast<void>(walk.path_of(walk.source_of(folder)));
      for (const auto& child : mapbrowse::page_of(walk, folder, "a", 3).children) {
        static_cast<void>(walk.children_of(walk.at(child.offset)));
      }
    }
    static_cast<void>(mapbrowse::search(walk, mapbrowse::Wanted("a"), 10));
  } catch (const Broken&) {
    return;
  }
}

TEST(Walk, TakesAnyBytes) {
  std::mt19937 random(5);
  const Image sound = build_image(random_tree(9, 100));
  for (int round = 0; round < 20000; ++round) look_everywhere(damaged(sound, random));
  for (std::size_t size = 0; size < sound.size(); size += 7) {
    look_everywhere({sound.begin(), sound.begin() + static_cast<std::ptrdiff_t>(size)});
  }
}

// The library ends the process at a record that is not sound.
TEST_F(WalkWithTheServer, VouchesForTheLibrary) {
  std::mt19937 random(6);
  const Folder root = random_tree(11, 60);
  const Image sound = build_image(root);
  const auto paths = paths_of(root);
  int passed = 0;
  for (int round = 0; round < 20000; ++round) {
    Image image = sound;
    image[random() % image.size()] = static_cast<std::byte>(random());
    const std::string& path = paths[random() % paths.size()];
    try {
      const Walk walk(image);
      walk.vouch_for(walk.find(path).folder);
    } catch (const Broken&) {
      continue;
    }
    ++passed;
    tavrix_acl_t* acl = nullptr;
    ASSERT_EQ(0, get_tavrix_acl(image.data(), path.c_str(), &acl));
    free_ACL(acl);
    std::free(acl);
  }
  EXPECT_GT(passed, 100);
}

// A copy of an image of which each page is counted when it is looked at for the first time.
class CountedPages {
 public:
  explicit CountedPages(const Image& image)
      : size_((image.size() + kPage - 1) / kPage * kPage), used_(image.size()) {
    begin_ = static_cast<std::byte*>(
        mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    std::memcpy(begin_, image.data(), image.size());
    mprotect(begin_, size_, PROT_NONE);
    count = 0;
    struct sigaction action {};
    action.sa_sigaction = &show_page;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, &before_);
  }
  ~CountedPages() {
    sigaction(SIGSEGV, &before_, nullptr);
    munmap(begin_, size_);
  }
  CountedPages(const CountedPages&) = delete;
  CountedPages& operator=(const CountedPages&) = delete;

  [[nodiscard]] std::span<const std::byte> bytes() const { return {begin_, used_}; }
  static inline volatile int count = 0;

 private:
  static constexpr std::size_t kPage = 4096;
  static void show_page(int, siginfo_t* info, void*) {
    const auto page = reinterpret_cast<std::uintptr_t>(info->si_addr) / kPage * kPage;
    if (mprotect(reinterpret_cast<void*>(page), kPage, PROT_READ) != 0) _exit(1);
    count = count + 1;
  }
  std::size_t size_, used_;
  std::byte* begin_;
  struct sigaction before_ {};
};

TEST(Walk, LooksAtFewPages) {
  Folder root{.name = "/", .users = {{1, 7}}};
  for (int i = 0; i < 100; ++i) {
    root.children.push_back({.name = "team " + std::to_string(i)});
    for (int j = 0; j < 200; ++j) {
      root.children.back().children.push_back(
          {.name = "folder " + std::to_string(j), .users = {{7, 1}, {8, 3}}});
    }
  }
  const Image image = build_image(root);
  ASSERT_GT(image.size() / 4096, 300U);
  const CountedPages counted(image);
  const Walk walk(counted.bytes());
  EXPECT_EQ(1, CountedPages::count);
  const auto found = walk.find("team 50/folder 150");
  EXPECT_TRUE(found.exact);
  EXPECT_EQ("/team 50/folder 150", walk.path_of(walk.source_of(found.folder)));
  EXPECT_LT(CountedPages::count, 150);
}

}  // namespace
}  // namespace tavrix::test
