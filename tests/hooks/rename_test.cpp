// SPDX-License-Identifier: LGPL-3.0-or-later
// Renaming and moving.

#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

using Lines = std::vector<std::string>;
using Questions = std::vector<Question>;

struct Renaming {
  Answer run(Session& session) {
    return session.call([&] {
      return rename_preprocess("/tavrix", from.empty() ? nullptr : from.c_str(),
                               to.empty() ? nullptr : to.c_str(), session.slot(), &isdir,
                               session.get(), &is_nav);
    });
  }
  std::string from, to;
  int isdir = -1;
  int is_nav = -1;
};

class Rename : public Hooks {
 protected:
  static Questions asks(const std::string& from, const std::string& to) {
    Session session(kAnna);
    Renaming renaming{full(from), full(to)};
    return asked_by([&] { renaming.run(session); });
  }
  static Answer renames(const Caller& caller, const std::string& from, const std::string& to) {
    Session session(caller);
    Renaming renaming{full(from), full(to)};
    return renaming.run(session);
  }
  static int level(Session& session, const std::string& message, const std::string& from,
                   const std::string& to, const char* failing = nullptr, int nth = 1) {
    return level_of(message, [&] {
      if (failing != nullptr) fail_call(failing, ENOMEM, nth);
      Renaming renaming{full(from), full(to)};
      renaming.run(session);
      if (failing != nullptr) fail_call(failing, 0, 0, 0);
    });
  }
};

TEST_F(Rename, OfAFileAsksToWriteItWhereverItGoes) {
  as(kAnna, [] {
    for (const char* to : {"Shared/Team/new.txt", "Shared/Team/Docs/new.txt"}) {
      EXPECT_EQ((Questions{{FSOP_OPEN_WRITE, "/tavrix/Shared/Team/report.txt"},
                           {FSOP_RENAME_DEST, full(to)}}),
                asks("Shared/Team/report.txt", to));
    }
  });
}

TEST_F(Rename, OfAFolderInItsParentAsksTheSame) {
  as(kAnna, [] {
    EXPECT_EQ((Questions{{FSOP_OPEN_WRITE, "/tavrix/Shared/Team/Docs"},
                         {FSOP_RENAME_DEST, "/tavrix/Shared/Team/Papers"}}),
              asks("Shared/Team/Docs", "Shared/Team/Papers"));
  });
}

TEST_F(Rename, OfAFolderToAnotherParentAsksForAMove) {
  as(kAnna, [] {
    EXPECT_EQ((Questions{{FSOP_MOVE_SRC, "/tavrix/Shared/Team/Docs/Deep"},
                         {FSOP_MOVE_DEST, "/tavrix/Shared/Team/Deep"}}),
              asks("Shared/Team/Docs/Deep", "Shared/Team/Deep"));
  });
}

TEST_F(Rename, TellsFoldersFromFiles) {
  as(kAnna, [] {
    Session session(kAnna);
    Renaming folder{full("Shared/Team/Docs"), full("Shared/Team/Papers")};
    EXPECT_EQ(kProceed, folder.run(session));
    EXPECT_EQ(1, folder.isdir);
    Renaming file{full("Shared/Team/report.txt"), full("Shared/Team/new.txt")};
    EXPECT_EQ(kProceed, file.run(session));
    EXPECT_EQ(0, file.isdir);
    EXPECT_EQ(0, file.is_nav);
  });
}

// Every caller, every pair: granted exactly when both verdicts grant.
TEST_F(Rename, NeedsBothVerdicts) {
  static const Lines names = {
      "Shared/Team/report.txt", "Shared/Team/Docs",      "Shared/Team/Docs/Deep",
      "Shared/Team/Drop",       "Shared/Team/new",       "Shared/Closed",
      "Shared/Lobby/Inner",     "Private/pat/diary.txt", "Private/pat",
      "Private/olga/diary.txt"};
  for (const Caller& caller : all_callers()) {
    as(caller, [&] {
      for (const std::string& from : names) {
        if (from == "Shared/Team/new") continue;
        for (const std::string& to : names) {
          const bool is_folder = from.find(".txt") == std::string::npos;
          const bool moves =
              is_folder && from.substr(0, from.rfind('/')) != to.substr(0, to.rfind('/'));
          const auto granted = [](e_fsop_type op, const std::string& name) {
            return ask_share(op, name).verdict == TXPERMS_HAS_PERMS;
          };
          const bool both = granted(moves ? FSOP_MOVE_SRC : FSOP_OPEN_WRITE, from) &&
                            granted(moves ? FSOP_MOVE_DEST : FSOP_RENAME_DEST, to);
          EXPECT_EQ(both ? kProceed : kRefusedAccess, renames(caller, from, to))
              << caller.name << " " << from << " -> " << to;
        }
      }
    });
  }
}

TEST_F(Rename, OfAFixedFolderIsForAdministrators) {
  mark_fixed("Shared/Team/Docs");
  as(kAnna, [] {
    EXPECT_EQ(kRefusedAccess, renames(kAnna, "Shared/Team/Docs", "Shared/Team/Papers"));
    EXPECT_EQ(Questions{}, asks("Shared/Team/Docs", "Shared/Team/Papers"));
  });
  as(kAdministrator, [] {
    EXPECT_EQ(kProceed, renames(kAdministrator, "Shared/Team/Docs", "Shared/Team/Papers"));
  });
}

TEST_F(Rename, GoesOnWhereTheMarkIsNobodysOrElsewhere) {
  mark_fixed("Shared/Team/Docs", "1");
  mark_fixed("Private/pat/notes");
  as(kAnna, [] { EXPECT_EQ(kProceed, renames(kAnna, "Shared/Team/Docs", "Shared/Team/Papers")); });
  as(kPat, [] { EXPECT_EQ(kProceed, renames(kPat, "Private/pat/notes", "Private/pat/old")); });
}

TEST_F(Rename, OfAMarkedFileIsTheMaps) {
  mark_fixed("Shared/Team/report.txt");
  as(kAnna,
     [] { EXPECT_EQ(kProceed, renames(kAnna, "Shared/Team/report.txt", "Shared/Team/new.txt")); });
}

TEST_F(Rename, OfAMissingSourceIsNoEntry) {
  as(kAnna, [] {
    EXPECT_EQ((Answer{-1, ENOENT}), renames(kAnna, "Shared/Team/missing", "Shared/Team/new"));
    Session session(kAnna);
    Renaming renaming{full("Shared/Team/report.txt"), full("Shared/Team/new.txt")};
    fail_call("stat", EIO);
    EXPECT_EQ((Answer{-1, ENOENT}), renaming.run(session)) << "whatever the look said";
    EXPECT_EQ(-1, renaming.isdir);
  });
}

TEST_F(Rename, WithoutBothPathsIsRefused) {
  as(kAnna, [] {
    Session session(kAnna);
    reset_calls();
    for (Renaming renaming : {Renaming{"", "/tavrix/x"}, {"/tavrix/x", ""}, {"", ""}}) {
      EXPECT_EQ(kRefusedAccess, renaming.run(session));
    }
    EXPECT_EQ(0, calls("stat"));
  });
}

TEST_F(Rename, OfTheReservedUserIsNotAsked) {
  as(kStandardUser, [] {
    Session session(kStandardUser);
    session->reserved_user = 1;
    Renaming renaming{full("Shared/Closed"), full("Private/Closed")};
    const auto asked = asked_by([&] { EXPECT_EQ(kProceed, renaming.run(session)); });
    EXPECT_EQ(Questions{}, asked);
    EXPECT_EQ(0, renaming.is_nav);
    EXPECT_EQ(1, renaming.isdir);
  });
}

TEST_F(Rename, IsRecordedWithBothPathsAndStampsTheNewOne) {
  make_folder("Shared/Team/Papers");
  make_file("Shared/Team/new.txt");
  as(kAnna, [] {
    Session session(kAnna);
    rename_postprocess("/tavrix/Shared/Team/Papers", "/tavrix/Shared/Team/Docs", 1, session.get());
    rename_postprocess("/tavrix/Shared/Team/new.txt", "/tavrix/Shared/Team/report.txt", 0,
                       session.get());
    EXPECT_EQ(5, level_of_line_in("rename_postprocess", ":wrote VFS event rename /tavrix/a\n", [&] {
                rename_postprocess("/tavrix/b", "/tavrix/a", 0, session.get());
              }));
  });
  const Lines lines = event_lines();
  EXPECT_EQ("RENAME DIR /tavrix/Shared/Team/Docs -> /tavrix/Shared/Team/Papers", lines.at(0));
  EXPECT_EQ("RENAME FILE /tavrix/Shared/Team/report.txt -> /tavrix/Shared/Team/new.txt",
            lines.at(1));
  EXPECT_EQ("Anna", stamp_of("Shared/Team/Papers"));
  EXPECT_EQ("Anna", stamp_of("Shared/Team/new.txt"));
  EXPECT_EQ("(none)", stamp_of("Shared/Team/Docs"));
}

TEST_F(Rename, IsTold) {
  mark_fixed("Shared/Team/Drop");
  as(kAnna, [] {
    Session session(kAnna);
    const std::string docs = "/tavrix/Shared/Team/Docs";
    EXPECT_EQ(8, level(session, "Calling stat\n", "Shared/Team/Docs", "Shared/Team/x"));
    EXPECT_EQ(0, level(session,
                       "Rename source /tavrix/Shared/x does not exist err No such file or "
                       "directory\n",
                       "Shared/x", "Shared/y"));
    EXPECT_EQ(10, level(session, "rename_preprocess: path " + docs + " is a dir\n",
                        "Shared/Team/Docs", "Shared/Team/x"));
    EXPECT_EQ(
        10, level(session, "rename_preprocess: path /tavrix/Shared/Team/report.txt is not a dir\n",
                  "Shared/Team/report.txt", "Shared/Team/x"));
    EXPECT_EQ(10, level(session, "Checking whether a move\n", "Shared/Team/Docs", "Shared/Team/x"));
    EXPECT_EQ(10,
              level(session, "This is a move folder src " + docs + " dst /tavrix/Shared/Lobby/x\n",
                    "Shared/Team/Docs", "Shared/Lobby/x"));
    EXPECT_EQ(
        10, level(session, "This is not a move folder src " + docs + " dst /tavrix/Shared/Team/x\n",
                  "Shared/Team/Docs", "Shared/Team/x"));
    EXPECT_EQ(10, level(session, "mvret is 0\n", "Shared/Team/Docs", "Shared/Team/x"));
    EXPECT_EQ(10, level(session, "mvret is 1\n", "Shared/Team/Docs", "Shared/Lobby/x"));
    EXPECT_EQ(10, level(session, "Checking source perms for " + docs + ", op 3\n",
                        "Shared/Team/Docs", "Shared/Team/x"));
    EXPECT_EQ(10, level(session, "Checking source perms for " + docs + ", op 10\n",
                        "Shared/Team/Docs", "Shared/Lobby/x"));
    EXPECT_EQ(8, level(session, "Permission denied for source /tavrix/Shared/stray.txt\n",
                       "Shared/stray.txt", "Shared/x"));
  });
}

TEST_F(Rename, TellsWhatFails) {
  mark_fixed("Shared/Team/Drop");
  as(kAnna, [] {
    Session session(kAnna);
    const std::string both = "/tavrix/Shared/Team/Docs -> /tavrix/Shared/Team/x";
    EXPECT_EQ(0, level(session,
                       "Could not become root in rename op to call stat, "
                       "old_name=/tavrix/Shared/Team/Docs, new_name=/tavrix/Shared/Team/x\n",
                       "Shared/Team/Docs", "Shared/Team/x", "setresuid"));
    bool told = false;
    for (int nth = 1; nth <= 20 && !told; ++nth) {
      told = level(session, "Could not tell whether move or rename " + both + " , denying...\n",
                   "Shared/Team/Docs", "Shared/Team/x", "calloc", nth) == 0 ||
             level(session, "Could not tell whether move or rename " + both + " , denying...\n",
                   "Shared/Team/Docs", "Shared/Team/x", "malloc", nth) == 0;
    }
    EXPECT_TRUE(told);
    session->reserved_user = 1;
    // to root and back to look, to root and back for the mark, to root for the operation
    EXPECT_EQ(0, level(session, "Could not switch to root for rename operations " + both + "\n",
                       "Shared/Team/Docs", "Shared/Team/x", "setresuid", 5));
    bool denied = false;
    set_debug_level(0);
    clear_log();
    Renaming renaming{full("Shared/Team/Drop"), full("Shared/Team/x")};
    EXPECT_EQ(kRefusedAccess, renaming.run(session)) << "the mark holds for the reserved user too";
    for (const std::string& text : messages()) {
      denied |= text.starts_with("rename_preprocess ") &&
                text.ends_with(
                    ": Denying attempt to rename a fixed folder for a non-admin user "
                    "for path /tavrix/Shared/Team/Drop");
    }
    EXPECT_TRUE(denied);
    set_debug_level(-1);
  });
}

TEST_F(Rename, LeavesNothingBehindWhateverFails) {
  as(kAnna, [] {
    Session session(kAnna);
    session->reserved_user = 1;  // a lookup without memory ends the process
    for (const char* call :
         {"calloc", "malloc", "strdup", "stat", "getxattr", "getresuid", "getresgid"}) {
      for (int nth = 1; nth <= 20; ++nth) {
        SCOPED_TRACE(std::string(call) + " " + std::to_string(nth));
        int isdir = 0;
        int is_nav = 0;
        const Answer answer = session.call([&] {
          fail_call(call, ENOMEM, nth);
          const int result =
              rename_preprocess("/tavrix", "/tavrix/Shared/Team/Docs", "/tavrix/Shared/Team/x",
                                session.slot(), &isdir, session.get(), &is_nav);
          const int error = errno;
          fail_call(call, 0, 0, 0);
          errno = error;
          return result;
        });
        EXPECT_TRUE(answer == kProceed || answer == kRefusedAccess ||
                    answer == (Answer{-1, ENOENT}))
            << answer;
        EXPECT_EQ(0, session.blocks_left());
      }
    }
  });
}

}  // namespace
}  // namespace tavrix::test
