// SPDX-License-Identifier: LGPL-3.0-or-later
// The name of a folder beside the one that a path has.

#include "permissions/map/name_equality.hpp"

#include <gtest/gtest.h>
#include <string>

#include "tests/support/isolated.hpp"

namespace tavrix::test {
namespace {

bool equal(const std::string& stored, const std::string& wanted) {
  // The wanted name is a part of a path: no NUL follows it.
  const std::string path = wanted + "/more";
  const auto length = static_cast<uint32_t>(wanted.size());
  return names_equal(stored.c_str(), {path.data(), length, 0}, 0);
}

class NameEquality : public Isolated {};

TEST_F(NameEquality, IgnoresTheCaseOfLetters) {
  EXPECT_TRUE(equal("Team", "Team"));
  EXPECT_TRUE(equal("Team", "tEAM"));
  EXPECT_FALSE(equal("Team", "Tear"));
  EXPECT_TRUE(equal("a longer name of a folder", "A LONGER NAME OF A FOLDER"));
}

TEST_F(NameEquality, AsksTheServerAboutLettersBeyondAscii) {
  give_samba_library_its_name();
  EXPECT_TRUE(equal("caf\xc3\xa9", "caf\xc3\xa9"));
  EXPECT_TRUE(equal("caf\xc3\xa9", "CAF\xc3\x89"));
  EXPECT_FALSE(equal("caf\xc3\xa9", "caf\xc3\xa8"));
}

TEST_F(NameEquality, TakesEqualBytesThatAreNoLetters) {
  give_samba_library_its_name();
  EXPECT_TRUE(equal("caf\xe9", "caf\xe9"));
}

}  // namespace
}  // namespace tavrix::test
