// SPDX-License-Identifier: LGPL-3.0-or-later
// The example of the module author's guide, run for every kind of caller.

#include <sys/stat.h>

#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kProgram = TAVRIX_BUILD_DIR "/examples/example-walkthrough";

class Walkthrough : public Hooks {
 protected:
  void SetUp() override {
    Hooks::SetUp();
    share_settings();
  }
  // The outcome of each step.
  static Lines play(const Lines& arguments) {
    Lines argv{kProgram};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const Outcome outcome = run_program(argv, "", {{"ASAN_OPTIONS", "detect_leaks=0"}});
    EXPECT_TRUE(outcome.ok()) << outcome.signal << outcome.err;
    Lines results;
    std::istringstream in(outcome.out);
    for (std::string line; std::getline(in, line);) {
      results.push_back(line.substr(27));
    }
    return results;
  }
  static Lines all_events() {
    const std::string team = "/tavrix/Shared/Team/";
    return {"MKDIR DIR " + team + "Minutes",
            "CREATE FILE " + team + "Minutes/today.txt",
            "OPEN FILE " + team + "Minutes/today.txt",
            "RENAME FILE " + team + "Minutes/today.txt -> " + team + "Minutes/notes.txt",
            "RENAME FILE " + team + "Minutes/notes.txt -> " + team + "notes.txt",
            "OPEN FILE " + team + "notes.txt",
            "UNLINK FILE " + team + "notes.txt",
            "RMDIR DIR " + team + "Minutes"};
  }
};

TEST_F(Walkthrough, OfAWriterIsDoneAndRecorded) {
  const Lines results = play({"Anna", "Shared/Team"});
  ASSERT_EQ(11U, results.size());
  EXPECT_EQ("5 seen, 1 hidden", results[1]);
  for (const std::size_t step : {0U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 10U}) {
    EXPECT_EQ("done", results[step]) << step;
  }
  EXPECT_EQ(all_events(), event_lines());
  for (const Event& event : events()) EXPECT_EQ(kAnna.uid, event.uid);
  const auto records = audit_records();
  ASSERT_EQ(2U, records.size()) << "the open and the close of a read";
  EXPECT_EQ("/tavrix/Shared/Team/Minutes/today.txt", records[0].path);
  EXPECT_EQ("192.0.2.7", records[0].address);
  EXPECT_EQ(21U, records[0].size);
  EXPECT_FALSE(exists("/tavrix/Shared/Team/Minutes"));
}

TEST_F(Walkthrough, OfAnAdministratorIsDoneAndRecorded) {
  const Lines results = play({"Administrator", "Shared/Team"});
  EXPECT_EQ("6 seen, 0 hidden", results.at(1));
  EXPECT_EQ(all_events(), event_lines());
}

TEST_F(Walkthrough, OfAReaderIsRefusedWhatChanges) {
  const std::string refused = "Permission denied";
  const std::string missing = "No such file or directory";
  EXPECT_EQ((Lines{"done", "5 seen, 1 hidden", refused, refused, refused, missing, missing, missing,
                   missing, refused, missing}),
            (play({"Ben", "Shared/Team"})));
  EXPECT_EQ(Lines{}, event_lines());
}

TEST_F(Walkthrough, OfAStandardUserReachesTheShareOnly) {
  const std::string refused = "Permission denied";
  const std::string missing = "No such file or directory";
  const std::string not_permitted = "Operation not permitted";
  EXPECT_EQ((Lines{"done", refused, refused, refused, refused, refused, missing, missing,
                   not_permitted, refused, not_permitted}),
            (play({"StandardUser", "Shared/Team"})));
  EXPECT_EQ(Lines{}, event_lines());
}

TEST_F(Walkthrough, OfTheReservedUserIsDoneAndNotRecorded) {
  const Lines results = play({"--reserved", "StandardUser", "Shared/Team"});
  EXPECT_EQ("6 seen, 0 hidden", results.at(1));
  EXPECT_EQ("done", results.at(10));
  EXPECT_EQ(Lines{}, event_lines());
  EXPECT_TRUE(audit_records().empty());
}

TEST_F(Walkthrough, OfAComputerMayNotLook) {
  const Lines results = play({"pc7$", "Shared/Team"});
  EXPECT_EQ("0 seen, 6 hidden", results.at(1));
  EXPECT_EQ("done", results.at(2)) << "the map decides what is no status query";
  EXPECT_EQ("Operation not permitted", results.at(8)) << "the times ask for a stat";
}

TEST_F(Walkthrough, TellsWrongUsage) {
  EXPECT_EQ(2, run_program({kProgram}).exit_code);
  EXPECT_EQ(2, run_program({kProgram, "nobody-there", "Shared"}).exit_code);
}

}  // namespace
}  // namespace tavrix::test
