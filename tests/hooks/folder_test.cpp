// SPDX-License-Identifier: LGPL-3.0-or-later
// Making, removing and entering folders.

#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

using Lines = std::vector<std::string>;

// --- making -------------------------------------------------------------------------------------

class MakeDir : public Hooks {};

TEST_F(MakeDir, IsRecordedAndStampedOnceItSucceeded) {
  make_folder("Shared/Team/New");
  make_folder("Shared/Team/Newer");
  as(kAnna, [] {
    Session session(kAnna);
    std::string path = "/tavrix/Shared/Team/New";
    char* full_path = path.data();
    mkdir_postprocess(session.get(), &full_path);
    create_dir_postprocess("/tavrix/Shared/Team/Newer", session.get());
    EXPECT_EQ(0, session.blocks_left());
  });
  EXPECT_EQ((Lines{"MKDIR DIR /tavrix/Shared/Team/New", "MKDIR DIR /tavrix/Shared/Team/Newer"}),
            event_lines());
  EXPECT_EQ("Anna", stamp_of("Shared/Team/New"));
  EXPECT_EQ("Anna", stamp_of("Shared/Team/Newer"));
}

TEST_F(MakeDir, IsTold) {
  as(kAnna, [] {
    Session session(kAnna);
    session->reserved_user = 1;
    EXPECT_EQ(0, level_of("Failed operation mkdir due to inablity to enforce permissions, "
                          "full_path=/tavrix/x\n",
                          [&] {
                            fail_call("setresuid", EAGAIN);
                            mkdir_preprocess("/tavrix", "x", "/tavrix/x", session.get(),
                                             session.slot());
                            fail_call("setresuid", 0, 0, 0);
                          }));
    std::string path = "/tavrix/x";
    char* full_path = path.data();
    EXPECT_EQ(5, level_of_line_in("mkdir_postprocess", ":wrote VFS event mkdir /tavrix/x\n",
                                  [&] { mkdir_postprocess(session.get(), &full_path); }));
    EXPECT_EQ(kNever,
              level_of_line_in("create_dir_postprocess", ":wrote VFS event mkdir /tavrix/x\n",
                               [&] { create_dir_postprocess("/tavrix/x", session.get()); }));
  });
}

class CreateDir : public Hooks {
 protected:
  static Answer creates(Session& session, const std::string& name, int create, int to_delete) {
    std::string path = full(name);
    char* full_path = path.data();
    return session.call([&] {
      return create_dir_preprocess(to_delete, name.c_str(), &full_path, create, "/tavrix",
                                   session.get(), session.slot());
    });
  }
};

TEST_F(CreateDir, ToDeleteNeverReachesTheTopOfPrivate) {
  as(kAdministrator, [] {
    Session session(kAdministrator);
    EXPECT_EQ(kRefusedAccess, creates(session, "Private", 0, 1));
    EXPECT_EQ(kRefusedAccess, creates(session, "Private/pat", 0, 1));
    EXPECT_EQ(kProceed, creates(session, "Private/pat/notes", 0, 1));
    EXPECT_EQ(kProceed, creates(session, "Private/pat", 0, 0));
  });
}

// A request to delete does not look for marks: the removal itself does.
TEST_F(CreateDir, ToDeleteDoesNotLookForMarks) {
  mark_fixed("Shared/Team");
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(kProceed, creates(session, "Shared/Team", 0, 1));
  });
}

TEST_F(CreateDir, NeedsAPath) {
  const Outcome outcome = outcome_as(kAnna, [] {
    Session session(kAnna);
    char* full_path = nullptr;
    create_dir_preprocess(0, "x", &full_path, 0, "/tavrix", session.get(), session.slot());
  });
  EXPECT_TRUE(outcome.aborted_with("*full_path"));
}

TEST_F(CreateDir, IsTold) {
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(1, level_of("Calling vfs_enforce_perms connectpath=(/tavrix), nlpath=(Shared/Team) "
                          "fullpath=[/tavrix/Shared/Team]\n",
                          [&] { creates(session, "Shared/Team", 0, 0); }));
    EXPECT_EQ(0, level_of("create_dir_preprocess: PERMISSION DENIED for directory "
                          "path=/tavrix/Shared/Closed",
                          [&] { creates(session, "Shared/Closed", 0, 0); }));
    std::string name = "Private";
    std::string path = "/tavrix/Private";
    char* full_path = path.data();
    char denied[128];
    std::snprintf(denied, sizeof denied, "delete denied requested path=%p nlpath=%p\n",
                  static_cast<void*>(full_path), static_cast<void*>(name.data()));
    EXPECT_EQ(0, level_of(denied, [&] {
                create_dir_preprocess(1, name.c_str(), &full_path, 0, "/tavrix", session.get(),
                                      session.slot());
              }));
    session->reserved_user = 1;
    EXPECT_EQ(
        0,
        level_of("create_dir_preprocess failed to allocate perm_ctx, full_path=/tavrix/x\n", [&] {
          fail_call("setresuid", EAGAIN);
          creates(session, "x", 0, 0);
          fail_call("setresuid", 0, 0, 0);
        }));
  });
}

// --- removing -----------------------------------------------------------------------------------

class RemoveDir : public Hooks {
 protected:
  static Answer removes(Session& session, const std::string& name) {
    return session.call([&] {
      return rmdir_preprocess(full(name).c_str(), "/tavrix", name.c_str(), session.get(),
                              session.slot());
    });
  }
  static void allow_forbidden(int value) {
    global_params[PARAM_ENABLE_FORBIDDEN_RMDIR].value.intval = value;
  }
};

TEST_F(RemoveDir, DecidesAlikeWhateverTheSettingSays) {
  for (const int setting : {0, 1, 7}) {
    allow_forbidden(setting);
    as(kAnna, [] {
      Session session(kAnna);
      EXPECT_EQ(kProceed, removes(session, "Shared/Team/Docs"));
      EXPECT_EQ(kNotPermitted, removes(session, "Shared/Team"));
    });
  }
}

TEST_F(RemoveDir, IsRecordedWithoutAStampOnceItSucceeded) {
  as(kAnna, [] {
    Session session(kAnna);
    rmdir_postprocess("/tavrix/Shared/Team/Docs", session.get());
    EXPECT_EQ(0, level_of_line_in("rmdir_postprocess", ":wrote VFS event rmdir  /tavrix/x\n",
                                  [&] { rmdir_postprocess("/tavrix/x", session.get()); }));
  });
  EXPECT_EQ("RMDIR DIR /tavrix/Shared/Team/Docs", event_lines().at(0));
  EXPECT_EQ("(none)", stamp_of("Shared/Team/Docs"));
}

TEST_F(RemoveDir, IsTold) {
  as(kAnna, [] {
    Session session(kAnna);
    const auto level = [&](const std::string& message, const std::string& name) {
      return level_of(message, [&] { removes(session, name); });
    };
    const auto traced = [&](const std::string& tail) {
      for (int at = 9; at <= 10; ++at) {
        set_debug_level(at);
        clear_log();
        removes(session, "Shared/Team/Docs");
        set_debug_level(-1);
        for (const std::string& text : messages()) {
          if (text.starts_with("(rmdir_preprocess:") && text.ends_with(tail)) return at;
        }
      }
      return kNever;
    };
    const std::string path = "/tavrix/Shared/Team/Docs";
    EXPECT_EQ(5, level("rmdir_preprocess:  full_path=" + path + " path=Shared/Team/Docs",
                       "Shared/Team/Docs"));
    EXPECT_EQ(10, level("rmdir_preprocess:  EPERM for /tavrix/Shared/Team\n", "Shared/Team"));
    EXPECT_EQ(10, traced(") tavrix_rmdir: path: " + path + " NO RW->RWD\n"));
    EXPECT_EQ(10, traced(") tavrix_rmdir: path: " + path + " enforcing perms\n"));
    EXPECT_EQ(kNever, traced(") tavrix_rmdir: path: " + path + " allowing RW->RWD\n"));
    allow_forbidden(1);
    EXPECT_EQ(10, traced(") tavrix_rmdir: path: " + path + " allowing RW->RWD\n"));
    EXPECT_EQ(kNever, traced(") tavrix_rmdir: path: " + path + " NO RW->RWD\n"));
    EXPECT_EQ(1, level("rmdir_preprocess:  calls vfs_enforce_perms op=20 result=3\n",
                       "Shared/Team/Docs"));
    EXPECT_EQ(1,
              level("rmdir_preprocess:  calls vfs_enforce_perms op=20 result=2\n", "Shared/Team"));
    session->reserved_user = 1;
    EXPECT_EQ(0, level_of("Failed operation rmdir due to inablity to enforce permissions, "
                          "full_path=/tavrix/x\n",
                          [&] {
                            fail_call("setresuid", EAGAIN);
                            EXPECT_EQ(kNotPermitted, removes(session, "x"));
                            fail_call("setresuid", 0, 0, 0);
                          }));
  });
}

// --- entering -----------------------------------------------------------------------------------

class ChangeDir : public Hooks {
 protected:
  static Answer enters(Session& session, const char* path) {
    return session.call(
        [&] { return chdir_preprocess(path, "/tavrix", session.get(), session.slot()); });
  }
};

TEST_F(ChangeDir, OfNoPathIsRefused) {
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(kNoName, enters(session, nullptr));
    session->reserved_user = 1;
    EXPECT_EQ(kNoName, enters(session, nullptr));
  });
}

TEST_F(ChangeDir, ToTheShareIsForEverybody) {
  as(kStandardUser, [] {
    Session session(kStandardUser);
    for (const char* path : {"/", "/tavrix"}) {
      const auto asked = asked_by([&] { EXPECT_EQ(kProceed, enters(session, path)); });
      EXPECT_EQ((std::vector<Question>{{FSOP_CHDIR, "/tavrix"}}), asked);
    }
    EXPECT_EQ(kRefusedAccess, enters(session, "Shared"));
  });
}

TEST_F(ChangeDir, WithoutMemoryIsRefused) {
  as(kAnna, [] {
    Session session(kAnna);
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(kNoName, enters(session, "Shared"));
  });
}

TEST_F(ChangeDir, IsTold) {
  as(kAnna, [] {
    Session session(kAnna);
    const char* path = "/";
    const char* share = "/tavrix";
    const auto enter = [&] {
      if (chdir_preprocess(path, share, session.get(), session.slot()) == 0) {
        tavrix_vfs_unbecome_root(*session.slot());
        *session.slot() = nullptr;
      }
    };
    char text[128];
    std::snprintf(text, sizeof text, "CHDIR_PREPROC connpath=(%p:/tavrix) nlpath=(%p:/)\n",
                  static_cast<const void*>(share), static_cast<const void*>(path));
    EXPECT_EQ(1, level_of(text, enter));
    std::snprintf(text, sizeof text,
                  "CHDIR_PREPROC calling vfs_enforce_perms full_path=[%p:/tavrix]\n",
                  static_cast<const void*>(share));
    EXPECT_EQ(1, level_of(text, enter));
    EXPECT_EQ(10, level_of("Enabled chdir for '/'\n", enter));
    session->reserved_user = 1;
    EXPECT_EQ(0, level_of("Cannot elevate to root privileges to enforce chdir", [&] {
                fail_call("setresuid", EAGAIN);
                enter();
                fail_call("setresuid", 0, 0, 0);
              }));
  });
}

}  // namespace
}  // namespace tavrix::test
