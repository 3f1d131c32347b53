// SPDX-License-Identifier: LGPL-3.0-or-later
// Decisions about the entries of a folder: each is the permission check's, and all are about one
// map.

#include <gtest/gtest.h>
#include <cerrno>
#include <cstring>
#include <memory>
#include <random>

#include "tavrix_session.h"
#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

class Entries : public Share {
 protected:
  void SetUp() override {
    Share::SetUp();
    record_ = std::make_unique<connection_private_data_s>();
    init_tlb(&record_->vfs_table_cache);
    be(kAnna);
  }
  void TearDown() override { destroy_tlb(&record_->vfs_table_cache); }
  void be(const Caller& caller) {
    groups_ = caller.groups;
    record_->groupmap = trustees_of({caller.name, caller.uid, caller.gid, groups_});
    record_->groupmap.gids = groups_.data();
  }
  std::vector<int> decide(const std::string& folder, const std::vector<std::string>& names,
                          e_fsop_type op = FSOP_STAT, int type = 0) {
    std::vector<tavrix_entry_s> entries;
    for (const std::string& name : names) {
      entries.push_back({name.c_str(), type, TXPERMS_NOT_SET});
    }
    EXPECT_EQ(0, tavrix_decide_entries("/tavrix", folder.c_str(), op, record_.get(), entries.data(),
                                       sizeof entries[0], entries.size()));
    std::vector<int> verdicts;
    for (const tavrix_entry_s& entry : entries) verdicts.push_back(entry.verdict);
    return verdicts;
  }
  // The check's answers, with its cache empty.
  std::vector<int> check(const std::string& folder, const std::vector<std::string>& names,
                         e_fsop_type op = FSOP_STAT, int type = 0) {
    std::vector<int> verdicts;
    for (const std::string& name : names) {
      destroy_tlb(&record_->vfs_table_cache);
      verdicts.push_back(
          check_perms("/tavrix", (folder + "/" + name).c_str(), op, record_.get(), type));
    }
    return verdicts;
  }

  std::unique_ptr<connection_private_data_s> record_;
  std::vector<gid_t> groups_;
};

const std::vector<std::string> kNames = {
    "Team",  "Lobby",    "Closed",     "report.txt",  "Docs",        "Secret", "Drop",
    "pat",   "olga",     "diary.txt",  "stray.txt",   "picture.jpg", "Deep",   "Gallery",
    "Ghost", "NotInMap", ".DS_Store",  "missing.txt", ".",           "..",     "../x",
    "*",     "a/b",      "Other",      "Shared",      "Private",     "",       "top.txt",
    "TEAM",  "docs",     "._.DS_Store"};
const std::vector<std::string> kFolders = {".",
                                           "Shared",
                                           "Shared/Team",
                                           "Shared/Team/Docs",
                                           "shared/team/",
                                           "Shared/Closed",
                                           "Shared/Lobby",
                                           "Private",
                                           "Private/pat",
                                           "Private/olga",
                                           "Other",
                                           "Shared//Team",
                                           "./Shared/Team",
                                           "Shared/../Shared",
                                           "Shared/Team/NotInMap"};

TEST_F(Entries, AreDecidedAsThePermissionCheckDecides) {
  for (const Caller& caller : all_callers()) {
    be(caller);
    for (const std::string& folder : kFolders) {
      for (const e_fsop_type op : {FSOP_STAT, FSOP_LSTAT, FSOP_OPEN_READ, FSOP_OPEN_WRITE}) {
        for (const int type : {0, int{FSTYPE_FILE}, int{FSTYPE_FOLDER}}) {
          EXPECT_EQ(check(folder, kNames, op, type), decide(folder, kNames, op, type))
              << caller.name << " " << folder << " op " << op << " type " << type;
        }
      }
    }
  }
}

TEST_F(Entries, AreDecidedAlikeWithASession) {
  ASSERT_EQ(0, tavrix_session_begin());
  for (const Caller& caller : all_callers()) {
    be(caller);
    for (const std::string& folder : kFolders) {
      EXPECT_EQ(check(folder, kNames), decide(folder, kNames)) << caller.name << " " << folder;
    }
  }
  tavrix_session_end();
}

TEST_F(Entries, OfATreeAreTheOnesTheMapGrants) {
  EXPECT_EQ((std::vector<int>{3, 3, 2}), decide("Shared", {"Team", "Lobby", "Closed"}));
}

TEST_F(Entries, OfAComputerAreRefused) {
  record_->groupmap.is_computer_acct = 1;
  EXPECT_EQ(check("Shared/Team", kNames), decide("Shared/Team", kNames));
  EXPECT_EQ(std::vector<int>{TXPERMS_NO_PERM}, decide("Shared/Team", {"report.txt"}));
}

TEST_F(Entries, OfTheReservedUserAreGrantedWithoutTheMap) {
  record_->reserved_user = 1;
  EXPECT_EQ(check("Shared/Closed", kNames), decide("Shared/Closed", kNames));
  reset_calls();
  EXPECT_EQ((std::vector<int>{3, 3}), decide("Shared/Closed", {"a", "b"}));
  EXPECT_EQ(0, calls("shmat"));
}

TEST_F(Entries, AreDecidedInOneScope) {
  const std::vector<std::string> names(200, "report.txt");
  for (const int type : {0, int{FSTYPE_FILE}}) {
    as(kAnna, [&] {
      be(kAnna);
      reset_calls();
      decide("Shared/Team", names, FSOP_STAT, type);
      EXPECT_EQ(1, calls("shmat"));
      EXPECT_EQ(1, calls("shmdt"));
      EXPECT_EQ(2, calls("seteuid"));
      EXPECT_EQ(type == 0 ? 201 : 1, calls("stat"));
      EXPECT_EQ(kAnna.uid, geteuid());
    });
  }
}

TEST_F(Entries, AreAllAboutOneMap) {
  const std::vector<std::string> names(20, "report.txt");
  std::vector<tavrix_entry_s> entries;
  for (const std::string& name : names) entries.push_back({name.c_str(), 0, TXPERMS_NOT_SET});
  // The map changes while the tenth object is looked at.
  run_before(
      "stat", [] { publish_map({.name = "/"}); }, 10);
  EXPECT_EQ(std::vector<int>(20, TXPERMS_HAS_PERMS), decide("Shared/Team", names));
  EXPECT_EQ(std::vector<int>(20, TXPERMS_NO_PERM), decide("Shared/Team", names));
}

TEST_F(Entries, NeitherReadNorWriteTheCache) {
  be(kBen);
  decide("Shared/Team", {"report.txt"}, FSOP_OPEN_WRITE);
  EXPECT_EQ(0, record_->vfs_table_cache.vfs_tlb_end);
  add_tlb_entry("Shared/Team/report.txt", -1, FSOP_OPEN_WRITE, TXPERMS_HAS_PERMS,
                &record_->vfs_table_cache);
  EXPECT_EQ(std::vector<int>{TXPERMS_NO_PERM},
            decide("Shared/Team", {"report.txt"}, FSOP_OPEN_WRITE));
}

TEST_F(Entries, LieInLargerRecords) {
  struct Record {
    long before;
    tavrix_entry_s question;
    char after[40];
  };
  std::vector<Record> records(3);
  std::memset(static_cast<void*>(records.data()), 0x5A, sizeof(Record) * records.size());
  const char* names[] = {"Team", nullptr, "Closed"};
  for (int i = 0; i < 3; ++i)
    records[static_cast<std::size_t>(i)].question = {names[i], FSTYPE_FOLDER, TXPERMS_NOT_SET};
  EXPECT_EQ(0, tavrix_decide_entries("/tavrix", "Shared", FSOP_STAT, record_.get(),
                                     &records[0].question, sizeof(Record), records.size()));
  EXPECT_EQ(TXPERMS_HAS_PERMS, records[0].question.verdict);
  EXPECT_EQ(TXPERMS_INVALID_ARGS, records[1].question.verdict);
  EXPECT_EQ(TXPERMS_NO_PERM, records[2].question.verdict);
  for (const Record& record : records) {
    EXPECT_EQ(0x5A5A5A5A5A5A5A5AL, record.before);
    for (const char byte : record.after) EXPECT_EQ(0x5A, byte);
  }
}

TEST_F(Entries, OfBadQuestionsAreNotDecided) {
  tavrix_entry_s entry{"Team", 0, TXPERMS_NOT_SET};
  const auto refused = [&](const char* root, const char* folder, connection_private_data_s* record,
                           tavrix_entry_s* questions, std::size_t stride) {
    errno = 0;
    EXPECT_EQ(-1, tavrix_decide_entries(root, folder, FSOP_STAT, record, questions, stride, 1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(TXPERMS_NOT_SET, entry.verdict);
  };
  refused(nullptr, "Shared", record_.get(), &entry, sizeof entry);
  refused("/tavrix", nullptr, record_.get(), &entry, sizeof entry);
  refused("/tavrix", "Shared", nullptr, &entry, sizeof entry);
  refused("/tavrix", "Shared", record_.get(), nullptr, sizeof entry);
  refused("/tavrix", "Shared", record_.get(), &entry, sizeof entry - 1);
  EXPECT_EQ(0, tavrix_decide_entries("/tavrix", "Shared", FSOP_STAT, record_.get(), &entry,
                                     sizeof entry, 0));
}

TEST_F(Entries, WithLongNamesAreDecidedToo) {
  const std::vector<std::string> names = {std::string(255, 'n'), std::string(256, 'n'),
                                          std::string(4000, 'n')};
  EXPECT_EQ(check("Shared/Team", names), decide("Shared/Team", names));
}

TEST_F(Entries, WithoutMemoryAreNotGranted) {
  for (int nth = 1; nth <= 12; ++nth) {
    const Outcome child = in_child([&] {
      std::vector<int> verdicts;
      fail_call("malloc", ENOMEM, nth);
      tavrix_entry_s entry{"Closed", FSTYPE_FOLDER, TXPERMS_NOT_SET};
      tavrix_decide_entries("/tavrix", "Shared", FSOP_STAT, record_.get(), &entry, sizeof entry, 1);
      EXPECT_NE(TXPERMS_HAS_PERMS, entry.verdict) << nth;
    });
    EXPECT_TRUE(child.ok() || child.signal != 0) << nth << child.out;
  }
}

TEST_F(Entries, AreTracedAsTheCheckTraces) {
  EXPECT_EQ(1, level_of("Calling vfs_enforce_perms path=(Shared/Team) op=(16), "
                        "full_path=[/tavrix/Shared/Team]\n",
                        [&] { decide("Shared", {"Team"}); }));
}

// Random trees, folders and names: always the check's answers.
TEST_F(Entries, OfRandomTreesAreTheChecks) {
  give_samba_library_its_name();
  std::mt19937 random(11);
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    Folder shared = random_tree(seed, 300, Bytes::kUtf8);
    shared.name = "Shared";
    publish_map({.name = "/", .groups = {{kPeople, 1}}, .children = {shared}});
    const auto paths = paths_of(shared);
    for (int listing = 0; listing < 60; ++listing) {
      const std::string folder = "Shared/" + paths[random() % paths.size()];
      std::vector<std::string> names = {"x", "file.txt", ".DS_Store"};
      for (int i = 0; i < 8; ++i) {
        const std::string path = paths[random() % paths.size()];
        names.push_back(path.substr(path.rfind('/') + 1));
      }
      be(all_callers()[random() % all_callers().size()]);
      const int type = random() % 2 == 0 ? FSTYPE_FILE : FSTYPE_FOLDER;
      ASSERT_EQ(check(folder, names, FSOP_STAT, type), decide(folder, names, FSOP_STAT, type))
          << seed << " " << folder;
    }
  }
}

}  // namespace
}  // namespace tavrix::test
