// SPDX-License-Identifier: LGPL-3.0-or-later
// A death of the library during a command is a failure with a sentence, not an answer.

#include <sys/shm.h>
#include <cstring>

#include "internal/scoped.hpp"
#include "mkperms_shm.h"
#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

class Survive : public Operator {
 protected:
  static Folder beyond_ascii() {
    const Folder cafe{.name = "Caf\xc3\xa9", .users = {{1001, 7}}};
    return {.name = "/", .children = {{.name = "Shared", .children = {cafe}}}};
  }
  static Outcome check(const std::string& path) {
    return ctl({"check", "--uid", "1001", "--groups", "9002", "--powerusers-gid", "9002",
                "open-read", path});
  }
  // Overwrites the folders of the current table, so that the library's assertions fail.
  static void damage_the_table() {
    const auto info = json({"map", "info"});
    const int current = info["current"];
    const int key = info["tables"][static_cast<std::size_t>(current)]["key"];
    const int id = shmget(key, 0, 0);
    ASSERT_NE(-1, id);
    const ShmAttachment table(shmat(id, nullptr, 0));
    ASSERT_TRUE(table);
    const auto& header = *static_cast<const tavrix_be_header*>(table.get());
    std::memset(static_cast<char*>(table.get()) + header.fselem_offset, 0x5a,
                header.next_free_fselem);
  }
};

TEST_F(Survive, AMissingComparisonOfNamesIsNamed) {
  ASSERT_EQ(0, import(beyond_ascii()).exit_code);
  hide_samba_library();
  for (const Outcome& outcome :
       {check("Shared/CAF\xc3\x89/plan.txt"), ctl({"map", "acl", "Shared/CAF\xc3\x89"}),
        ctl({"map", "tree", "Shared/CAF\xc3\x89"})}) {
    EXPECT_EQ(2, outcome.exit_code) << outcome.err;
    EXPECT_EQ("", outcome.out);
    EXPECT_TRUE(contains(outcome.err,
                         " ended before an answer, with exit code 1: Samba's "
                         "comparison of names is missing"))
        << outcome.err;
    EXPECT_TRUE(contains(outcome.err, "\"tavrixctl doctor\" says how")) << outcome.err;
  }
}

TEST_F(Survive, AnAssertionIsAFailureWithAdvice) {
  give_samba_library_its_name();
  make_dirs("/tavrix/Shared");
  ASSERT_EQ(0, import(beyond_ascii()).exit_code);
  damage_the_table();
  const Outcome outcome = check("Shared/plan.txt");
  EXPECT_EQ(2, outcome.exit_code) << outcome.err;
  EXPECT_EQ("", outcome.out);
  EXPECT_TRUE(contains(outcome.err, "Assertion")) << outcome.err;
  EXPECT_TRUE(contains(outcome.err,
                       "tavrixctl: the check ended before an answer, by signal 6 "
                       "(Aborted): server processes would end in the same way"))
      << outcome.err;
}

TEST_F(Survive, AnAnswerIsPassedOn) {
  ASSERT_EQ(0, import(team()).exit_code);
  make_dirs("/tavrix/Shared/Team");
  EXPECT_EQ(0, check("Shared/Team").exit_code);
  EXPECT_TRUE(contains(check("Shared/Team").out, "\ngranted: "));
  EXPECT_EQ(1, ctl({"check", "--uid", "1002", "mkdir", "Shared/Team/New"}).exit_code);
  EXPECT_EQ(1, ctl({"map", "tree", "Shared/None"}).exit_code);
}

}  // namespace
}  // namespace tavrix::test
