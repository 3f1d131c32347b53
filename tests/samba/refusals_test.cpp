// SPDX-License-Identifier: LGPL-3.0-or-later
// Forbidden requests, in every wording that the protocol has.

#include <sys/stat.h>

#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

class Refusals : public WireClients {
 protected:
  static std::string times(int count, const std::string& line) {
    std::string text;
    for (int i = 0; i < count; ++i) text += line + "\n";
    return text;
  }
  void expect_untouched(const std::string& name, const std::string& content = "content\n") {
    EXPECT_EQ(content, read_file(full(name))) << name;
    EXPECT_EQ("(none)", stamp_of(name)) << name;
    EXPECT_EQ(Lines{}, new_events());
  }
};

TEST_F(Refusals, OfEachAccessThatChangesToAReader) {
  start_smbd();
  const std::string said =
      wire(kBen,
           "me.open('Shared/Team/report.txt', FILE_WRITE_DATA)\n"
           "me.open('Shared/Team/report.txt', FILE_APPEND_DATA)\n"
           "me.open('Shared/Team/report.txt', FILE_WRITE_EA)\n"
           "me.open('Shared/Team/report.txt', FILE_WRITE_ATTRIBUTES)\n"
           "me.open('Shared/Team/report.txt', DELETE)\n"
           "me.open('Shared/Team/report.txt', WRITE_DAC)\n"
           "me.open('Shared/Team/report.txt', WRITE_OWNER)\n"
           "me.open('Shared/Team/report.txt', GENERIC_WRITE)\n"
           "me.open('Shared/Team/report.txt', GENERIC_ALL)\n"
           "me.open('Shared/Team/report.txt', READ | READ_CONTROL | SYNCHRONIZE)\n");
  EXPECT_EQ(times(9, "STATUS_ACCESS_DENIED"), said) << "and reading is granted";
  expect_untouched("Shared/Team/report.txt");
}

TEST_F(Refusals, OfDispositionsThatEmptyAFileToAReader) {
  start_smbd();
  const std::string said = wire(kBen,
                                "me.open('Shared/Team/report.txt', READ, FILE_OVERWRITE)\n"
                                "me.open('Shared/Team/report.txt', READ, FILE_OVERWRITE_IF)\n"
                                "me.open('Shared/Team/report.txt', READ, FILE_SUPERSEDE)\n");
  EXPECT_EQ(times(3, "STATUS_ACCESS_DENIED"), said);
  expect_untouched("Shared/Team/report.txt");
}

TEST_F(Refusals, OfMoreThanTheMapGrantsToWhoAsksForAllTheyMayHave) {
  start_smbd();
  const std::string script =
      "h = me.open('Shared/Team/report.txt', MAXIMUM_ALLOWED)\n"
      "print(me.read(h, 7))\n"
      "me.write(h, b'new')\n";
  EXPECT_EQ("b'content'\nSTATUS_ACCESS_DENIED\n", wire(kBen, script));
  expect_untouched("Shared/Team/report.txt");
  EXPECT_EQ("b'content'\n", wire(kAnna, script)) << "a writer has more";
  EXPECT_EQ("newtent\n", read_file(full("Shared/Team/report.txt")));
}

TEST_F(Refusals, AreNotTheReservedUsersWhoAsksForAllTheyMayHave) {
  configure({"tavrix:reserved user = StandardUser"});
  start_smbd();
  EXPECT_EQ("", wire(kStandardUser,
                     "h = me.open('Shared/Team/report.txt', MAXIMUM_ALLOWED)\n"
                     "me.write(h, b'new')\n"));
  EXPECT_EQ("newtent\n", read_file(full("Shared/Team/report.txt")));
}

TEST_F(Refusals, OfRemovingAMark) {
  ASSERT_EQ(0, setxattr(full("Shared/Team/report.txt").c_str(), "user.tavrix.last_smb_accessed_by",
                        "Pat", 3, 0));
  mark_fixed("Shared/Team/Docs", "yes");
  start_smbd();
  const std::string said = wire(kAnna,
                                "h = me.open('Shared/Team/report.txt', READ | WRITE)\n"
                                "me.set_ea(h, 'tavrix.last_smb_accessed_by')\n"
                                "h = me.open('Shared/Team/Docs', READ | WRITE)\n"
                                "me.set_ea(h, 'tavrix.fixed_folder')\n");
  EXPECT_NE("", said);
  EXPECT_EQ("Pat", stamp_of("Shared/Team/report.txt"));
  char value[8] = "";
  EXPECT_EQ(3, getxattr(full("Shared/Team/Docs").c_str(), "user.tavrix.fixed_folder", value, 8));
}

TEST_F(Refusals, OfRemovingAFixedFolderHoweverItIsOpened) {
  mark_fixed("Shared/Team/NotInMap");
  start_smbd();
  wire(kAnna,
       "h = me.open('Shared/Team/NotInMap', DELETE)\n"
       "me.delete(h)\n"
       "me.close(h)\n");
  wire(kAnna,
       "h = me.open('Shared/Team/NotInMap', DELETE, options=FILE_DELETE_ON_CLOSE)\n"
       "me.close(h)\n");
  EXPECT_TRUE(exists(full("Shared/Team/NotInMap")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Refusals, OfDeletingWhatLiesAtTheTopOfThePrivateArea) {
  start_smbd();
  for (const Caller& caller : {kPat, kAdministrator}) {
    EXPECT_NE("", wire(caller,
                       "h = me.open('Private/stray.txt', DELETE)\n"
                       "me.delete(h)\n"
                       "me.close(h)\n"))
        << caller.name;
  }
  expect_untouched("Private/stray.txt");
}

// The server checks that a folder is empty before it deletes it; the check must see hidden names.
TEST_F(Refusals, OfRemovingAFolderWhoseRestIsHidden) {
  const Folder secret{.name = "Secret", .users = {{kAnna.uid, 0}}};
  const Folder box{.name = "Box", .users = {{kAnna.uid, 7}}, .children = {secret}};
  const Folder team{.name = "Team", .users = {{kAnna.uid, 7}}, .children = {box}};
  publish_map({.name = "/",
               .groups = {{kPeople, 1}},
               .children = {{.name = "Shared", .groups = {{kPeople, 8}}, .children = {team}}}});
  make_folder("Shared/Team/Box/Secret");
  start_smbd();
  EXPECT_EQ(std::set<std::string>{}, listing("Anna", "Shared\\Team\\Box"));
  const std::string said = wire(kAnna,
                                "h = me.open('Shared/Team/Box', DELETE)\n"
                                "me.delete(h)\n"
                                "print('closing')\n"
                                "me.close(h)\n");
  EXPECT_TRUE(said.starts_with("STATUS_") && said.ends_with("\nclosing\n")) << said;
  EXPECT_TRUE(exists(full("Shared/Team/Box/Secret")));
}

TEST_F(Refusals, OfDeletingNamesOfThePatternsWhereTheSettingIsOff) {
  write_file("/scratch/patterns", "^~lock\\.\n");
  std::strcpy(global_params[PARAM_REGEX_FILE_NAME].value.strval, "/scratch/patterns");
  global_params[PARAM_CHECK_REGEX_UNLINK].value.intval = 0;
  share_settings();
  make_file("Shared/Team/~lock.x");
  start_smbd();
  EXPECT_FALSE(succeeded(smb(kBen, "rm Shared\\Team\\~lock.x")));
  EXPECT_TRUE(exists(full("Shared/Team/~lock.x")));
}

// Names of the deletable patterns may be deleted, and nothing else may be done to them.
TEST_F(Refusals, OfWritingToNamesOfThePatterns) {
  write_file("/scratch/patterns", "^~lock\\.\n");
  std::strcpy(global_params[PARAM_REGEX_FILE_NAME].value.strval, "/scratch/patterns");
  global_params[PARAM_CHECK_REGEX_UNLINK].value.intval = 1;
  share_settings();
  make_file("Shared/Team/~lock.x");
  start_smbd();
  EXPECT_EQ(times(4, "STATUS_ACCESS_DENIED"),
            wire(kBen,
                 "me.open('Shared/Team/~lock.x', WRITE | DELETE)\n"
                 "me.open('Shared/Team/~lock.x', FILE_WRITE_EA | DELETE)\n"
                 "me.open('Shared/Team/~lock.x', FILE_WRITE_ATTRIBUTES | DELETE)\n"
                 "me.open('Shared/Team/~lock.x', WRITE)\n"));
  expect_untouched("Shared/Team/~lock.x");
}

// Access lists come from the map. Those that copying tools set are accepted and ignored.
TEST_F(Refusals, AreNoneOfAccessListsWhichChangeNothing) {
  start_smbd();
  struct stat before {};
  ASSERT_EQ(0, stat(full("Shared/Team/report.txt").c_str(), &before));
  const std::string said = wire(kAnna,
                                "h = me.open('Shared/Team/report.txt', READ_CONTROL | WRITE_DAC)\n"
                                "me.set_access_list(h)\n");
  EXPECT_EQ("", said);
  struct stat after {};
  ASSERT_EQ(0, stat(full("Shared/Team/report.txt").c_str(), &after));
  EXPECT_EQ(before.st_mode, after.st_mode);
  EXPECT_EQ(before.st_uid, after.st_uid);
  expect_untouched("Shared/Team/report.txt");
}

TEST_F(Refusals, AreNoneOfAFolderThatARequestOpensOrMakes) {
  start_smbd();
  const std::string script =
      "me.open('Shared/Team/New', READ, FILE_OPEN_IF, FILE_DIRECTORY_FILE)\n";
  EXPECT_EQ("STATUS_ACCESS_DENIED\n", wire(kBen, script));
  EXPECT_FALSE(exists(full("Shared/Team/New")));
  EXPECT_EQ("", wire(kAnna, script));
  EXPECT_EQ("", wire(kAnna, script));
  EXPECT_EQ((Lines{"MKDIR Shared/Team/New"}), new_events()) << "once";
}

}  // namespace
}  // namespace tavrix::test
