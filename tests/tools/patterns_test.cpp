// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl patterns, and the check of the pattern file when settings are loaded.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <cstring>

#include "eventstore.h"
#include "tavrix_vfs_utils.h"
#include "tests/support/log_capture.hpp"
#include "tests/tools/operator.hpp"
#include "tools/patterns/pattern_file.hpp"

namespace tavrix::test {
namespace {

const std::string kFile = "/scratch/patterns";

class Patterns : public Operator {
 protected:
  static Outcome check(const std::string& content) {
    write_file(kFile, content);
    return ctl({"patterns", "check", kFile});
  }
  static Outcome load_settings(const std::string& check_unlink = "1") {
    write_file("/scratch/tavrix.conf", "[VFS]\nexception pattern file = " + kFile +
                                           "\ncheck regex unlink = " + check_unlink + "\n");
    return ctl({"config", "load", "/scratch/tavrix.conf"});
  }
};

TEST_F(Patterns, WhatIsShippedIsInOrder) {
  const Outcome outcome =
      ctl({"patterns", "check", TAVRIX_SOURCE_DIR "/packaging/exception_patterns"});
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(outcome.out.ends_with("exception_patterns: 3 patterns, 0 errors, 0 warnings\n"))
      << outcome.out;
}

TEST_F(Patterns, ALineThatMatchesEveryNameIsAnError) {
  for (const std::string line : {"", ".*", "x*", "(a|)", ".", "^.+$", "...", ".{20}", "[^/]", "$",
                                 "\\.", "\\.[a-z]+$", "[[:alnum:]_]", "^[^~]"}) {
    const Outcome outcome = check("^a$\n" + line + "\n^b$\n");
    EXPECT_EQ(1, outcome.exit_code) << line;
    EXPECT_TRUE(outcome.out.starts_with(kFile + ":2: error: ")) << outcome.out;
    EXPECT_TRUE(contains(outcome.out, "1 error, 0 warnings; the server uses none of them"))
        << outcome.out;
  }
}

TEST_F(Patterns, AnchoredPatternsAreInOrder) {
  const Outcome outcome = check(
      "^~lock\\.\n\\.tmp$\n^(a|b)$\n(^a|b$)\n^[|]$|^\\|\n^[]|]x$\n^[[:digit:]|]+$\n^x\\/?$\n^$\n");
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_FALSE(contains(outcome.out, "neither")) << outcome.out;
}

TEST_F(Patterns, PatternsThatMatchAnywhereAreAWarning) {
  for (const std::string line : {"lock", "^a|b", "^(a|b)|c", "(a$|b)", "\\^a", "a\\$", "[^a]b"}) {
    const Outcome outcome = check(line + "\n");
    EXPECT_EQ(0, outcome.exit_code) << line;
    EXPECT_TRUE(contains(
        outcome.out,
        std::string(kFile).append(":1: warning: \"").append(line).append("\": neither ^ nor $")))
        << outcome.out;
  }
}

struct Slip {
  std::string content, text;
};

TEST_F(Patterns, SlipsOfThePenAreNamedWithTheirLine) {
  const std::string many = [] {
    std::string text;
    for (int i = 0; i < 257; ++i) text += "^a" + std::to_string(i) + "$\n";
    return text;
  }();
  const Slip slips[] = {
      {"^a$\n^b$", ":2: error: \"^b\": the last line does not end in a newline"},
      {"x", ":1: error: an empty line matches every name"},
      {"^a$\r\n", ":1: error: \"^a$\\x0d\": the line ends in a carriage return"},
      {"^a(\n", ":1: error: \"^a(\": not used, because it is not a valid pattern: "},
      {std::string("^a$\0b\n", 6), ":1: error: \"^a$\": the line holds a NUL"},
      {many, ":257: error: \"^a256$\": not used: a file may have 256 patterns at most"},
  };
  for (const Slip& slip : slips) {
    const Outcome outcome = check(slip.content);
    EXPECT_EQ(1, outcome.exit_code) << slip.text;
    EXPECT_TRUE(contains(outcome.out, kFile + slip.text)) << outcome.out;
  }
  const Slip doubtful[] = {
      {"# files of editors\n", ":1: warning: \"# files of editors\": # does not begin a comment"},
      {"^a \n", ":1: warning: \"^a \": the blank at its beginning or end"},
      {"^Shared/a$\n", ":1: warning: \"^Shared/a$\": only the last part of a path is compared"},
      {"^" + std::string(1000, 'a') + "\n", "a\": 1002 bytes long"},
  };
  for (const Slip& slip : doubtful) {
    const Outcome outcome = check(slip.content);
    EXPECT_EQ(0, outcome.exit_code) << slip.text;
    EXPECT_TRUE(contains(outcome.out, slip.text)) << outcome.out;
  }
}

TEST_F(Patterns, AFileThatOthersMayWriteIsAWarning) {
  write_file(kFile, "^a$\n");
  ASSERT_EQ(0, chmod(kFile.c_str(), 0666));
  EXPECT_TRUE(contains(ctl({"patterns", "check", kFile}).out,
                       kFile + ": warning: users other than root may write the file"));
}

TEST_F(Patterns, AFileThatCannotBeReadIsAFailure) {
  for (const std::string path : {"/scratch/none", "/scratch"}) {
    EXPECT_EQ(2, ctl({"patterns", "check", path}).exit_code) << path;
    EXPECT_EQ(2, ctl({"patterns", "test", path, "a"}).exit_code) << path;
  }
}

TEST_F(Patterns, TheCheckIsDataToo) {
  write_file(kFile, "^a$\n\nb\n");
  const auto found = json({"patterns", "check", kFile});
  EXPECT_EQ(3, found["patterns"]);
  EXPECT_EQ(false, found["used"]);
  EXPECT_EQ(1, found["errors"]);
  EXPECT_EQ(1, found["warnings"]);
  EXPECT_EQ(2, found["findings"][0]["line"]);
  EXPECT_EQ("error", found["findings"][0]["severity"]);
  EXPECT_EQ("b", found["findings"][1]["pattern"]);
}

TEST_F(Patterns, TestTellsWhichPatternMatches) {
  write_file(kFile, "^~lock\\.\n\\.tmp$\n");
  const Outcome yes = ctl({"patterns", "test", kFile, "~LOCK.a", "Shared/Team/a.tmp"});
  EXPECT_EQ(0, yes.exit_code);
  EXPECT_EQ("~LOCK.a: yes, line 1: ^~lock\\.\nShared/Team/a.tmp: yes, line 2: \\.tmp$\n", yes.out);
  const Outcome no = ctl({"patterns", "test", kFile, "a.tmp", "plan.txt", "a.tmp/plan.txt"});
  EXPECT_EQ(1, no.exit_code);
  EXPECT_TRUE(contains(no.out, "plan.txt: no\na.tmp/plan.txt: no\n")) << no.out;
  EXPECT_EQ(true, json({"patterns", "test", kFile, "a.tmp"})["names"][0]["matches"]);
}

TEST_F(Patterns, TestSaysNoWhereTheServerUsesNone) {
  write_file(kFile, "^a$\n\n");
  const Outcome outcome = ctl({"patterns", "test", kFile, "a"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_EQ("a: no\n", outcome.out);
  EXPECT_TRUE(contains(outcome.err, "the server uses no pattern of the file: " + kFile + ":2: "))
      << outcome.err;
}

// The command's verdict on a name equals the library's.
TEST_F(Patterns, TheFileIsReadAsTheLibraryReadsIt) {
  set_debug_level(-1);
  std::strcpy(global_params[PARAM_REGEX_FILE_NAME].value.strval, kFile.c_str());
  std::string full;
  for (int i = 0; i < 300; ++i) full += i % 3 == 0 ? "(\n" : "^n" + std::to_string(i) + "$\n";
  for (const std::string& content :
       {std::string("^a$\n^b$"), std::string("ab\n\n"), std::string("^a$\r\n"), full,
        std::string("^a\0b$\n", 6), std::string("x"), std::string()}) {
    write_file(kFile, content);
    read_and_compile_patterns();
    std::string error;
    const auto file = patterns::PatternFile::read(kFile, error);
    ASSERT_TRUE(file) << error;
    for (const char* name : {"a", "b", "xb", "n1", "n2", "n3", "n298", "n299", "a\r", "anything"}) {
      EXPECT_EQ(is_deletable_file(name) == 1, file->match(name) != nullptr) << name << " in\n"
                                                                            << content;
    }
  }
}

TEST_F(Patterns, LoadingSettingsWarnsOfTheFileAndLoads) {
  write_file(kFile, "^a$\n\n");
  const Outcome outcome = load_settings();
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "tavrixctl: " + kFile + ":2: error: an empty line"))
      << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "the server uses none of the patterns")) << outcome.err;
}

TEST_F(Patterns, LoadingSettingsWarnsOfAFileThatIsMissing) {
  const Outcome outcome = load_settings();
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, kFile + ": No such file or directory: there are no patterns"))
      << outcome.err;
}

TEST_F(Patterns, LoadingSettingsSaysNothingOfAFileInOrderOrOneThatNobodyReads) {
  write_file(kFile, "^a$\n");
  EXPECT_EQ("", load_settings().err);
  write_file(kFile, "\n");
  EXPECT_EQ("", load_settings("0").err);
}

}  // namespace
}  // namespace tavrix::test
