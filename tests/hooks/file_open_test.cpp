// SPDX-License-Identifier: LGPL-3.0-or-later
// Opening a file.

#include <sys/stat.h>

#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

// One call of the hook, with its arguments and its results.
struct Opening {
  explicit Opening(std::string name, e_open_mode wanted = OPENMODE_READ)
      : base_name(std::move(name)), mode(wanted), path(kShareRoot + "/" + base_name) {}
  Answer run(Session& session) {
    char* full_path = path.data();
    return session.call(
        [&] {
          return open_preprocess("/tavrix", has_name ? base_name.c_str() : nullptr, &mode, &op,
                                 &full_path, &is_new, for_deletion, session.get(), &st, "10.0.0.7",
                                 session.slot(), audit);
        },
        Session::Root::kNotKept);
  }
  std::string base_name;
  e_open_mode mode;
  std::string path;
  bool has_name = true;
  int for_deletion = 0;
  int audit = 0;
  e_fsop_type op = FSOP_INVAL;
  int is_new = 0;
  struct stat st {};
};

class Open : public Hooks {
 protected:
  // Opens for deletion, as the caller.
  static void expect_deletion(Answer expected, const Caller& caller, const std::string& name) {
    as(caller, [&] {
      Session session(caller);
      Opening opening(name);
      opening.for_deletion = 1;
      EXPECT_EQ(expected, opening.run(session)) << caller.name << " " << name;
    });
  }
  static std::vector<AuditRecord> audited(const std::string& name, e_open_mode mode,
                                          int audit = 1) {
    as(kAnna, [&] {
      init_audit_buffer();
      Session session(kAnna);
      Opening opening(name, mode);
      opening.audit = audit;
      opening.run(session);
      flush_audit_buffer();
    });
    return audit_records();
  }
};

TEST_F(Open, MapsItsModeToAnOperation) {
  struct Row {
    e_open_mode mode;
    e_fsop_type op;
    e_open_mode after;
  };
  as(kAnna, [] {
    Session session(kAnna);
    for (const Row& row : {Row{OPENMODE_READ, FSOP_OPEN_READ, OPENMODE_READ},
                           Row{OPENMODE_WRITE, FSOP_OPEN_WRITE, OPENMODE_WRITE},
                           Row{OPENMODE_CREATE, FSOP_CREATE, OPENMODE_WRITE},
                           Row{OPENMODE_CHATTR, FSOP_OPEN_CHATTR, OPENMODE_WRITE}}) {
      Opening opening("Shared/Team/report.txt", row.mode);
      EXPECT_EQ(kProceed, opening.run(session));
      EXPECT_EQ(row.op, opening.op);
      EXPECT_EQ(row.after, opening.mode);
    }
  });
}

TEST_F(Open, RefusesOtherModesWithoutALook) {
  as(kAnna, [] {
    Session session(kAnna);
    for (const int mode : {0, 5, -1}) {
      Opening opening("Shared/Team/report.txt", static_cast<e_open_mode>(mode));
      reset_calls();
      EXPECT_EQ(kRefusedAccess, opening.run(session));
      EXPECT_EQ(FSOP_INVAL, opening.op);
      EXPECT_EQ(0, calls("stat"));
    }
  });
}

TEST_F(Open, OfNoNameIsTheModulesOwnCase) {
  as(kAnna, [] {
    Session session(kAnna);
    Opening opening("Shared/Team/report.txt", OPENMODE_CREATE);
    opening.has_name = false;
    reset_calls();
    EXPECT_EQ(12, opening.run(session).result);
    EXPECT_EQ(FSOP_CREATE, opening.op);
    EXPECT_EQ(OPENMODE_WRITE, opening.mode);
    EXPECT_EQ(0, calls("stat"));
  });
}

TEST_F(Open, TellsWhatTheFileIsAndWhetherItIsNew) {
  as(kAnna, [] {
    Session session(kAnna);
    Opening old("Shared/Team/report.txt", OPENMODE_WRITE);
    EXPECT_EQ(kProceed, old.run(session));
    EXPECT_EQ(0, old.is_new);
    EXPECT_EQ(8, old.st.st_size);
    Opening made("Shared/Team/new.txt", OPENMODE_WRITE);
    made.st.st_mode = S_IFREG;  // a value that must be overwritten
    EXPECT_EQ(kProceed, made.run(session));
    EXPECT_EQ(1, made.is_new);
    EXPECT_EQ(0U, made.st.st_mode);
  });
}

TEST_F(Open, OfANewFileIsRecordedOnceItSucceeded) {
  as(kAnna, [] {
    Session session(kAnna);
    struct stat st {};
    std::string path = full("Shared/Team/new.txt");
    char* full_path = path.data();
    EXPECT_EQ(0, open_postprocess(&st, session.slot(), &full_path, 0, session.get()));
    EXPECT_EQ(0, open_postprocess(&st, session.slot(), &full_path, 1, session.get()));
  });
  const auto all = events();
  ASSERT_EQ(1U, all.size());
  EXPECT_EQ("CREATE FILE /tavrix/Shared/Team/new.txt", all[0].what);
  EXPECT_EQ(kAnna.uid, all[0].uid);
  EXPECT_GT(all[0].pid, 0);
  EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(all[0].time) / 1e6, 100);
}

TEST_F(Open, DoesNotStampTheNewFile) {
  make_file("Shared/Team/new.txt");
  as(kAnna, [] {
    Session session(kAnna);
    std::string path = full("Shared/Team/new.txt");
    char* full_path = path.data();
    open_postprocess(nullptr, session.slot(), &full_path, 1, session.get());
  });
  EXPECT_EQ("(none)", stamp_of("Shared/Team/new.txt"));
}

// --- for deletion -------------------------------------------------------------------------------

TEST_F(Open, ForDeletionNeverReachesTheTopOfPrivate) {
  make_folder("Private/Docs");
  for (const Caller& caller : {kAdministrator, kPat}) {
    expect_deletion(kRefusedAccess, caller, "Private/Docs");
    expect_deletion(kRefusedAccess, caller, "Private");
    expect_deletion(kRefusedAccess, caller, "Private/pat");
  }
  expect_deletion(kProceed, kPat, "Private/pat/notes");
}

TEST_F(Open, ForDeletionOfAFixedFolderIsForAdministrators) {
  mark_fixed("Shared/Team");
  expect_deletion(kRefusedAccess, kAnna, "Shared/Team");
  expect_deletion(kProceed, kAdministrator, "Shared/Team");
  expect_deletion(kProceed, kAnna, "Shared/Team/Docs");
}

TEST_F(Open, ForDeletionGoesOnWhereTheMarkIsNobodys) {
  mark_fixed("Shared/Team", "1");
  expect_deletion(kProceed, kAnna, "Shared/Team");
}

TEST_F(Open, ForDeletionLooksForMarksBelowSharedOnly) {
  mark_fixed("Private/pat/notes");
  expect_deletion(kProceed, kPat, "Private/pat/notes");
  mark_fixed("Shared/Team");
  as(kAnna, [] {
    Session session(kAnna);
    Opening opening("shared/Team");  // only "Shared" in this spelling is the share's folder
    opening.for_deletion = 1;
    reset_calls();
    opening.run(session);
    EXPECT_EQ(0, calls("getxattr"));
  });
}

TEST_F(Open, NotForDeletionOfAFixedFolderIsTheMaps) {
  mark_fixed("Shared/Team");
  as(kAnna, [] {
    Session session(kAnna);
    Opening opening("Shared/Team");
    EXPECT_EQ(kProceed, opening.run(session));
  });
}

// --- audit --------------------------------------------------------------------------------------

TEST_F(Open, ToReadARegularFileIsAudited) {
  const auto records = audited("Shared/Team/report.txt", OPENMODE_READ);
  ASSERT_EQ(1U, records.size());
  EXPECT_EQ("/tavrix/Shared/Team/report.txt", records[0].path);
  EXPECT_EQ(kAnna.uid, records[0].uid);
  EXPECT_EQ("10.0.0.7", records[0].address);
  EXPECT_EQ(8U, records[0].size);
}

TEST_F(Open, IsNotAuditedOtherwise) {
  EXPECT_TRUE(audited("Shared/Team/report.txt", OPENMODE_READ, 0).empty()) << "not enabled";
  EXPECT_TRUE(audited("Shared/Team/report.txt", OPENMODE_WRITE).empty()) << "to write";
  EXPECT_TRUE(audited("Shared/Team/report.txt", OPENMODE_CHATTR).empty()) << "attributes";
  EXPECT_TRUE(audited("Shared/Team/Docs", OPENMODE_READ).empty()) << "a folder";
  EXPECT_TRUE(audited("Shared/Team/missing", OPENMODE_READ).empty()) << "a missing file";
  EXPECT_TRUE(audited("Shared/Closed/x", OPENMODE_READ).empty()) << "refused";
}

TEST_F(Open, IsAuditedWithoutAnAddressToo) {
  as(kAnna, [] {
    init_audit_buffer();
    Session session(kAnna);
    Opening opening("Shared/Team/report.txt");
    char* full_path = opening.path.data();
    EXPECT_EQ(0, open_preprocess("/tavrix", "Shared/Team/report.txt", &opening.mode, &opening.op,
                                 &full_path, &opening.is_new, 0, session.get(), &opening.st,
                                 nullptr, session.slot(), 1));
    flush_audit_buffer();
  });
  ASSERT_EQ(1U, audit_records().size());
}

// --- what is told -------------------------------------------------------------------------------

TEST_F(Open, IsTold) {
  mark_fixed("Shared/Team");
  as(kAnna, [] {
    Session session(kAnna);
    const auto level = [&](const std::string& message, const std::string& name, e_open_mode mode,
                           int for_deletion) {
      return level_of(message, [&] {
        Opening opening(name, mode);
        opening.for_deletion = for_deletion;
        opening.run(session);
      });
    };
    EXPECT_EQ(3, level("open_preprocess stat of full_path=/tavrix/Shared/Team/new failed with "
                       "ENOENT.\n",
                       "Shared/Team/new", OPENMODE_WRITE, 0));
    EXPECT_EQ(0, level("Fixed folder : delete not allowed for /tavrix/Shared/Team for non-admin "
                       "users.\n",
                       "Shared/Team", OPENMODE_READ, 1));
    EXPECT_EQ(1, level("open mode=(2) op=(1) path=(Shared/Team/x) base_name=(Shared/Team/x) "
                       "full_path=(/tavrix/Shared/Team/x)\n",
                       "Shared/Team/x", OPENMODE_CREATE, 0));
    EXPECT_EQ(1, level("Object /tavrix/Shared/Closed/x does *NOT* have permissions",
                       "Shared/Closed/x", OPENMODE_CREATE, 0));
  });
}

TEST_F(Open, TellsADeniedDeletionByItsPointers) {
  as(kPat, [] {
    Session session(kPat);
    Opening opening("Private/pat");
    opening.for_deletion = 1;
    char expected[128];
    std::snprintf(expected, sizeof expected,
                  "open_preprocess:  delete denied requested path=%p nlpath=%p\n",
                  static_cast<const void*>(opening.path.c_str()),
                  static_cast<const void*>(opening.base_name.c_str()));
    EXPECT_EQ(10, level_of(expected, [&] { opening.run(session); }));
  });
}

TEST_F(Open, TellsWhenItCannotLook) {
  as(kAnna, [] {
    Session session(kAnna);
    const auto level = [&](const std::string& message, const char* call, int error) {
      return level_of(message, [&] {
        fail_call(call, error);
        Opening opening("Shared/Team/report.txt");
        opening.run(session);
        fail_call(call, 0, 0, 0);
      });
    };
    const std::string path = "full_path=/tavrix/Shared/Team/report.txt";
    EXPECT_EQ(0, level("open_preprocess:  Unable to become root to stat, " + path + "\n",
                       "setresuid", EAGAIN));
    EXPECT_EQ(0, level("open_preprocess stat of " + path +
                           " failed with error=5 reason=" + std::strerror(EIO) + "\n",
                       "stat", EIO));
  });
}

TEST_F(Open, GoesOnWhenTheLookFails) {
  as(kAnna, [] {
    Session session(kAnna);
    Opening opening("Shared/Team/report.txt");
    fail_call("stat", EIO);
    EXPECT_EQ(kProceed, opening.run(session));
    EXPECT_EQ(0, opening.is_new);
  });
}

}  // namespace
}  // namespace tavrix::test
