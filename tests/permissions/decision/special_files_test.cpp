// SPDX-License-Identifier: LGPL-3.0-or-later
// Bookkeeping files of desktop clients.

#include <gtest/gtest.h>

#include "perm_enforcer.h"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

using Lines = std::vector<std::string>;

const Lines kSpecialNames = {".TemporaryItems",   ".DS_Store", "._.DS_Store",
                             "._.TemporaryItems", ".Trash",    "Shared/.DS_Store",
                             "Private/.DS_Store"};

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}
std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}
bool is_special(const std::string& path) { return is_special_folder_file(path.c_str()) == 1; }

// --- the list -----------------------------------------------------------------------------------

class SpecialName : public testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(Listed, SpecialName, testing::ValuesIn(kSpecialNames));

TEST_P(SpecialName, IsSpecialInAnyCase) {
  EXPECT_EQ(1, is_special_folder_file(GetParam().c_str()));
  EXPECT_EQ(1, is_special_folder_file(lower(GetParam()).c_str()));
  EXPECT_EQ(1, is_special_folder_file(upper(GetParam()).c_str()));
}

TEST_P(SpecialName, StandsForEverythingThatBeginsWithIt) {
  EXPECT_TRUE(is_special(GetParam() + "-1000"));
  EXPECT_TRUE(is_special(GetParam() + ".tmp"));
  EXPECT_TRUE(is_special(GetParam() + "/below/it"));
  EXPECT_TRUE(is_special(GetParam() + "\xc3\xa4"));
}

TEST_P(SpecialName, IsLookedForAtTheStartOfThePathOnly) {
  EXPECT_EQ(0, is_special_folder_file(("x" + GetParam()).c_str()));
  EXPECT_EQ(0, is_special_folder_file(("Shared/a/" + GetParam()).c_str()));
  EXPECT_EQ(0, is_special_folder_file(("/" + GetParam()).c_str()));
}

TEST_P(SpecialName, IsNotSpecialWhenItsLastByteIsMissing) {
  const std::string cut = GetParam().substr(0, GetParam().size() - 1);
  EXPECT_FALSE(is_special(cut));
  EXPECT_FALSE(is_special(cut + "#"));
}

TEST_P(SpecialName, IsToldWithItsComparison) {
  const std::string path = GetParam() + "!";
  const auto ask = [&] { is_special(path); };
  const std::string rest = " SPECIAL_FOLDER_FILE_PATH=" + GetParam() + " with path=" + path;
  EXPECT_EQ(2, level_of("\nis_special_folder_file: comparing" + rest, ask));
  EXPECT_EQ(2, level_of("\nis_special_folder_file: FOUND" + rest, ask));
}

TEST_P(SpecialName, IsToldWhenItDoesNotMatch) {
  const std::string path(GetParam().size(), 'x');
  const auto ask = [&] { is_special(path); };
  const std::string rest = " SPECIAL_FOLDER_FILE_PATH=" + GetParam() + " with path=" + path;
  EXPECT_EQ(2, level_of("\nis_special_folder_file: comparing" + rest, ask));
  EXPECT_EQ(2, level_of("\nis_special_folder_file: NOT FOUND" + rest, ask));
}

TEST_P(SpecialName, IsNotComparedWithAShorterPath) {
  const std::string path = GetParam().substr(0, GetParam().size() - 1);
  const auto ask = [&] { is_special(path); };
  const std::string rest = " SPECIAL_FOLDER_FILE_PATH=" + GetParam() + " with path=" + path;
  EXPECT_EQ(2, level_of("\nis_special_folder_file: NOT comparing" + rest, ask));
  EXPECT_EQ(99, level_of("\nis_special_folder_file: comparing" + rest, ask));
}

TEST(SpecialNames, AreComparedInTheirOrderUntilOneMatches) {
  set_debug_level(2);
  is_special("._.ds_store");
  const auto line = [](const std::string& verb, const std::string& name) {
    return "\nis_special_folder_file: " + verb + " SPECIAL_FOLDER_FILE_PATH=" + name +
           " with path=._.ds_store";
  };
  EXPECT_EQ((Lines{line("NOT comparing", ".TemporaryItems"), line("comparing", ".DS_Store"),
                   line("NOT FOUND", ".DS_Store"), line("comparing", "._.DS_Store"),
                   line("FOUND", "._.DS_Store")}),
            messages());
}

TEST(SpecialNames, AreNotComparedByTheSambaLibrary) {
  // The list holds no extended bytes, so none are compared with others and nothing is loaded.
  EXPECT_FALSE(is_special("\xc3\x84.DS_Store"));
  EXPECT_FALSE(is_special(".DS_Stor\xc3\xa9"));
}

TEST(SpecialNames, NothingIsSpecialAboutOrdinaryPaths) {
  for (const char* path :
       {"", ".", "..", "Shared", "Shared/a", "Private/anna", "DS_Store", ".DS"}) {
    EXPECT_FALSE(is_special(path)) << path;
  }
}

// --- sandbox files ------------------------------------------------------------------------------

TEST(SandboxFile, IsFoundAnywhereInThePath) {
  EXPECT_EQ(1, is_special_folder_file("a.sb-xyz"));
  EXPECT_TRUE(is_special(".sb-"));
  EXPECT_TRUE(is_special("Shared/a/b.sb-1/c"));
  EXPECT_TRUE(is_special(std::string(100000, 'x') + ".sb-"));
}

TEST(SandboxFile, IsFoundInThisCaseOnly) {
  EXPECT_FALSE(is_special("a.SB-xyz"));
  EXPECT_FALSE(is_special("a.Sb-xyz"));
}

TEST(SandboxFile, NeedsAllFourBytes) {
  EXPECT_FALSE(is_special(".sb"));
  EXPECT_FALSE(is_special("a.sb_"));
  EXPECT_FALSE(is_special("sb-a"));
}

TEST(SandboxFile, IsTold) {
  const auto ask = [] { is_special("a.sb-x"); };
  EXPECT_EQ(2, level_of("\nWILD_CARD_SEARCH path=a.sb-x", ask));
  EXPECT_EQ(4, level_of("ENFORCE_PERMS \nis_special_folder_file: FOUND WILD_CARD=.sb- with "
                        "path=a.sb-x",
                        ask));
  EXPECT_EQ(2, level_of("is_special_folder_file: path=a.sb-x is_special=1", ask));
}

TEST(SandboxFile, ItsAbsenceIsTold) {
  const auto ask = [] { is_special("ab.c"); };
  EXPECT_EQ(2, level_of("\nWILD_CARD_SEARCH path=ab.c", ask));
  EXPECT_EQ(
      2,
      level_of("\nis_special_folder_file: NOT FOUND WILD_CARD_SEARCHES=.sb- with path=ab.c", ask));
  EXPECT_EQ(2, level_of("is_special_folder_file: path=ab.c is_special=0", ask));
}

TEST(SandboxFile, IsNotLookedForInFewerThanFourBytes) {
  const auto ask = [] { is_special(".sb"); };
  EXPECT_EQ(2, level_of("\nWILD_CARD_SEARCH path=.sb", ask));
  EXPECT_EQ(2, level_of("\nis_special_folder_file: NOT comparing WILD_CARD_SEARCHES=.sb- with "
                        "path=.sb",
                        ask));
  EXPECT_EQ(99, level_of("\nis_special_folder_file: NOT FOUND WILD_CARD_SEARCHES=.sb- with "
                         "path=.sb",
                         ask));
}

TEST(SandboxFile, PathsAreDataAndNoFormats) {
  const auto ask = [] { is_special("%s%n%s"); };
  EXPECT_EQ(2, level_of("is_special_folder_file: path=%s%n%s is_special=0", ask));
}

}  // namespace
}  // namespace tavrix::test
