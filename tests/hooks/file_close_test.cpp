// SPDX-License-Identifier: LGPL-3.0-or-later
// Closing a file.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

using Lines = std::vector<std::string>;

class Close : public Hooks {
 protected:
  // Runs the body as Anna with a descriptor of that name of the share.
  static void with_open(const std::string& name,
                        const std::function<void(Session&, int fd)>& body) {
    const int fd = open(full(name).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GT(fd, 0) << name;
    as(kAnna, [&] {
      init_audit_buffer();
      Session session(kAnna);
      body(session, fd);
      flush_audit_buffer();
    });
    close(fd);
  }
  static void hook(Session& session, int fd, modify_file_evt_s** pmodify, int audit = 0,
                   int valid = 1) {
    session.call(
        [&] {
          close_preprocess(audit, fd, session.get(), pmodify, valid, "10.0.0.7");
          return 0;
        },
        Session::Root::kNotKept);
  }
  // The least level at which a close with that record logs the message.
  static int level(Session& session, const std::string& message, int fd, modify_file_evt_s record) {
    return level_of(message, [&] {
      modify_file_evt_s copy = record;
      modify_file_evt_s* pmodify = &copy;
      hook(session, fd, &pmodify);
    });
  }
};

TEST_F(Close, OfAChangedFileIsRecordedAsAnOpenAndStamped) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    modify_file_evt_s record{nullptr, 1, 0};
    session->pmodify = &record;
    modify_file_evt_s* pmodify = nullptr;
    hook(session, fd, &pmodify);
    EXPECT_EQ(&record, pmodify);
    EXPECT_EQ(0, record.is_modified);
    hook(session, fd, &pmodify);
  });
  EXPECT_EQ((Lines{"OPEN FILE /tavrix/Shared/Team/report.txt"}), event_lines()) << "just once";
  EXPECT_EQ(kAnna.uid, events()[0].uid);
  EXPECT_EQ("Anna", stamp_of("Shared/Team/report.txt"));
}

TEST_F(Close, StampsBeforeItSends) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    modify_file_evt_s record{nullptr, 1, 0};
    modify_file_evt_s* pmodify = &record;
    int stamps = -1;
    reset_calls();
    run_before("semop", [&] { stamps = calls("setxattr"); });
    hook(session, fd, &pmodify);
    EXPECT_EQ(2, stamps) << "replace, then create";
  });
}

TEST_F(Close, NamesTheFileThatIsOpenWhateverTheClientCalledIt) {
  ASSERT_EQ(0, symlink("/tavrix/Shared/Team/report.txt", "/tavrix/Shared/Team/link"));
  with_open("Shared/Team/link", [](Session& session, int fd) {
    ASSERT_EQ(0, [&] {
      tx_perm_ctx_t* root = tavrix_vfs_become_root();
      const int moved =
          rename("/tavrix/Shared/Team/report.txt", "/tavrix/Shared/Team/Docs/report.txt");
      tavrix_vfs_unbecome_root(root);
      return moved;
    }());
    modify_file_evt_s record{nullptr, 1, 0};
    modify_file_evt_s* pmodify = &record;
    hook(session, fd, &pmodify);
  });
  EXPECT_EQ((Lines{"OPEN FILE /tavrix/Shared/Team/Docs/report.txt"}), event_lines());
}

TEST_F(Close, TakesTheModulesRecordWhereTheConnectionHasNone) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    modify_file_evt_s record{nullptr, 1, 0};
    modify_file_evt_s* pmodify = &record;
    hook(session, fd, &pmodify);
    EXPECT_EQ(0, record.is_modified);
  });
  EXPECT_EQ(1U, events().size());
}

TEST_F(Close, OfAnInvalidConnectionRecordsNothing) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    modify_file_evt_s record{nullptr, 1, 0};
    modify_file_evt_s* pmodify = &record;
    hook(session, fd, &pmodify, 1, 0);
    EXPECT_EQ(1, record.is_modified);
  });
  EXPECT_EQ(Lines{}, event_lines());
  EXPECT_TRUE(audit_records().empty());
}

TEST_F(Close, WithoutARecordRecordsNothing) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    modify_file_evt_s* pmodify = nullptr;
    hook(session, fd, &pmodify, 1);
    EXPECT_EQ(nullptr, pmodify);
  });
  EXPECT_EQ(Lines{}, event_lines());
  EXPECT_TRUE(audit_records().empty());
}

TEST_F(Close, OfAnUnchangedFileIsAudited) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    modify_file_evt_s record{nullptr, 0, 0};
    modify_file_evt_s* pmodify = &record;
    hook(session, fd, &pmodify, 0);
    hook(session, fd, &pmodify, 1);
  });
  EXPECT_EQ(Lines{}, event_lines());
  const auto records = audit_records();
  ASSERT_EQ(1U, records.size());
  EXPECT_EQ("/tavrix/Shared/Team/report.txt", records[0].path);
  EXPECT_EQ("10.0.0.7", records[0].address);
  EXPECT_EQ(8U, records[0].size);
  EXPECT_EQ(kAnna.uid, records[0].uid);
}

TEST_F(Close, OfAFolderRecordsNothing) {
  with_open("Shared/Team/Docs", [](Session& session, int fd) {
    modify_file_evt_s record{nullptr, 1, 0};
    modify_file_evt_s* pmodify = &record;
    hook(session, fd, &pmodify, 1);
    EXPECT_EQ(1, record.is_modified);
  });
  EXPECT_EQ(Lines{}, event_lines());
}

TEST_F(Close, OfAStrangeRecordDoesNothing) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    modify_file_evt_s record{nullptr, 7, 0};
    modify_file_evt_s* pmodify = &record;
    hook(session, fd, &pmodify, 1);
    EXPECT_EQ(7, record.is_modified);
  });
  EXPECT_EQ(Lines{}, event_lines());
  EXPECT_TRUE(audit_records().empty());
}

TEST_F(Close, OfSomethingThatIsNotRegularIsNotAudited) {
  ASSERT_EQ(0, mkfifo("/tavrix/Shared/Team/pipe", 0600));
  const int both = open("/tavrix/Shared/Team/pipe", O_RDWR | O_CLOEXEC);
  with_open("Shared/Team/pipe", [](Session& session, int fd) {
    modify_file_evt_s record{nullptr, 0, 0};
    modify_file_evt_s* pmodify = &record;
    hook(session, fd, &pmodify, 1);
  });
  close(both);
  EXPECT_TRUE(audit_records().empty());
}

TEST_F(Close, RecordsAChangeOfAFileItCannotLookAt) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    modify_file_evt_s record{nullptr, 1, 0};
    modify_file_evt_s* pmodify = &record;
    fail_call("fstat", EIO);
    hook(session, fd, &pmodify);
  });
  EXPECT_EQ(1U, events().size());
}

TEST_F(Close, WithoutAUsersNameIsRecordedUnstamped) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    session->user_name_as_passed_in = nullptr;
    modify_file_evt_s record{nullptr, 1, 0};
    modify_file_evt_s* pmodify = &record;
    hook(session, fd, &pmodify);
  });
  EXPECT_EQ(1U, events().size());
  EXPECT_EQ("(none)", stamp_of("Shared/Team/report.txt"));
}

// --- what is told, and every error path ---------------------------------------------------------

TEST_F(Close, TellsWhatItFound) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    const std::string path = "/tavrix/Shared/Team/report.txt";
    const auto closes = [&](int is_modified, int valid = 1) {
      return [&session, fd, is_modified, valid] {
        modify_file_evt_s record{nullptr, is_modified, 0};
        modify_file_evt_s* pmodify = &record;
        hook(session, fd, &pmodify, 0, valid);
      };
    };
    EXPECT_EQ(0, level_of_line_in("close_preprocess",
                                  ":VFS event close " + path + " was modified \n", closes(1)));
    EXPECT_EQ(1, level_of_line_in("close_preprocess",
                                  ":VFS event close " + path + " was NOT modified \n", closes(0)));
    EXPECT_EQ(3,
              level_of_line_in("close_preprocess",
                               ":VFS event close  " + path +
                                   " was NOT modified pmodify->modified=2 (should not be seen)\n",
                               closes(2)));
    const auto without = [&session, fd] {
      modify_file_evt_s* pmodify = nullptr;
      hook(session, fd, &pmodify);
    };
    EXPECT_EQ(3, level_of_line_in("close_preprocess",
                                  ":VFS event close  " + path + " NOT modified pmodified=(nil)\n",
                                  without));
  });
  with_open("Shared/Team/Docs", [](Session& session, int fd) {
    EXPECT_EQ(10, level_of_line_in("close_preprocess",
                                   " stat path=/tavrix/Shared/Team/Docs is a directory will not "
                                   "write to events file\n",
                                   [&] {
                                     modify_file_evt_s* pmodify = nullptr;
                                     hook(session, fd, &pmodify);
                                   }));
  });
}

TEST_F(Close, RefusesBadDescriptors) {
  with_open("Shared/Team/report.txt", [](Session& session, int) {
    EXPECT_EQ(0, level(session, "invalid file descriptor 0 in fsp\n", 0, {}));
    EXPECT_EQ(0, level(session, "invalid file descriptor -1 in fsp\n", -1, {}));
    const std::string proc = "/proc/" + std::to_string(getpid()) + "/fd/999";
    EXPECT_EQ(
        0, level(session, "Readlink operation on " + proc + " failed No such file or directory\n",
                 999, {}));
  });
}

TEST_F(Close, TellsWhatFails) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    const std::string proc = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd);
    const auto failing = [&](const char* call, int nth, const std::string& message) {
      return level_of(message, [&, call, nth] {
        modify_file_evt_s record{nullptr, 0, 0};
        modify_file_evt_s* pmodify = &record;
        fail_call(call, ENOMEM, nth);
        hook(session, fd, &pmodify);
        fail_call(call, 0, 0, 0);
      });
    };
    EXPECT_EQ(0, failing("calloc", 1, "Cannot allocate memory\n"));
    EXPECT_EQ(0, failing("calloc", 2, "Cannot allocate memory, mpath=\n"));
    EXPECT_EQ(0, failing("setresuid", 1,
                         "Could not get root access for readlink in close, mpath=, proc_path=" +
                             proc + "\n"));
    EXPECT_EQ(0, failing("readlink", 1,
                         "Readlink operation on " + proc + " failed Cannot allocate memory\n"));
    EXPECT_EQ(0, level_of_line_in("close_preprocess",
                                  " stat path=/tavrix/Shared/Team/report.txt failed\n", [&] {
                                    fail_call("fstat", EIO);
                                    modify_file_evt_s* pmodify = nullptr;
                                    hook(session, fd, &pmodify);
                                  }));
  });
}

TEST_F(Close, LeavesNothingBehindWhateverFails) {
  with_open("Shared/Team/report.txt", [](Session& session, int fd) {
    for (const char* call : {"calloc", "malloc", "readlink", "fstat", "getresuid", "getresgid",
                             "setxattr", "shmget", "shmat"}) {
      for (int nth = 1; nth <= 8; ++nth) {
        SCOPED_TRACE(std::string(call) + " " + std::to_string(nth));
        modify_file_evt_s record{nullptr, 1, 0};
        modify_file_evt_s* pmodify = &record;
        session.call(
            [&] {
              fail_call(call, EIO, nth);
              close_preprocess(0, fd, session.get(), &pmodify, 1, nullptr);
              fail_call(call, 0, 0, 0);
              return 0;
            },
            Session::Root::kNotKept);
        EXPECT_EQ(0, session.blocks_left());
      }
    }
  });
}

}  // namespace
}  // namespace tavrix::test
