// SPDX-License-Identifier: LGPL-3.0-or-later
// Parts of the tree as people name them.

#include "tools/events/path_pattern.hpp"

#include <gtest/gtest.h>
#include <random>
#include <string>

namespace tavrix::test {
namespace {

using events::PathPattern;
using Kind = PathPattern::Kind;

// By trying every length for every star.
bool by_trying(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] == '*') {
    for (std::size_t taken = 0; taken <= text.size(); ++taken) {
      if (by_trying(pattern.substr(1), text.substr(taken))) return true;
    }
    return false;
  }
  if (text.empty()) return false;
  if (pattern[0] == '?' || pattern[0] == text[0])
    return by_trying(pattern.substr(1), text.substr(1));
  return false;
}

TEST(PathPatterns, MatchAsByTrying) {
  std::mt19937 random(20261122);
  const auto word = [&random](const char* letters, std::size_t most) {
    const std::string_view all = letters;
    std::string text(random() % (most + 1), ' ');
    for (char& c : text) c = all[random() % all.size()];
    return text;
  };
  int matches = 0;
  for (int i = 0; i < 200'000; ++i) {
    const std::string pattern = word("ab/*?", 7);
    const std::string text = word("ab/", 7);
    const bool expected = by_trying(pattern, text);
    matches += expected ? 1 : 0;
    ASSERT_EQ(expected, events::glob_matches(pattern, text)) << pattern << " and " << text;
  }
  EXPECT_GT(matches, 10'000);
}

TEST(PathPatterns, TakeCharactersOfUtf8Whole) {
  EXPECT_TRUE(events::glob_matches("caf?", "caf\xc3\xa9"));
  EXPECT_TRUE(events::glob_matches("?", "\xe2\x82\xac"));
  EXPECT_FALSE(events::glob_matches("??", "\xe2\x82\xac"));
  EXPECT_TRUE(events::glob_matches("caf?", "caf\xe9"));  // of another encoding
  EXPECT_TRUE(events::glob_matches("[\xc3\xa9x]", "\xc3\xa9"));
}

TEST(PathPatterns, HaveSets) {
  EXPECT_TRUE(events::glob_matches("[a-c]1", "b1"));
  EXPECT_FALSE(events::glob_matches("[a-c]1", "d1"));
  EXPECT_TRUE(events::glob_matches("[!a-c]1", "d1"));
  EXPECT_TRUE(events::glob_matches("[^a]", "b"));
  EXPECT_TRUE(events::glob_matches("[]x]", "]"));
  EXPECT_TRUE(events::glob_matches("[a-]", "-"));
  EXPECT_TRUE(events::glob_matches("a[b", "a[b"));  // a bracket without an end is one
}

// A pattern from a page must not keep a processor busy.
TEST(PathPatterns, TakeNoLongerForManyStars) {
  std::string pattern;
  for (int i = 0; i < 50; ++i) pattern += "a*";
  EXPECT_FALSE(events::glob_matches(pattern + "b", std::string(4000, 'a')));
}

TEST(PathPatterns, KnowTheirKind) {
  EXPECT_EQ(Kind::kFolder, PathPattern("Shared").kind());
  EXPECT_EQ(Kind::kFolder, PathPattern("Shared/Team").kind());
  EXPECT_EQ(Kind::kFolder, PathPattern("\\Shared\\Team").kind());
  EXPECT_EQ(Kind::kFolder, PathPattern("/").kind());
  EXPECT_EQ(Kind::kGlob, PathPattern("Shared/*.docx").kind());
  EXPECT_EQ(Kind::kName, PathPattern("*.docx").kind());
  EXPECT_EQ(Kind::kText, PathPattern("plan.txt").kind());
}

TEST(PathPatterns, AreWholePathsOfTheServer) {
  for (const char* text :
       {"Shared/Team", "/Shared/Team/", "\\Shared\\Team", "/tavrix/Shared/Team"}) {
    EXPECT_EQ("/tavrix/Shared/Team", PathPattern(text).text()) << text;
  }
  EXPECT_EQ("/tavrix", PathPattern("/").text());
  EXPECT_EQ("/tavrix", PathPattern("/tavrix/").text());
  EXPECT_EQ("/srv/other/x", PathPattern("/srv/other/x").text());
  EXPECT_EQ("/tavrix/Shared/*.doc", PathPattern("Shared/*.doc").text());
}

TEST(PathPatterns, OfAFolderTakeItAndWhatIsBelow) {
  const PathPattern team("Shared/Team");
  EXPECT_TRUE(team.matches("/tavrix/Shared/Team"));
  EXPECT_TRUE(team.matches("/tavrix/Shared/Team/a"));
  EXPECT_FALSE(team.matches("/tavrix/Shared/Teams"));
  EXPECT_FALSE(team.matches("/tavrix/Shared"));
}

TEST(PathPatterns, TellWhatPathsBeginWith) {
  EXPECT_EQ("/tavrix/Shared/Team", PathPattern("Shared/Team").head());
  EXPECT_EQ("/tavrix/Shared/T", PathPattern("Shared/T*/x").head());
  EXPECT_EQ("", PathPattern("*.doc").head());
  EXPECT_EQ("", PathPattern("plan").head());
}

TEST(PathPatterns, AreShownRelativeToTheShare) {
  EXPECT_EQ("Shared/a", events::shown_path("/tavrix/Shared/a"));
  EXPECT_EQ("/tavrix", events::shown_path("/tavrix"));
  EXPECT_EQ("/tavrixes/a", events::shown_path("/tavrixes/a"));
}

}  // namespace
}  // namespace tavrix::test
