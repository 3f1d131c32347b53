// SPDX-License-Identifier: LGPL-3.0-or-later
// Deletable patterns: the names that everybody may delete, and pattern files so broad that they
// would let everybody delete everything.

#include "tests/samba/appliance.hpp"

namespace tavrix::test {
namespace {

const std::string kPatterns = "/scratch/patterns";

class DeletableNames : public Appliance {
 protected:
  // Makes the settings name a pattern file with this content.
  static void start_with(const std::string& content) {
    write_file(kPatterns, content);
    std::strcpy(global_params[PARAM_REGEX_FILE_NAME].value.strval, kPatterns.c_str());
    global_params[PARAM_CHECK_REGEX_UNLINK].value.intval = 1;
    share_settings();
    make_file("Shared/Team/~lock.x");
    start_smbd();
  }
  static int lines_about_patterns() {
    int count = 0;
    std::istringstream in(smbd_log());
    for (std::string line; std::getline(in, line);) {
      if (line.find("a line of " + kPatterns + " matches every name") != std::string::npos) ++count;
    }
    return count;
  }
};

TEST_F(DeletableNames, AnEmptyLineLetsNobodyDelete) {
  start_with("^~lock\\.\n\n");
  Client client("Ben");
  EXPECT_TRUE(denied(client.say("rm Shared\\Team\\report.txt")));
  EXPECT_TRUE(denied(client.say("rm Shared\\Team\\~lock.x"))) << "no pattern of the file counts";
  EXPECT_TRUE(exists(full("Shared/Team/report.txt")));
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_EQ(1, lines_about_patterns()) << smbd_log();
}

TEST_F(DeletableNames, NeitherDoesAPatternThatMatchesEveryName) {
  start_with("x");  // without a newline: the pattern is empty
  for (const std::string content : {"x", ".*\n", ".\n", "^.{3,}$\n", "(a|)\n", "^[^~]\n"}) {
    write_file(kPatterns, content);
    EXPECT_TRUE(denied(smb("Ben", "rm Shared\\Team\\report.txt"))) << content;
    EXPECT_TRUE(exists(full("Shared/Team/report.txt"))) << content;
  }
}

TEST_F(DeletableNames, WhoMayWriteDeletesAllTheSame) {
  start_with("\n");
  EXPECT_TRUE(succeeded(smb("Anna", "rm Shared\\Team\\report.txt")));
}

TEST_F(DeletableNames, AFileInOrderCountsAndIsNotTalkedAbout) {
  start_with("^~lock\\.\n\\.tmp$\n");
  EXPECT_TRUE(denied(smb("Ben", "rm Shared\\Team\\report.txt")));
  EXPECT_TRUE(succeeded(smb("Ben", "rm Shared\\Team\\~lock.x")));
  EXPECT_EQ(0, lines_about_patterns()) << smbd_log();
}

TEST_F(DeletableNames, AMissingFileLetsNobodyDelete) {
  start_with("^~lock\\.\n");
  remove_all(kPatterns);
  EXPECT_TRUE(denied(smb("Ben", "rm Shared\\Team\\~lock.x")));
}

TEST_F(DeletableNames, WithTheSettingAtZeroNobodyReadsThePatterns) {
  start_with("\n");
  global_params[PARAM_CHECK_REGEX_UNLINK].value.intval = 0;
  share_settings();
  EXPECT_TRUE(denied(smb("Ben", "rm Shared\\Team\\report.txt")));
  EXPECT_EQ(0, lines_about_patterns()) << smbd_log();
}

TEST_F(DeletableNames, OfWhatIsShippedMayBeDeletedByReaders) {
  start_with(read_file(TAVRIX_SOURCE_DIR "/packaging/exception_patterns"));
  for (const char* name : {".DS_Store", "._.DS_Store", "._.TemporaryItems"}) {
    make_file("Shared/Team/" + std::string(name));
    EXPECT_TRUE(succeeded(smb("Ben", "rm Shared\\Team\\" + std::string(name)))) << name;
    EXPECT_FALSE(exists(full("Shared/Team/" + std::string(name)))) << name;
  }
  for (const char* name : {"x.DS_Store", ".DS_Store.txt", "report.txt"}) {
    make_file("Shared/Team/" + std::string(name));
    EXPECT_TRUE(denied(smb("Ben", "rm Shared\\Team\\" + std::string(name)))) << name;
  }
}

}  // namespace
}  // namespace tavrix::test
