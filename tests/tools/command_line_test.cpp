// SPDX-License-Identifier: LGPL-3.0-or-later
// The command lines of the programs: versions, help, misspelt words, wrong values, exit codes.

#include "tools/cli/command_line.hpp"

#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

class CommandLine : public Operator {
 protected:
  static Outcome run(const std::string& program, const std::vector<std::string>& words) {
    std::vector<std::string> line{TAVRIX_BUILD_DIR "/tools/" + program};
    line.insert(line.end(), words.begin(), words.end());
    return run_program(line);
  }
  static void expect_wrong(const std::vector<std::string>& words, const std::string& sentence) {
    const Outcome outcome = ctl(words);
    EXPECT_EQ(2, outcome.exit_code) << outcome.err;
    EXPECT_EQ("", outcome.out);
    EXPECT_TRUE(outcome.err.starts_with(sentence + "\n")) << outcome.err;
  }
};

const std::vector<std::string> kPrograms = {"tavrixctl",       "tavrix-loader",
                                            "tavrix-sweeper",  "tavrix-historian",
                                            "tavrix-clusterd", "tavrix-sample-tree"};

TEST_F(CommandLine, TellsTheVersion) {
  for (const std::string& program : kPrograms) {
    const Outcome outcome = run(program, {"--version"});
    EXPECT_EQ(0, outcome.exit_code) << program;
    EXPECT_TRUE(std::regex_match(outcome.out, std::regex(program + " [0-9]+\\.[0-9]+\\.[0-9]+\n")))
        << outcome.out;
  }
}

TEST_F(CommandLine, EndsWithTwoAfterWrongUsage) {
  for (const std::string& program : kPrograms) {
    const Outcome outcome = run(program, {"--no-such-option"});
    EXPECT_EQ(2, outcome.exit_code) << program;
    EXPECT_TRUE(contains(outcome.err, program + ": there is no option \"--no-such-option\""))
        << outcome.err;
  }
}

TEST_F(CommandLine, HelpsInTwoWays) {
  EXPECT_EQ(ctl({"map", "import", "--help"}).out, ctl({"help", "map", "import"}).out);
  EXPECT_EQ(ctl({"--help"}).out, ctl({"help"}).out);
  EXPECT_EQ(0, ctl({"help"}).exit_code);
}

TEST_F(CommandLine, NamesAnUnknownCommandAndTheOneThatWasMeant) {
  expect_wrong({"mapp"}, "tavrixctl: there is no command \"mapp\"; did you mean \"map\"?");
  expect_wrong({"stauts", "--verbose"},
               "tavrixctl: there is no command \"stauts\"; did you mean \"status\"?");
  expect_wrong({"map", "imprt", "a", "b"},
               "tavrixctl map: there is no command \"imprt\"; did you mean \"import\"?");
  expect_wrong({"events", "buffer", "shwo"},
               "tavrixctl events buffer: there is no command \"shwo\"; did you mean \"show\"?");
  expect_wrong({"conf"}, "tavrixctl: there is no command \"conf\"; did you mean \"config\"?");
  expect_wrong({"elephant"}, "tavrixctl: there is no command \"elephant\"");
}

TEST_F(CommandLine, NamesAnUnknownOptionAndTheOneThatWasMeant) {
  expect_wrong({"map", "info", "--jsn"},
               "tavrixctl map info: there is no option \"--jsn\"; did you mean \"--json\"?");
  expect_wrong({"map", "tree", "--dept=3"},
               "tavrixctl map tree: there is no option \"--dept\"; did you mean \"--depth\"?");
}

TEST_F(CommandLine, SaysWhereAnOptionOfACommandGoes) {
  expect_wrong(
      {"map", "--depth", "2", "tree"},
      "tavrixctl map tree: \"--depth\" goes behind the command: \"tavrixctl map tree --depth\"");
  expect_wrong(
      {"--depth=2", "map", "tree", "Shared"},
      "tavrixctl map tree: \"--depth\" goes behind the command: \"tavrixctl map tree --depth\"");
  expect_wrong({"map", "--elephant", "tree"},
               "tavrixctl map tree: there is no option \"--elephant\"");
}

TEST_F(CommandLine, SaysThatAWordIsNotANumber) {
  expect_wrong({"check", "--uid", "anna", "STAT", "Shared"},
               "tavrixctl check: --uid: \"anna\" is not a number");
  expect_wrong({"map", "tree", "--depth", "deep"},
               "tavrixctl map tree: --depth: \"deep\" is not a number");
}

TEST_F(CommandLine, NamesTheWrongOneOfSeveralNumbers) {
  expect_wrong({"check", "--uid", "1", "--groups", "5,x,y", "stat", "Shared"},
               "tavrixctl check: --groups: \"x\" is not a number");
  expect_wrong({"check", "--uid", "1", "--groups", "4294967296", "stat", "Shared"},
               "tavrixctl check: --groups: \"4294967296\" is out of range");
}

TEST_F(CommandLine, NamesEachWrongValueOfACheck) {
  for (const std::string option :
       {"--uid", "--gid", "--groups", "--admins-gid", "--powerusers-gid", "--trace-level"}) {
    expect_wrong({"check", option, "anna", "stat", "Shared"},
                 "tavrixctl check: " + option + ": \"anna\" is not a number");
  }
  for (const std::string option : {"--uid", "--gid", "--admins-gid", "--powerusers-gid"}) {
    expect_wrong({"check", option, "-7", "stat", "Shared"},
                 "tavrixctl check: " + option + ": -7 is not in the range 0 to 4294967294");
  }
  expect_wrong({"check", "--uid"}, "tavrixctl check: --uid needs a value");
  expect_wrong({"check", "--uid", "5", "stat"}, "tavrixctl check: PATH is required");
  expect_wrong({"check", "--uid", "5", "stat", "a", "b"},
               "tavrixctl check: \"b\" is more than the command takes");
}

TEST_F(CommandLine, SaysWhatMakesTheGroupMap) {
  expect_wrong({"groupmap", "show"},
               "tavrixctl: /etc/tavrix/groupmap_refresh: No such file or directory; \"tavrixctl "
               "groupmap build\" makes it");
  expect_wrong({"groupmap", "show", "--file", "/none"},
               "tavrixctl: /none: No such file or directory");
}

TEST_F(CommandLine, SaysThatThereIsNoBuffer) {
  make_dirs("/tavrix/.conf");
  ASSERT_EQ(0, ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"}).exit_code);
  expect_wrong({"events", "buffer", "flush"},
               "tavrixctl: there is no staging buffer of the size in the settings: nothing to "
               "flush");
  ASSERT_EQ(0, ctl({"events", "buffer", "create"}).exit_code);
  expect_wrong({"events", "buffer", "create"},
               "tavrixctl: cannot make the semaphore: there is one already");
}

TEST_F(CommandLine, NamesTheSettingThatWasMeant) {
  const Outcome outcome = ctl({"config", "set", "VFS:debug levle", "1"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_EQ(
      "tavrixctl: VFS:debug levle: no such setting; did you mean \"VFS:debug level\"? \"tavrixctl "
      "config show\" lists them\n",
      outcome.err);
}

TEST_F(CommandLine, SaysThatAFolderHasNoDumpFiles) {
  write_file("/scratch/letter.txt", "");
  expect_wrong(
      {"events", "decode", "/scratch"},
      "tavrixctl: /scratch has other files and no dump files; dump files of this kind come "
      "to /tavrix/.conf/staging");
}

TEST_F(CommandLine, SaysThatAFolderToFollowIsMissing) {
  expect_wrong({"events", "decode", "--follow", "/scratch/none"},
               "tavrixctl: /scratch/none: No such file or directory");
}

TEST(NearestWord, IsTheOneWithTheFewestMistakes) {
  const std::vector<std::string> known = {"map", "config", "check", "events", "status"};
  EXPECT_EQ("map", cli::nearest("mpa", known));
  EXPECT_EQ("check", cli::nearest("chek", known));
  EXPECT_EQ("config", cli::nearest("conifg", known));
  EXPECT_EQ("events", cli::nearest("ev", known));
  EXPECT_EQ("", cli::nearest("x", known));
  EXPECT_EQ("", cli::nearest("historian", known));
  EXPECT_EQ("", cli::nearest("map", {}));
}

}  // namespace
}  // namespace tavrix::test
