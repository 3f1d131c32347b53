// SPDX-License-Identifier: LGPL-3.0-or-later
// The decision's short switch to the superuser, from every identity that a process may have.

#include <gtest/gtest.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>

#include "perm_enforcer.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

constexpr uid_t kUser = 4711;
constexpr gid_t kGroup = 815;

struct Identity {
  const char* name;
  uid_t r, e, s;
  gid_t rg, eg, sg;
  bool can_switch;
};

// Real, effective and saved user; real, effective and saved group.
const Identity kIdentities[] = {
    {"ServerInAHook", kUser, kUser, 0, 0, kGroup, 0, true},
    {"ServerWithRealRoot", 0, kUser, 0, 0, kGroup, 0, true},
    {"ServerWithRealRootOnly", 0, kUser, kUser, 0, kGroup, 0, true},
    {"UserGroupIsReal", 0, kUser, 0, kGroup, kGroup, 0, true},
    {"UserGroupIsSaved", 0, kUser, 0, 0, kGroup, kGroup, true},
    {"UserInRootsGroup", 0, kUser, 0, 0, 0, 0, true},
    {"RootInAGroup", 0, 0, 0, 0, kGroup, 0, true},
    {"RootOnlyByEffect", kUser, 0, kUser, 0, kGroup, 0, true},
    {"Root", 0, 0, 0, 0, 0, 0, true},
    {"PlainUser", kUser, kUser, kUser, kGroup, kGroup, kGroup, false},
};

class ChangeId : public testing::TestWithParam<Identity> {
 protected:
  // Runs the body in a process of that identity.
  static void as_identity(const std::function<void()>& body) {
    const Outcome outcome = in_child([&] {
      const Identity& id = GetParam();
      ASSERT_EQ(0, setresgid(id.rg, id.eg, id.sg));
      ASSERT_EQ(0, setresuid(id.r, id.e, id.s));
      body();
    });
    EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  }
};
INSTANTIATE_TEST_SUITE_P(As, ChangeId, testing::ValuesIn(kIdentities),
                         [](const auto& identity) { return std::string(identity.param.name); });

TEST_P(ChangeId, MakesTheEffectiveIdsTheSuperusers) {
  as_identity([] {
    _change_id(5);
    EXPECT_EQ(GetParam().can_switch ? 0 : kUser, geteuid());
    EXPECT_EQ(GetParam().can_switch ? 0 : kGroup, getegid());
  });
}

TEST_P(ChangeId, LeavesRealAndSavedIdsAlone) {
  as_identity([] {
    const Ids before = ids_now();
    _change_id(5);
    const Ids during = ids_now();
    EXPECT_EQ(before.r, during.r);
    EXPECT_EQ(before.s, during.s);
    EXPECT_EQ(before.rg, during.rg);
    EXPECT_EQ(before.sg, during.sg);
  });
}

TEST_P(ChangeId, GivesBackAllSixIds) {
  as_identity([] {
    const Ids before = ids_now();
    for (int round = 0; round < 3; ++round) {
      _change_id(5);
      _change_id(6);
      EXPECT_TRUE(before == ids_now());
    }
  });
}

TEST_P(ChangeId, GivesBackOnEveryOtherCodeThanFive) {
  for (const int back : {0, 1, 4, 7, -1}) {
    as_identity([back] {
      const Ids before = ids_now();
      _change_id(5);
      _change_id(back);
      EXPECT_TRUE(before == ids_now()) << back;
    });
  }
}

TEST(ChangeIdCode, DoesNotNest) {
  const Outcome outcome = in_child([] {
    _change_id(5);
    _change_id(5);
  });
  EXPECT_EQ(SIGABRT, outcome.signal);
  EXPECT_NE(std::string::npos,
            outcome.err.find("Assertion `save_uid == -1 && save_gid == -1' failed."))
      << outcome.err;
}

TEST(ChangeIdCode, HasNothingToGiveBackBeforeASwitch) {
  for (const int back : {6, 0}) {
    const Outcome outcome = in_child([back] { _change_id(back); });
    EXPECT_EQ(SIGABRT, outcome.signal);
    EXPECT_NE(std::string::npos,
              outcome.err.find("Assertion `save_uid != -1 && save_gid != -1' failed."))
        << outcome.err;
  }
}

TEST(ChangeIdCode, GivesBackOnlyOnce) {
  const Outcome outcome = in_child([] {
    _change_id(5);
    _change_id(6);
    _change_id(6);
  });
  EXPECT_EQ(SIGABRT, outcome.signal);
  EXPECT_NE(std::string::npos,
            outcome.err.find("Assertion `save_uid != -1 && save_gid != -1' failed."))
      << outcome.err;
}

// A process that keeps the superuser's user or group must not go on serving its client.
TEST(ChangeIdCode, EndsAProcessThatCannotGiveBack) {
  for (const char* call : {"seteuid", "setegid"}) {
    const std::string argument = call == std::string("seteuid") ? "save_uid" : "save_gid";
    EXPECT_TRUE(in_child([call] {
                  become_samba_user(kUser, kGroup);
                  _change_id(5);
                  fail_call(call, EAGAIN);
                  _change_id(6);
                }).aborted_with(std::string(call) + "(" + argument + ") == 0"))
        << call;
  }
}

}  // namespace
}  // namespace tavrix::test
