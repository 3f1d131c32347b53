// SPDX-License-Identifier: LGPL-3.0-or-later
// Listing folders.

#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

// --- opendir ------------------------------------------------------------------------------------

struct Listing {
  Answer run(Session& session) {
    return session.call([&] {
      return opendir_preprocess(fname.c_str(), cwd.c_str(), "/tavrix", &nlpath, session.slot(),
                                session.get(), &is_nav);
    });
  }
  ~Listing() { std::free(nlpath); }
  std::string cwd;
  std::string fname = ".";
  char* nlpath = nullptr;
  int is_nav = -1;
};

class OpenDir : public Hooks {
 protected:
  static std::string name_of(const std::string& cwd, const std::string& fname) {
    Session session(kAdministrator);
    Listing listing{cwd, fname};
    session->reserved_user = 1;
    EXPECT_EQ(kProceed, listing.run(session));
    return listing.nlpath;
  }
};

TEST_F(OpenDir, NamesTheFolderRelativeToTheShare) {
  as(kAnna, [] {
    EXPECT_EQ("Shared/Team", name_of("/tavrix/Shared/Team", "."));
    EXPECT_EQ(".", name_of("/tavrix", "."));
    EXPECT_EQ("Shared", name_of("/tavrix", "Shared"));
    EXPECT_EQ("Team", name_of("/tavrix/Shared", "Team"));
    // A working folder that is no longer than the share's root leaves no name.
    EXPECT_EQ("", name_of("/tav", "."));
    EXPECT_EQ("", name_of("/tavrix/", "."));
  });
}

TEST_F(OpenDir, DecidesAboutTheWorkingFolder) {
  as(kAnna, [] {
    const auto asks = [](const std::string& cwd, const std::string& fname) {
      Session session(kAnna);
      const auto asked = asked_by([&] {
        Listing listing{cwd, fname};
        listing.run(session);
      });
      return asked.empty() ? "" : asked[0].path;
    };
    EXPECT_EQ("/tavrix/Shared/Team", asks("/tavrix/Shared/Team", "."));
    EXPECT_EQ("/tavrix/Shared/Team", asks("Shared/Team", "."));
    EXPECT_EQ("/tavrix/Shared/Team", asks("Shared/Team", "Docs"));
    EXPECT_EQ("/tavrix//tavrix/Shared", asks("/tavrix/Shared", "Team"));
    EXPECT_EQ("/tavrixed", asks("/tavrixed", ".")) << "seven characters make it absolute";
  });
}

TEST_F(OpenDir, TellsAFolderThatMayOnlyBeSeen) {
  as(kAnna, [] {
    Session session(kAnna);
    for (const auto& [name, is_nav] :
         {std::pair{"Shared/Team", 0}, {"Shared/Team/Gallery", 1}, {"Shared/Lobby", 1}}) {
      Listing listing{full(name)};
      EXPECT_EQ(kProceed, listing.run(session));
      EXPECT_EQ(is_nav, listing.is_nav) << name;
    }
    session->reserved_user = 1;
    Listing listing{full("Shared/Lobby")};
    EXPECT_EQ(kProceed, listing.run(session));
    EXPECT_EQ(0, listing.is_nav);
  });
}

TEST_F(OpenDir, HandsNothingBackWhenRefused) {
  as(kAnna, [] {
    Session session(kAnna);
    Listing listing{full("Shared/Closed")};
    char somewhere = 0;
    listing.nlpath = &somewhere;
    EXPECT_EQ(kRefusedAccess, listing.run(session));
    EXPECT_EQ(nullptr, listing.nlpath);
    EXPECT_EQ(0, session.blocks_left());
    EXPECT_EQ(0, listing.is_nav);
  });
}

TEST_F(OpenDir, IsTold) {
  as(kAnna, [] {
    Session session(kAnna);
    const auto level = [&](const std::string& message, const std::string& cwd,
                           const char* failing = nullptr, int nth = 1) {
      return level_of(message, [&] {
        if (failing != nullptr) fail_call(failing, ENOMEM, nth);
        Listing listing{cwd};
        EXPECT_EQ(failing == nullptr ? 0 : -1, listing.run(session).result);
        if (failing != nullptr) fail_call(failing, 0, 0, 0);
      });
    };
    EXPECT_EQ(4, level("opendir_preprocess cwd=(Shared/Team) connectpath=(/tavrix), fname=(.)\n",
                       "Shared/Team"));
    EXPECT_EQ(0, level("opendir_preprocess cwd is absolute", "/tavrix/Shared/Team"));
    EXPECT_EQ(10, level("Calling vfs_enforce_perms connectpath=(/tavrix) "
                        "full_path=(/tavrix/Shared/Team)\n",
                        "Shared/Team"));
    EXPECT_EQ(0, level("opendir_preprocess: unable to allocate full_path, fname=.\n", "Shared/Team",
                       "strdup"));
    EXPECT_EQ(0, level("opendir_preprocess unable to allocate full_path, cwd=Shared/Team\n",
                       "Shared/Team", "calloc"));
    session->reserved_user = 1;
    EXPECT_EQ(0, level("Failed opendir due to inablity to enforce permissions, fname=., "
                       "nlpath=Team\n",
                       "/tavrix/Team", "setresuid"));
  });
}

// --- fdopendir ----------------------------------------------------------------------------------

class FdOpenDir : public Hooks {
 protected:
  static Answer opens(Session& session, const char* name, int to_delete = 0) {
    return session.call([&] {
      int is_nav = -1;
      const int result =
          fdopendir_preprocess("/tavrix", name, to_delete, session.get(), &is_nav, session.slot());
      if (result == 0) nav = is_nav;
      return result;
    });
  }
  static int nav;
};
int FdOpenDir::nav = 0;

TEST_F(FdOpenDir, ToDeleteAFixedFolderIsForAdministrators) {
  mark_fixed("Shared/Team");
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(kRefusedAccess, opens(session, "Shared/Team", 1));
    EXPECT_EQ(kProceed, opens(session, "Shared/Team", 0));
    EXPECT_EQ(kProceed, opens(session, "Shared/Team/Docs", 1));
  });
  as(kAdministrator, [] {
    Session session(kAdministrator);
    EXPECT_EQ(kProceed, opens(session, "Shared/Team", 1));
  });
}

TEST_F(FdOpenDir, ToDeleteTakesNoAnswerForAYes) {
  mark_fixed("Shared/Team", "1");
  as(kAnna, [] {
    Session session(kAnna);
    set_debug_level(0);
    clear_log();
    EXPECT_EQ(kRefusedAccess, opens(session, "Shared/Team", 1));
    for (const std::string& text : messages()) {
      EXPECT_EQ(std::string::npos, text.find("Fixed Folder, non admin")) << text;
    }
    EXPECT_EQ(kRefusedAccess, opens(session, "Shared/Missing", 1));
  });
}

TEST_F(FdOpenDir, LooksForMarksBelowSharedOnly) {
  mark_fixed("Private/pat");
  as(kPat, [] {
    Session session(kPat);
    reset_calls();
    EXPECT_EQ(kProceed, opens(session, "Private/pat", 1));
    EXPECT_EQ(0, calls("getxattr"));
  });
}

TEST_F(FdOpenDir, TellsAFolderThatMayOnlyBeSeen) {
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(kProceed, opens(session, "Shared/Lobby"));
    EXPECT_EQ(1, nav);
    session->reserved_user = 1;
    EXPECT_EQ(kProceed, opens(session, "Shared/Lobby"));
    EXPECT_EQ(0, nav);
  });
}

TEST_F(FdOpenDir, OfNoNameIsRefused) {
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(-1, opens(session, nullptr).result);
  });
}

TEST_F(FdOpenDir, IsTold) {
  mark_fixed("Shared/Team");
  const auto level_as = [](const Caller& caller, const std::string& message, const char* name,
                           int to_delete, const char* failing) {
    Session session(caller);
    return level_of(message, [&] {
      if (failing != nullptr) fail_call(failing, ENOMEM);
      opens(session, name, to_delete);
      if (failing != nullptr) fail_call(failing, 0, 0, 0);
    });
  };
  as(kAnna, [&] {
    EXPECT_EQ(0, level_as(kAnna, "fdopendir_preprocess: unable to allocate full_path, fname=x\n",
                          "x", 0, "calloc"));
    EXPECT_EQ(2, level_as(kAnna, "fdopendir_preprocess checking for FF /tavrix/Shared/Team\n",
                          "Shared/Team", 0, nullptr));
    EXPECT_EQ(0, level_as(kAnna,
                          "fdopendir_preprocess: Fixed Folder, non admin user for folder "
                          "/tavrix/Shared/Team Deny Delete\n",
                          "Shared/Team", 1, nullptr));
    EXPECT_EQ(0, level_as(kAnna,
                          "fdopendir_preprocess: EACCESS full_path=/tavrix/Shared/Closed "
                          "fname=Shared/Closed retval=-1",
                          "Shared/Closed", 0, nullptr));
    Session session(kAnna);
    session->reserved_user = 1;
    EXPECT_EQ(0, level_of("fdopendir_preprocess: EACCESS Failed fdopendir, due to inablity to "
                          "enforce permissions, fname=x\n",
                          [&] {
                            fail_call("setresuid", EAGAIN);
                            opens(session, "x");
                            fail_call("setresuid", 0, 0, 0);
                          }));
  });
  as(kAdministrator, [&] {
    EXPECT_EQ(2, level_as(kAdministrator,
                          "fdopendir_preprocess Allowing delete for admin, bypassing the "
                          "fixed-folder check for /tavrix/Shared/Team",
                          "Shared/Team", 1, nullptr));
  });
}

// --- entries of a listing -----------------------------------------------------------------------

class ReadDir : public Hooks {
 protected:
  static int verdict(Session& session, const char* base, const char* name) {
    char path[256];
    std::memset(path, 'x', sizeof path);
    int allowed = -1;
    session.call(
        [&] {
          readir_postprocess(&allowed, name, base, path, sizeof path, "/tavrix", session.get());
          return 0;
        },
        Session::Root::kNotKept);
    EXPECT_EQ(std::string(base) + "/" + name, path);
    EXPECT_EQ(0, path[sizeof path - 1]);
    return allowed;
  }
};

TEST_F(ReadDir, GivesEachEntryItsVerdict) {
  as(kBen, [] {
    Session session(kBen);
    for (const auto& [base, name, allowed] : {std::tuple{"Shared", "Team", TXPERMS_HAS_PERMS},
                                              {"Shared", "Closed", TXPERMS_NO_PERM},
                                              {"Shared/Team", "report.txt", TXPERMS_HAS_PERMS},
                                              {"Shared/Team", "Secret", TXPERMS_NO_PERM},
                                              {".", "Shared", TXPERMS_HAS_PERMS},
                                              {"", "Other", TXPERMS_NO_PERM}}) {
      EXPECT_EQ(allowed, verdict(session, base, name)) << base << " " << name;
      EXPECT_EQ(allowed, ask_share(FSOP_STAT, std::string(base) + "/" + name).verdict);
    }
  });
}

TEST_F(ReadDir, TheSecondTimeAndTheStatOfAnEntryCostNoLook) {
  as(kAnna, [] {
    Session session(kAnna);
    verdict(session, "Shared/Team", "Docs");
    reset_calls();
    verdict(session, "Shared/Team", "Docs");
    EXPECT_EQ(0, calls("shmat"));
    EXPECT_EQ(kProceed, session.call([&] {
      return stat_preprocess(session.get(), "Shared/Team/Docs", "/tavrix", session.slot());
    }));
    EXPECT_EQ(0, calls("shmat"));
  });
}

TEST_F(ReadDir, HidesANameThatDoesNotFit) {
  as(kAdministrator, [] {
    Session session(kAdministrator);
    for (const int size : {0, -1, 1, 11}) {
      char path[16] = "untouched";
      int allowed = -1;
      readir_postprocess(&allowed, "Team", "Shared", path, size, "/tavrix", session.get());
      EXPECT_EQ(TXPERMS_INVALID_ARGS, allowed) << size;
      if (size < 1) {
        EXPECT_STREQ("untouched", path);
      }
    }
    char path[12];
    int allowed = -1;
    readir_postprocess(&allowed, "Team", "Shared", path, sizeof path, "/tavrix", session.get());
    EXPECT_EQ(TXPERMS_HAS_PERMS, allowed);
    EXPECT_STREQ("Shared/Team", path);
  });
}

TEST_F(ReadDir, IsTold) {
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(1, level_of("Calling check_perms for full_path=[Shared/Team] \n",
                          [&] { verdict(session, "Shared", "Team"); }));
  });
}

}  // namespace
}  // namespace tavrix::test
