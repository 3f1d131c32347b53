// SPDX-License-Identifier: LGPL-3.0-or-later
// An SMB create request for a file, deleting a file, and times.

#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t kSupersede = 0;
constexpr uint32_t kOpen = 1;
constexpr uint32_t kCreate = 2;
constexpr uint32_t kOpenIf = 3;
constexpr uint32_t kOverwrite = 4;
constexpr uint32_t kOverwriteIf = 5;

struct Creating {
  explicit Creating(std::string name, uint32_t wanted = kOpenIf, int write = 0)
      : nlpath(std::move(name)),
        disposition(wanted),
        write_requested(write),
        path(kShareRoot + "/" + nlpath) {}
  Answer run(Session& session) {
    char* full_path = path.data();
    return session.call([&] {
      return create_file_preprocess(write_requested, &full_path, nlpath.c_str(), "base",
                                    session.slot(), &exists, 0x120089, disposition, 0x40, "/tavrix",
                                    session.get());
    });
  }
  std::string nlpath;
  uint32_t disposition;
  int write_requested;
  std::string path;
  int exists = -1;
};

class CreateFile : public Hooks {};

TEST_F(CreateFile, AsksForWhatTheDispositionMeans) {
  struct Row {
    uint32_t disposition;
    bool exists;
    int write;
    e_fsop_type op;
  };
  static const std::vector<Row> rows = {
      {kSupersede, true, 0, FSOP_OPEN_WRITE}, {kSupersede, false, 1, FSOP_CREATE},
      {kOpen, true, 0, FSOP_OPEN_READ},       {kOpen, false, 0, FSOP_OPEN_READ},
      {kOpen, true, 1, FSOP_OPEN_WRITE},      {kOpen, false, 1, FSOP_OPEN_WRITE},
      {kCreate, true, 0, FSOP_CREATE},        {kCreate, false, 0, FSOP_CREATE},
      {kOpenIf, true, 0, FSOP_OPEN_WRITE},    {kOpenIf, false, 0, FSOP_CREATE},
      {kOverwrite, true, 0, FSOP_OPEN_WRITE}, {kOverwriteIf, true, 0, FSOP_OPEN_WRITE},
      {kOverwriteIf, false, 0, FSOP_CREATE},
  };
  as(kAnna, [] {
    Session session(kAnna);
    for (const Row& row : rows) {
      Creating creating(row.exists ? "Shared/Team/report.txt" : "Shared/Team/new.txt",
                        row.disposition, row.write);
      const auto asked = asked_by([&] { EXPECT_EQ(kProceed, creating.run(session)); });
      EXPECT_EQ((std::vector<Question>{{row.op, creating.path}}), asked) << row.disposition;
      EXPECT_EQ(row.exists ? 1 : 0, creating.exists);
    }
  });
}

// A request that sets no operation reaches the decision as it is, which knows no such operation.
TEST_F(CreateFile, RefusesARequestWithoutAMeaning) {
  as(kAdministrator, [] {
    Session session(kAdministrator);
    for (const auto& [disposition, name] :
         {std::pair{kOverwrite, "Shared/Team/new.txt"}, {6U, "Shared/Team/report.txt"}}) {
      Creating creating(name, disposition, 1);
      const auto asked = asked_by([&] { EXPECT_EQ(kRefusedAccess, creating.run(session)); });
      EXPECT_EQ((std::vector<Question>{{FSOP_INVAL, creating.path}}), asked);
    }
  });
}

TEST_F(CreateFile, TakesAFileItCannotLookAtForMissing) {
  as(kAnna, [] {
    Session session(kAnna);
    Creating creating("Shared/Team/report.txt", kOpenIf);
    const auto asked = asked_by([&] {
      fail_call("stat", EIO);
      creating.run(session);
    });
    EXPECT_EQ(0, creating.exists);
    EXPECT_EQ(FSOP_CREATE, asked.at(0).op);
  });
}

TEST_F(CreateFile, IsRecordedAndStampedOnceItSucceeded) {
  make_file("Shared/Team/new.txt");
  as(kAnna, [] {
    Session session(kAnna);
    session.call(
        [&] {
          create_file_postprocess(session.get(), "/tavrix/Shared/Team/new.txt");
          return 0;
        },
        Session::Root::kNotKept);
    EXPECT_EQ(0, session.blocks_left());
  });
  EXPECT_EQ((Lines{"CREATE FILE /tavrix/Shared/Team/new.txt"}), event_lines());
  EXPECT_EQ("Anna", stamp_of("Shared/Team/new.txt"));
}

TEST_F(CreateFile, IsTold) {
  as(kBen, [] {
    Session session(kBen);
    const auto level = [&](const std::string& message, const std::string& name, const char* failing,
                           int nth) {
      return level_of(message, [&] {
        if (failing != nullptr) fail_call(failing, EIO, nth);
        Creating creating(name, kOpen, name == "Shared/Team/report.txt" ? 1 : 0);
        creating.run(session);
        if (failing != nullptr) fail_call(failing, 0, 0, 0);
      });
    };
    const std::string file = "/tavrix/Shared/Team/report.txt";
    EXPECT_EQ(5, level("stat full_path=/tavrix/Shared/Team/new failed with ENOENT.\n",
                       "Shared/Team/new", nullptr, 0));
    EXPECT_EQ(5, level("stat full_path=" + file +
                           " failed with error=5 reason=" + std::strerror(EIO) + "\n",
                       "Shared/Team/report.txt", "stat", 1));
    EXPECT_EQ(1, level("Calling vfs_enforce_perms connectpath=(/tavrix), full_path=[" + file +
                           "] op=(3)\n",
                       "Shared/Team/report.txt", nullptr, 0));
    EXPECT_EQ(0, level("create_file_preprocess:PERM DENIED path=" + file +
                           " nlpath=Shared/Team/report.txt op=3 create_disposition=0x1 "
                           "create_options=0x40 access_mask=1179785\n",
                       "Shared/Team/report.txt", nullptr, 0));
    EXPECT_EQ(0, level("create_file_preprocess failed to allocate perm_ctx\n", "Shared/Team/Docs",
                       "setresuid", 1));
    // to root, back, to root
    EXPECT_EQ(0, level("create_file_preprocess failed to allocate perm_ctx,  "
                       "smb_fname->base_name=base\n",
                       "Shared/Team/Docs", "setresuid", 3));
  });
}

TEST_F(CreateFile, OfTheReservedUserIsNotAskedAndNotRecorded) {
  make_file("Shared/Closed/x");
  as(kStandardUser, [] {
    set_reserved_user_uid(kStandardUser.uid);
    Session session(kStandardUser);
    session->reserved_user = 1;
    EXPECT_EQ(kNever, level_of("Calling vfs_enforce_perms connectpath=(/tavrix), "
                               "full_path=[/tavrix/Shared/Closed/x] op=(3)\n",
                               [&] {
                                 Creating creating("Shared/Closed/x", kOpen, 1);
                                 EXPECT_EQ(kProceed, creating.run(session));
                               }));
    create_file_postprocess(session.get(), "/tavrix/Shared/Closed/x");
  });
  EXPECT_EQ(Lines{}, event_lines());
  EXPECT_EQ("StandardUser", stamp_of("Shared/Closed/x"));
}

// --- unlink -------------------------------------------------------------------------------------

class Unlink : public Hooks {};

TEST_F(Unlink, OfNoNameIsRefused) {
  as(kAnna, [] {
    Session session(kAnna);
    reset_calls();
    EXPECT_EQ(kNoName, session.call([&] {
      return unlink_preprocess("/tavrix", nullptr, "/tavrix/x", session.get(), session.slot());
    }));
    EXPECT_EQ(0, calls("stat"));
  });
}

TEST_F(Unlink, IsRecordedWithoutAStampOnceItSucceeded) {
  as(kAnna, [] {
    Session session(kAnna);
    unlink_postprocess("/tavrix/Shared/Team/report.txt", session.get());
    EXPECT_EQ(0, session.blocks_left());
  });
  EXPECT_EQ((Lines{"UNLINK FILE /tavrix/Shared/Team/report.txt"}), event_lines());
  EXPECT_EQ("(none)", stamp_of("Shared/Team/report.txt"));
}

TEST_F(Unlink, IsTold) {
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(0, level_of("Cannot elevate to root privileges to enforce unlink permissions, "
                          "full_path=/tavrix/Shared/Team/report.txt\n",
                          [&] {
                            fail_call("setresuid", EAGAIN);
                            EXPECT_EQ(kRefusedAccess, session.call([&] {
                              return unlink_preprocess("/tavrix", "x",
                                                       "/tavrix/Shared/Team/report.txt",
                                                       session.get(), session.slot());
                            }));
                            fail_call("setresuid", 0, 0, 0);
                          }));
    EXPECT_EQ(0, level_of_line_in("unlink_postprocess", ":wrote VFS event unlink /tavrix/a\n",
                                  [&] { unlink_postprocess("/tavrix/a", session.get()); }));
  });
}

// --- times --------------------------------------------------------------------------------------

class Times : public Hooks {};

TEST_F(Times, OfAFileAreSetByRootWithoutADecision) {
  as(kStandardUser, [] {
    Session session(kStandardUser);
    char* full_path = nullptr;
    const auto asked = asked_by([&] {
      EXPECT_EQ(kProceed, session.call([&] {
        return ntimes_file_preprocess(&full_path, "/tavrix", "Shared/Closed/x", session.slot());
      }));
    });
    EXPECT_EQ(std::vector<Question>{}, asked);
    EXPECT_STREQ("/tavrix/Shared/Closed/x", full_path);
    std::free(full_path);
  });
}

TEST_F(Times, OfNoNameAreRefused) {
  as(kAnna, [] {
    Session session(kAnna);
    char* full_path = nullptr;
    EXPECT_EQ(kNoName, session.call([&] {
      return ntimes_file_preprocess(&full_path, "/tavrix", nullptr, session.slot());
    }));
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(kNoName, session.call([&] {
      return ntimes_file_preprocess(&full_path, "/tavrix", "x", session.slot());
    }));
  });
}

TEST_F(Times, GoOnWithoutRoot) {
  as(kAnna, [] {
    Session session(kAnna);
    const auto attempt = [&] {
      char* full_path = nullptr;
      fail_call("setresuid", EAGAIN);
      EXPECT_EQ(0, session
                       .call(
                           [&] {
                             return ntimes_file_preprocess(&full_path, "/tavrix", "x",
                                                           session.slot());
                           },
                           Session::Root::kNotKept)
                       .result);
      fail_call("setresuid", 0, 0, 0);
      std::free(full_path);
    };
    EXPECT_EQ(0,
              level_of("Cannot elevate perms to enforce ntimes, full_path=/tavrix/x\n", attempt));
    EXPECT_EQ(0, level_of("Cannot elevate perms to enforce ntimes, smb_fname->base_name=x\n", [&] {
                fail_call("setresuid", EAGAIN);
                ntimes_dir_preprocess(session.slot(), "x");
                fail_call("setresuid", 0, 0, 0);
              }));
  });
}

TEST_F(Times, OfAFileAreRecordedAsAnOpenAndStamped) {
  as(kAnna, [] {
    Session session(kAnna);
    ntimes_file_postprocess("/tavrix/Shared/Team/report.txt", session.get());
  });
  EXPECT_EQ((Lines{"OPEN FILE /tavrix/Shared/Team/report.txt"}), event_lines());
  EXPECT_EQ("Anna", stamp_of("Shared/Team/report.txt"));
}

TEST_F(Times, OfAFileAreTold) {
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(10, level_of_line_in("ntimes_file_postprocess", ":wrote VFS event ntimes /tavrix/b\n",
                                   [&] { ntimes_file_postprocess("/tavrix/b", session.get()); }));
  });
}

TEST_F(Times, OfAFolderAreSetByRootAndRecordedNowhere) {
  as(kAnna, [] {
    Session session(kAnna);
    const Ids before = ids_now();
    ntimes_dir_preprocess(session.slot(), "Shared/Team");
    EXPECT_EQ(0U, geteuid());
    ntimes_dir_postprocess(*session.slot());
    EXPECT_TRUE(before == ids_now());
    ntimes_dir_postprocess(nullptr);
    EXPECT_TRUE(before == ids_now());
  });
  EXPECT_EQ(Lines{}, event_lines());
}

}  // namespace
}  // namespace tavrix::test
