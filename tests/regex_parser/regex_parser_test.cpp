// SPDX-License-Identifier: LGPL-3.0-or-later
// The matcher of patterns.

#include <gtest/gtest.h>
#include <cstdlib>
#include <cstring>

#include "regex_parser.h"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

TEST(Regex, MatchesAnywhereWhateverTheCase) {
  EXPECT_EQ(REGEX_TRUE, match_regex_string("b+c", "aBBCd"));
  EXPECT_EQ(REGEX_FALSE, match_regex_string("^b", "ab"));
  EXPECT_EQ(REGEX_TRUE, match_regex_string("", "anything"));
  EXPECT_EQ(REGEX_TRUE, match_regex_string("^~\\$.*\\.docx$", "~$Report.DOCX"));
}

TEST(Regex, IsExtended) {
  EXPECT_EQ(REGEX_TRUE, match_regex_string("^(a|b){2}$", "ab"));
  EXPECT_EQ(11, TAVRIX_REGEX_FLAGS);
}

TEST(Regex, RefusesNothing) {
  EXPECT_EQ(0, level_of("Pattern is null",
                        [] { EXPECT_EQ(REGEX_ERROR, match_regex_string(nullptr, "a")); }));
  EXPECT_EQ(0, level_of("String is null",
                        [] { EXPECT_EQ(REGEX_ERROR, match_regex_string("a", nullptr)); }));
  clear_log();
  EXPECT_EQ(REGEX_ERROR, match_regex_string(nullptr, nullptr));
  EXPECT_EQ((std::vector<std::string>{"Pattern is null", "String is null"}), messages());
}

TEST(Regex, TellsABadPattern) {
  EXPECT_EQ(0, level_of("Cannot compile pattern a( due to Unmatched ( or \\(",
                        [] { EXPECT_EQ(REGEX_ERROR, match_regex_string("a(", "a")); }));
}

TEST(RegexBuffer, IsMadeOrFilled) {
  regex_t* buffer = nullptr;
  EXPECT_EQ(1, get_regex_matchbuf("abc", &buffer));
  ASSERT_NE(nullptr, buffer);
  EXPECT_EQ(REGEX_TRUE, match_string_with_regex_buf("xABCx", buffer));
  EXPECT_EQ(REGEX_FALSE, match_string_with_regex_buf("x", buffer));
  regfree(buffer);
  regex_t* same = buffer;
  EXPECT_EQ(1, get_regex_matchbuf("def", &buffer));
  EXPECT_EQ(same, buffer);
  EXPECT_EQ(REGEX_TRUE, match_string_with_regex_buf("def", buffer));
  regfree(buffer);
  std::free(buffer);
}

TEST(RegexBuffer, OfABadPatternFails) {
  regex_t* buffer = nullptr;
  EXPECT_EQ(-1, get_regex_matchbuf("(", &buffer));
  std::free(buffer);
}

TEST(RegexBuffer, RefusesNothing) {
  regex_t* buffer = nullptr;
  ASSERT_EQ(1, get_regex_matchbuf("a", &buffer));
  clear_log();
  EXPECT_EQ(REGEX_ERROR, match_string_with_regex_buf(nullptr, nullptr));
  EXPECT_EQ((std::vector<std::string>{"Bad arguments", "Bad regbuf", "Bad file name"}), messages());
  clear_log();
  EXPECT_EQ(REGEX_ERROR, match_string_with_regex_buf(nullptr, buffer));
  EXPECT_EQ((std::vector<std::string>{"Bad arguments", "Bad file name"}), messages());
  EXPECT_EQ(0, level_of("Bad regbuf", [] { match_string_with_regex_buf("a", nullptr); }));
  regfree(buffer);
  std::free(buffer);
}

}  // namespace
}  // namespace tavrix::test
