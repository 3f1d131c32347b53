// SPDX-License-Identifier: LGPL-3.0-or-later
// Progress bars: on a terminal, for work that takes longer than a moment, and gone at the end.

#include "tools/cli/progress.hpp"

#include "tests/support/terminal.hpp"
#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

using Words = std::vector<std::string>;

const std::string kErase = "\r\033[K";

class Progress : public Operator {
 protected:
  void SetUp() override {
    Operator::SetUp();
    ASSERT_TRUE(run_program({TAVRIX_BUILD_DIR "/tools/tavrix-sample-tree", "--folders", "20000",
                             "/scratch/size.json", "/scratch/data.json"})
                    .ok());
  }
  // In a haste the work takes long by the program's clock.
  static std::string shown(Words words, Environment more = {}, int times = 10000) {
    words.insert(words.begin(), TAVRIX_BUILD_DIR "/tools/tavrixctl");
    Environment environment = in_haste(times);
    environment.emplace_back("TERM", "xterm");
    environment.insert(environment.end(), more.begin(), more.end());
    const TerminalOutcome outcome = run_on_terminal(words, {}, environment);
    EXPECT_EQ(0, outcome.exit_code) << outcome.shown;
    return outcome.shown;
  }
  static const Words kLint, kImport;
};
const Words Progress::kLint = {"map", "lint", "/scratch/size.json", "/scratch/data.json"};
const Words Progress::kImport = {"map", "import", "/scratch/size.json", "/scratch/data.json"};

TEST_F(Progress, IsDrawnAndGoneAtTheEnd) {
  const std::string text = shown(kLint);
  EXPECT_TRUE(contains(text, "\rchecking [")) << text;
  const auto last = text.rfind(kErase);
  ASSERT_NE(std::string::npos, last);
  EXPECT_TRUE(text.substr(last + kErase.size()).starts_with("20000 folders, ")) << text;
}

TEST_F(Progress, NamesEachTaskOfAnImport) {
  const std::string text = shown(kImport);
  for (const char* task : {"\rchecking [", "\rimporting [", "\rverifying ["}) {
    EXPECT_TRUE(contains(text, task)) << text;
  }
  EXPECT_TRUE(contains(shown({"map", "verify"}), "\rverifying ["));
  EXPECT_TRUE(contains(shown({"map", "restore"}), "\rverifying ["));
}

TEST_F(Progress, NamesEachTaskOfAComparison) {
  const std::string pair = "/scratch/size.json,/scratch/data.json";
  const std::string text = shown({"map", "diff", pair, pair});
  for (const char* task : {"\rimporting [", "\rverifying [", "\rcomparing ["}) {
    EXPECT_TRUE(contains(text, task)) << text;
  }
  const auto last = text.rfind(kErase);
  ASSERT_NE(std::string::npos, last);
  EXPECT_EQ("the same folders with the same entries\r\n", text.substr(last + kErase.size()));
}

// By a clock that stands still, any work is short.
TEST_F(Progress, IsNotDrawnForShortWork) { EXPECT_FALSE(contains(shown(kLint, {}, 0), "[")); }

TEST_F(Progress, IsNotDrawnWhereItIsNotWanted) {
  Words without = kLint;
  without.emplace_back("--no-progress");
  EXPECT_FALSE(contains(shown(without), "["));
  EXPECT_FALSE(contains(shown(kLint, {{"NO_COLOR", "1"}}), "["));
  EXPECT_FALSE(contains(shown(kLint, {{"TERM", "dumb"}}), "["));
}

TEST_F(Progress, IsNotDrawnIntoAPipe) {
  Words words = kLint;
  words.insert(words.begin(), TAVRIX_BUILD_DIR "/tools/tavrixctl");
  Environment environment = in_haste(10000);
  environment.emplace_back("TERM", "xterm");
  EXPECT_EQ("", run_program(words, "", environment).err);
}

TEST(ProgressLine, FitsIntoTheTerminal) {
  EXPECT_EQ("checking [                                        ]   0%",
            cli::progress_line("checking", 0, 10, 80));
  EXPECT_EQ("checking [====================                    ]  50%",
            cli::progress_line("checking", 5, 10, 80));
  EXPECT_EQ("checking [========================================] 100%",
            cli::progress_line("checking", 20, 10, 80));
  EXPECT_EQ("checking [          ]   0%", cli::progress_line("checking", 0, 0, 28));
  for (unsigned columns = 0; columns < 100; ++columns) {
    EXPECT_LE(cli::progress_line("checking", 3, 10, columns).size(), columns == 0 ? 0 : columns);
  }
}

}  // namespace
}  // namespace tavrix::test
