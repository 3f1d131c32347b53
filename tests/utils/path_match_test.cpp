// SPDX-License-Identifier: LGPL-3.0-or-later
// Equality of paths without case.

#include <gtest/gtest.h>

#include "perm_enforcer.h"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class Paths : public Isolated {};

TEST_F(Paths, MatchWhateverTheCase) {
  EXPECT_EQ(1, _paths_match("Private", "private"));
  EXPECT_EQ(1, _paths_match("SHARED/a.B", "shared/A.b"));
  EXPECT_EQ(1, _paths_match("", ""));
}

TEST_F(Paths, DifferInLengthOrBytes) {
  EXPECT_EQ(0, _paths_match("Private", "Privat"));
  EXPECT_EQ(0, _paths_match("Privat", "Private"));
  EXPECT_EQ(0, _paths_match("", "a"));
  EXPECT_EQ(0, _paths_match("Xa", "Ya"));
}

TEST_F(Paths, AreToldWithTheAnswer) {
  EXPECT_EQ(4, level_of("compare path 'a' to 'B'", [] { _paths_match("a", "B"); }));
  EXPECT_EQ(4, level_of("Paths do not match", [] { _paths_match("a", "B"); }));
  EXPECT_EQ(99, level_of("Paths do not match", [] { _paths_match("a", "A"); }));
}

TEST_F(Paths, WithExtendedBytesOnBothSidesAreJudgedBySamba) {
  give_samba_library_its_name();
  EXPECT_EQ(1, _paths_match("Caf\xc3\xa9", "caf\xc3\x89"));
  EXPECT_EQ(0, _paths_match("Caf\xc3\xa9", "caf\xc3\xa8"));
  EXPECT_EQ(0, _paths_match("Caf\xc3\xa9", "caf\xc3\x89x"));
}

TEST_F(Paths, JudgedBySambaAreTold) {
  give_samba_library_its_name();
  const auto match = [] { _paths_match("\xc3\xa9", "\xc3\x89"); };
  EXPECT_EQ(4, level_of("strcasecmp_m_wrapper match", match));
  EXPECT_EQ(99, level_of("Paths do not match", match));
  EXPECT_EQ(4, level_of("Paths do not match", [] { _paths_match("\xc3\xa9", "\xc3\xa8"); }));
}

TEST_F(Paths, WithExtendedBytesOnOneSideNeedNoSamba) {
  hide_samba_library();
  EXPECT_EQ(0, _paths_match("caf\xc3\xa9", "cafe"));
  EXPECT_EQ(0, _paths_match("cafe", "caf\xc3\xa9"));
}

TEST_F(Paths, AreNeverComparedWithoutSambaWhenItIsNeeded) {
  hide_samba_library();
  EXPECT_EQ(1, in_child([] { _paths_match("\xc3\xa9", "\xc3\x89"); }).exit_code);
  EXPECT_EQ(1, in_child([] { _paths_match_len("\xc3\xa9", "\xc3\x89", 2); }).exit_code);
}

// --- prefixes match -----------------------------------------------------------------------------

TEST_F(Paths, BeginAlikeWhateverTheCase) {
  EXPECT_EQ(1, _paths_match_len("Private/anna", "private/", 8));
  EXPECT_EQ(1, _paths_match_len("private/", "PRIVATE/x", 8));
  EXPECT_EQ(0, _paths_match_len("Privat./anna", "private/", 8));
  EXPECT_EQ(1, _paths_match_len("a", "b", 0));
}

TEST_F(Paths, AShorterPathNeverBeginsAlike) {
  EXPECT_EQ(0, _paths_match_len("private", "private/", 8));
  EXPECT_EQ(0, _paths_match_len("private", "private", 8));
  EXPECT_EQ(0, _paths_match_len("", "", 1));
}

TEST_F(Paths, ComparedByLengthAreTold) {
  const auto differ = [] { _paths_match_len("ab", "ac", 2); };
  EXPECT_EQ(4, level_of("compare path 'ab' to 'ac' for len 2", differ));
  EXPECT_EQ(4, level_of("Paths do not match", differ));
  EXPECT_EQ(99, level_of("Paths do not match", [] { _paths_match_len("ab", "ac", 1); }));
}

TEST_F(Paths, WithExtendedBytesBeginAlikeBySamba) {
  give_samba_library_its_name();
  const auto match = [] {
    return _paths_match_len("\xc3\xa9t\xc3\xa9/x", "\xc3\x89T\xc3\x89/y", 4);
  };
  EXPECT_EQ(1, match());
  EXPECT_EQ(4, level_of("strncasecmp_m_wrapper match", match));
  EXPECT_EQ(0, _paths_match_len("\xc3\xa9", "\xc3\xa8", 2));
}

}  // namespace
}  // namespace tavrix::test
