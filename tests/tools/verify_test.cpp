// SPDX-License-Identifier: LGPL-3.0-or-later
// The check of an image, on sound images and on random bytes.

#include "tools/mapcheck/verify.hpp"

#include <gtest/gtest.h>
#include <cstring>
#include <random>

#include "perm_utils.h"
#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

using Image = std::vector<std::byte>;

Folder tree() {
  return {
      .name = "/",
      .users = {{1, 7}},
      .children = {{.name = "a", .groups = {{2, 3}}, .children = {{.name = "b"}}}, {.name = "c"}}};
}

std::string told(const Image& image) {
  std::string text;
  const mapcheck::Findings findings = mapcheck::verify(image);
  for (const auto& finding : findings.kept()) text += finding.text + "\n";
  return text;
}

TEST(Verify, FindsNothingInSoundImages) {
  EXPECT_EQ("", told(build_image(tree())));
  EXPECT_EQ("", told(build_image({.name = "/"})));
  for (uint32_t seed = 1; seed < 20; ++seed)
    EXPECT_EQ("", told(build_image(random_tree(seed, 300))));
}

struct Damage {
  std::size_t at;
  uint32_t value;
  const char* finding;
};

TEST(Verify, FindsEachKindOfDamage) {
  const Image sound = build_image(tree());
  // folders 176.., names 272.., ACLs .., lists ..
  const auto word = [&](std::size_t at) {
    uint32_t value = 0;
    std::memcpy(&value, sound.data() + at, 4);
    return value;
  };
  const std::size_t names = word(136), acls = word(148), lists = word(160);
  const Damage damages[] = {
      {172, 1, "the header's signature is 0x00000001"},
      {112, 9, "the header counts 9 folders, 4 are there"},
      {116, 1, "the header counts 1 entry, 2 are there"},
      {124, 170, "the folders begin at 170, not at 176"},
      {136, 0xFFFFFFFF, "the names begin at 4294967295"},
      {164, 0xFFFFFFFF, "beyond the image"},
      {132, 100, "the folders use 100 bytes"},
      {132, 0, "the folders use 0 bytes"},
      {132, 96000, "the folders use 96000 bytes of 96"},
      {176, 1, "a folder's signature is 0x00000001"},
      {180, 0xFFFFFFFF, "the root was never finished"},
      {196, 0, "the first folder is not marked as the root"},
      {200 + 4, 24, "a folder's parent is at 24"},
      {200 + 4, 0xFFFFFFFE, "a folder's parent is at 4294967294"},
      {200 + 8, 0xFFFFFFF0, "no name at 4294967280"},
      {200 + 12, 3, "no child list at 3"},
      {200 + 12, 0xFFFFFFFF, "no child list at 4294967295"},
      {200 + 16, 0xFFFFFFFF, "no ACL at 4294967295"},
      {200 + 20, 1, "a second folder is marked as the root"},
      {names + 4, 0, "no name at 0"},
      {names, 0xFFFF, "a name of 65535 bytes ends beyond the names"},
      {names + 8, 5, "the hash of the name \"/\" is wrong"},
      {names + 12, 'x', "a folder is named \"x\""},
      {acls, 0, "no ACL at 0"},
      {acls + 4, 0xFFFFFFFF, "an ACL of 4294967295 entries ends beyond the ACLs"},
      {acls + 8, 3, "an entry of type 3"},
      {acls + 16, 32, "an entry's mask is 32"},
      {lists + 16, 0, "no child list at 16"},
      {lists + 20, 0xFFFFFFFF, "a list of 4294967295 children ends beyond the child lists"},
      {lists + 24, 1, "a list has 1 of 2 children"},
      {lists + 28, 25, "no child at 25"},
      {lists + 28, 0, "no child at 0"},
      {lists + 28, 48, "the child at 48 has another parent"},
      {lists + 28, 72, "the child at 72 is listed twice"},
      {lists + 28, 72, "a folder is in no child list"},
  };
  for (const Damage& damage : damages) {
    Image image = sound;
    std::memcpy(image.data() + damage.at, &damage.value, 4);
    EXPECT_TRUE(contains(told(image), damage.finding)) << damage.finding << ":\n" << told(image);
  }
}

TEST(Verify, FindsAListThatWasNotFilled) {
  Image image = build_image(tree());
  uint32_t lists = 0;
  std::memcpy(&lists, image.data() + 160, 4);
  const uint32_t one = 1;
  std::memcpy(image.data() + lists + 24, &one, 4);
  EXPECT_GT(mapcheck::verify(image).errors(), 0U);
}

TEST(Verify, FindsEveryTruncation) {
  const Image sound = build_image(tree());
  for (std::size_t size = 0; size < sound.size(); ++size) {
    EXPECT_GT(mapcheck::verify({sound.data(), size}).errors(), 0U) << size;
  }
}

TEST(Verify, TakesAnyBytes) {
  std::mt19937 random(5);
  const Image sound = build_image(random_tree(9, 100));
  for (int round = 0; round < 20000; ++round) mapcheck::verify(damaged(sound, random));
}

// Every reader can walk an image that the check finds sound.
TEST(Verify, GuardsTheReaders) {
  std::mt19937 random(6);
  const Image sound = build_image(random_tree(11, 60));
  int passed = 0;
  for (int round = 0; round < 20000; ++round) {
    Image image = sound;
    image[random() % image.size()] = static_cast<std::byte>(random());
    if (mapcheck::verify(image).errors() > 0) continue;
    ++passed;
    tavrix_acl_t* acl = nullptr;
    ASSERT_EQ(0, get_tavrix_acl(image.data(), "a/b/c", &acl));
    free_ACL(acl);
    std::free(acl);
  }
  EXPECT_GT(passed, 100);
}

}  // namespace
}  // namespace tavrix::test
