// SPDX-License-Identifier: LGPL-3.0-or-later
// The places of two random maps, compared with a sorted list of paths and with the library's own
// lookups.

#include "tools/mapdiff/places.hpp"

#include <gtest/gtest.h>
#include <strings.h>
#include <algorithm>
#include <random>

#include "permissions/map/image_lookup.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/map_model.hpp"

namespace tavrix::test {
namespace {

using mapdiff::Difference;
using mapdiff::Governor;
using mapdiff::Place;

class Places : public Isolated {
 protected:
  void take(const Folder& before, const Folder& after) {
    old_image_ = build_image(before);
    new_image_ = build_image(after);
    difference_ = mapdiff::compare(old_map(), new_map());
    places_.clear();
    mapdiff::visit_places(old_map(), new_map(), difference_,
                          [this](const Place& place) { places_.push_back(place); });
  }
  [[nodiscard]] ImageView old_map() const { return ImageView(old_image_.data()); }
  [[nodiscard]] ImageView new_map() const { return ImageView(new_image_.data()); }
  [[nodiscard]] std::vector<std::string> paths() const {
    std::vector<std::string> paths;
    for (const Place& place : places_) paths.push_back(place.path);
    return paths;
  }
  // All paths with entries that came, went or changed, below Shared or governing it.
  [[nodiscard]] std::vector<std::string> expected_paths() const {
    std::vector<std::string> paths;
    for (const auto& pair : difference_.changed) {
      paths.push_back(mapdiff::path_of(new_map(), pair.new_folder));
    }
    for (const auto& gone : difference_.removed) add(old_map(), gone.folder, paths);
    for (const auto& come : difference_.added) add(new_map(), come.folder, paths);
    for (const auto& move : difference_.moved) {
      add(old_map(), move.old_folder, paths);
      add(new_map(), move.new_folder, paths);
    }
    std::erase_if(paths, [](const std::string& path) {
      return path != "/" && strcasecmp(path.c_str(), "shared") != 0 &&
             strncasecmp(path.c_str(), "shared/", 7) != 0;
    });
    for (std::string& path : paths) {
      if (path == "/" || path.find('/') == std::string::npos) path = "Shared";
    }
    std::ranges::sort(paths, [](const std::string& a, const std::string& b) {
      const int order = strcasecmp(a.c_str(), b.c_str());
      return order != 0 ? order < 0 : a < b;
    });
    const auto are_one = [](const std::string& a, const std::string& b) {
      return strcasecmp(a.c_str(), b.c_str()) == 0;
    };
    paths.erase(std::unique(paths.begin(), paths.end(), are_one), paths.end());
    return paths;
  }
  static void expect_the_library_agrees(const std::vector<std::byte>& image,
                                        const std::string& path, const Governor& governor) {
    AclPtr acl, parent;
    AclSources sources;
    ASSERT_EQ(0, governing_acls(image.data(), path, acl, parent, &sources));
    const AclSource& self = sources.self;
    EXPECT_EQ(self.holder, governor.holder) << path;
    EXPECT_EQ(self.match.code == SHM_MEMBE_OK && self.match.offset == self.holder, governor.is_own)
        << path;
  }
  std::vector<std::byte> old_image_, new_image_;
  Difference difference_;
  std::vector<Place> places_;

 private:
  static void add(const ImageView& map, uint32_t top, std::vector<std::string>& paths) {
    if (mapdiff::has_entries(map, top)) paths.push_back(mapdiff::path_of(map, top));
    const mapdiff::Children children(map, top);
    for (uint32_t slot = 0; slot < children.size(); ++slot) add(map, children[slot], paths);
  }
};

Folder leaf(const std::string& name, uint16_t mask) {
  return {.name = name, .users = {{1000, mask}}};
}

// Names in which one begins with another, that differ in case only, that are twins, and that a
// slash sorts behind or before.
Folder random_folder(std::mt19937& random, const std::string& name, int depth) {
  static const std::vector<std::string> kNames = {"a", "A", "a b", "a-b", "ab", "b", "B", "*"};
  Folder result{.name = name};
  if (random() % 2 == 0) result.users = {{1000, static_cast<uint16_t>(random() % 4)}};
  for (auto i = random() % 5; depth > 0 && i > 0; --i) {
    result.children.push_back(random_folder(random, kNames[random() % kNames.size()], depth - 1));
  }
  return result;
}

Folder random_map(std::mt19937& random) {
  Folder root = random_folder(random, "/", 0);
  for (const char* name : {"Private", "Shared", "SHARED"}) {
    if (random() % 8 != 0) root.children.push_back(random_folder(random, name, 4));
  }
  return root;
}

TEST_F(Places, AreThoseOfASortedListAndGovernedAsTheLibrarySays) {
  std::size_t seen = 0;
  for (uint32_t seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    take(random_map(random), random_map(random));
    ASSERT_EQ(expected_paths(), paths());
    for (const Place& place : places_) {
      expect_the_library_agrees(old_image_, place.path, place.old_map);
      expect_the_library_agrees(new_image_, place.path, place.new_map);
    }
    if (HasFailure()) return;
    seen += places_.size();
  }
  EXPECT_GT(seen, 5'000U);
}

TEST_F(Places, AreSortedAsPathsAre) {
  const Folder before{
      .name = "/",
      .children = {{.name = "Shared",
                    .children = {{.name = "a", .users = {{1, 1}}, .children = {leaf("x", 1)}},
                                 leaf("a b", 1),
                                 leaf("ab", 1)}}}};
  Folder after = before;
  after.children[0].children.clear();
  take(before, after);
  EXPECT_EQ((std::vector<std::string>{"Shared/a", "Shared/a b", "Shared/a/x", "Shared/ab"}),
            paths());
}

// The same letters beyond ASCII are the same name; others need Samba's comparison.
TEST_F(Places, HaveNamesBeyondAscii) {
  const auto map = [](uint16_t mask) {
    return Folder{.name = "/",
                  .children = {{.name = "Shared", .children = {leaf("B\xc3\xbcro", mask)}}}};
  };
  take(map(1), map(3));
  ASSERT_EQ((std::vector<std::string>{"Shared/B\xc3\xbcro"}), paths());
  EXPECT_TRUE(places_[0].old_map.is_own);
  EXPECT_TRUE(places_[0].new_map.is_own);
}

}  // namespace
}  // namespace tavrix::test
