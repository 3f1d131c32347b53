// SPDX-License-Identifier: LGPL-3.0-or-later
// The superuser's identity and the way back.

#include <gtest/gtest.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

#include "tavrix_utils.h"
#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"
#include "utils/root_scope.hpp"

namespace tavrix::test {
namespace {

constexpr uid_t kUser = 4711;
constexpr gid_t kGroup = 815;

// Runs the body in a process with the identity of a Samba server process that serves the user.
void as_user(const std::function<void()>& body) {
  const Outcome outcome = in_child([&] {
    become_samba_user(kUser, kGroup);
    body();
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
}

TEST(BecomeRoot, MakesRealAndEffectiveUserRoot) {
  as_user([] {
    tx_permctx_s* context = nullptr;
    EXPECT_EQ(0, tavrix_become_root(&context));
    const Ids ids = ids_now();
    EXPECT_EQ(0U, ids.r);
    EXPECT_EQ(0U, ids.e);
    EXPECT_EQ(0U, ids.s);
    EXPECT_EQ(kGroup, ids.eg);
    std::free(context);
  });
}

TEST(BecomeRoot, RecordsAllSixIds) {
  as_user([] {
    tx_permctx_s* context = nullptr;
    tavrix_become_root(&context);
    EXPECT_EQ(kUser, context->real_uid);
    EXPECT_EQ(kUser, context->effective_uid);
    EXPECT_EQ(0U, context->saved_uid);
    EXPECT_EQ(0U, context->real_gid);
    EXPECT_EQ(kGroup, context->effective_gid);
    EXPECT_EQ(0U, context->saved_gid);
    std::free(context);
  });
}

TEST(BecomeRoot, GivesBackExactlyWhatWasThere) {
  as_user([] {
    const Ids before = ids_now();
    tx_permctx_s* context = nullptr;
    ASSERT_EQ(0, tavrix_become_root(&context));
    EXPECT_EQ(0, tavrix_unbecome_root(context));
    EXPECT_TRUE(before == ids_now());
    std::free(context);
  });
}

TEST(BecomeRoot, AsRootChangesNothing) {
  tx_permctx_s* context = nullptr;
  reset_calls();
  EXPECT_EQ(0, tavrix_become_root(&context));
  EXPECT_EQ(0, calls("setresuid") + calls("getresgid"));
  EXPECT_EQ(0U, context->real_gid + context->effective_gid + context->saved_gid);
  EXPECT_EQ(0, tavrix_unbecome_root(context));
  EXPECT_EQ(0U, geteuid());
  std::free(context);
}

TEST(BecomeRoot, KeepsTheGroupFieldsOfAUsedContextAsRoot) {
  tx_permctx_s used{1, 2, 3, 4, 5, 6};
  tx_permctx_s* context = &used;
  EXPECT_EQ(0, tavrix_become_root(&context));
  EXPECT_EQ(4U, used.real_gid);
  EXPECT_EQ(5U, used.effective_gid);
  EXPECT_EQ(6U, used.saved_gid);
  EXPECT_EQ(0U, used.effective_uid);
}

TEST(BecomeRoot, UsesTheContextItIsGiven) {
  tx_permctx_s own{};
  tx_permctx_s* context = &own;
  const long before = allocations();
  EXPECT_EQ(0, tavrix_become_root(&context));
  EXPECT_EQ(&own, context);
  EXPECT_EQ(before, allocations());
}

// The least level at which a failed switch is logged; checks its result and context on the way.
void expect_failure(const std::string& message, bool has_context) {
  const auto attempt = [&] {
    tx_permctx_s* context = nullptr;
    const Ids before = ids_now();
    EXPECT_EQ(-1, tavrix_become_root(&context));
    EXPECT_TRUE(before == ids_now());
    EXPECT_EQ(has_context, context != nullptr);
    std::free(context);
  };
  EXPECT_EQ(0, level_of(message, attempt));
}

TEST(BecomeRoot, WithoutMemoryFails) {
  fail_call("malloc", ENOMEM, 1, 100);
  expect_failure("Cannot allocate memory", false);
}

TEST(BecomeRoot, FailsWhenTheUserIdsCannotBeRead) {
  as_user([] {
    fail_call("getresuid", EFAULT, 2, 1);
    tx_permctx_s* context = nullptr;
    ids_now();
    EXPECT_EQ(-1, tavrix_become_root(&context));
    EXPECT_TRUE(logged("getresuid failed. Cannot change to root"));
    EXPECT_NE(nullptr, context);
    std::free(context);
  });
}

TEST(BecomeRoot, FailsWhenTheGroupIdsCannotBeRead) {
  as_user([] {
    fail_call("getresgid", EFAULT);
    tx_permctx_s* context = nullptr;
    EXPECT_EQ(-1, tavrix_become_root(&context));
    EXPECT_TRUE(logged("getresgid failed. Cannot change to root"));
    EXPECT_EQ(kUser, geteuid());
    std::free(context);
  });
}

TEST(BecomeRoot, FailsForAProcessWithoutAWayToRoot) {
  const Outcome outcome = in_child([] {
    ASSERT_EQ(0, setresgid(kGroup, kGroup, kGroup));
    ASSERT_EQ(0, setresuid(kUser, kUser, kUser));
    expect_failure("setresuid failed. Cannot change to root", true);
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
}

TEST(UnbecomeRoot, WithoutAContextFails) {
  EXPECT_EQ(-1, tavrix_unbecome_root(nullptr));
  EXPECT_EQ(0, level_of("No permission context", [] { tavrix_unbecome_root(nullptr); }));
}

TEST(UnbecomeRoot, FailsWhenTheIdsAreRefused) {
  tx_permctx_s context{};
  fail_call("setresuid", EAGAIN, 1, 100);
  EXPECT_EQ(-1, tavrix_unbecome_root(&context));
  EXPECT_EQ(0, level_of("Could not switch uids", [&] { tavrix_unbecome_root(&context); }));
}

TEST(VfsBecomeRoot, IsAPairThatOwnsTheContext) {
  as_user([] {
    const Ids before = ids_now();
    const long blocks = live_allocations();
    tx_permctx_s* context = tavrix_vfs_become_root();
    ASSERT_NE(nullptr, context);
    EXPECT_EQ(0U, geteuid());
    EXPECT_EQ(0, tavrix_vfs_unbecome_root(context));
    EXPECT_TRUE(before == ids_now());
    EXPECT_EQ(blocks, live_allocations());
  });
}

TEST(VfsBecomeRoot, WithoutMemoryIsNull) {
  fail_call("calloc", ENOMEM, 1, 100);
  EXPECT_EQ(0, level_of("Could not allocate memory for permission context",
                        [] { EXPECT_EQ(nullptr, tavrix_vfs_become_root()); }));
}

TEST(VfsBecomeRoot, FreesTheContextOfAFailedSwitch) {
  as_user([] {
    const long blocks = live_allocations();
    fail_call("setresuid", EPERM, 1, 100);
    EXPECT_EQ(nullptr, tavrix_vfs_become_root());
    EXPECT_TRUE(logged("Could not switch to root"));
    EXPECT_TRUE(logged("setresuid failed. Cannot change to root"));
    EXPECT_EQ(blocks, live_allocations());
  });
}

TEST(VfsUnbecomeRoot, FreesTheContextEvenWhenItFails) {
  tx_permctx_s* context = tavrix_vfs_become_root();
  const long blocks = live_allocations();
  fail_call("setresuid", EPERM);
  EXPECT_EQ(-1, tavrix_vfs_unbecome_root(context));
  EXPECT_EQ(blocks - 1, live_allocations());
}

TEST(VfsUnbecomeRoot, OfNothingFailsSilently) {
  clear_log();
  EXPECT_EQ(-1, tavrix_vfs_unbecome_root(nullptr));
  EXPECT_TRUE(messages().empty());
}

TEST(PrivilegeMessages, AreSilentBelowZero) {
  set_debug_level(-1);
  clear_log();
  tavrix_unbecome_root(nullptr);
  EXPECT_TRUE(messages().empty());
}

TEST(RootScopes, EndAProcessThatCannotGiveRootBack) {
  EXPECT_TRUE(in_child([] {
                become_samba_user(kUser, kGroup);
                const RootScope root;
                fail_call("setresuid", EAGAIN);
              }).aborted_with("tavrix_vfs_unbecome_root(perm_ctx) == 0"));
}

TEST(RaisePermissions, LeavesRootAsItIs) {
  tx_perm_ctx_t* context = nullptr;
  EXPECT_EQ(1, raise_permissions(&context));
  EXPECT_EQ(nullptr, context);
}

TEST(RaisePermissions, MakesAUserRoot) {
  const Outcome outcome = in_child([] {
    become_samba_user(1000, 1000);
    tx_perm_ctx_t* context = nullptr;
    EXPECT_EQ(1, raise_permissions(&context));
    EXPECT_EQ(0U, geteuid());
    ASSERT_NE(nullptr, context);
    EXPECT_EQ(0, tavrix_vfs_unbecome_root(context));
    EXPECT_EQ(1000U, geteuid());
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
}

TEST(RaisePermissions, RefusesWithoutAWay) {
  const Outcome outcome = in_child([] {
    ASSERT_EQ(0, setresuid(1000, 1000, 1000));
    tx_perm_ctx_t* context = nullptr;
    errno = 0;
    EXPECT_EQ(0, raise_permissions(&context));
    EXPECT_EQ(EACCES, errno);
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
}

}  // namespace
}  // namespace tavrix::test
