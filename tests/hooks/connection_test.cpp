// SPDX-License-Identifier: LGPL-3.0-or-later
// A client comes and goes.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include "perm_map.h"
#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

class ConnectionHooks : public Hooks {
 protected:
  void SetUp() override {
    Hooks::SetUp();
    record_ = std::make_unique<connection_private_data_s>();
    record_->user_name_as_passed_in = name_.data();
    record_->refresh_creds.euid = kAnna.uid;
    clear_log();
  }
  void TearDown() override {
    destroy_tlb(&record_->vfs_table_cache);
    std::free(record_->groupmap.gids);
    std::free(global_read_audit_buffer);
    global_read_audit_buffer = nullptr;
  }
  int connect(int audit = 0) {
    return connect_preprocess("whoever", record_.get(), audit, &users_);
  }
  void disconnect(int audit = 0) { disconnect_preprocess(record_.get(), audit); }
  static int map_semaphores() { return semget(ftok("/dev/null", 7065), 0, 0); }
  void send(const char* path) {
    VFSEvent event = VFSEVENT__INIT;
    event.path = const_cast<char*>(path);
    event.optype = VFSEVENT__OP_TYPE__OPTYPE_CREATE;
    pop_vfs_event(&event, kAnna.uid);
    ASSERT_EQ(0, send_modify_vfs_event(&event));
  }
  void audit(const char* path) {
    AuditEvent event = AUDIT_EVENT__INIT;
    event.path = const_cast<char*>(path);
    pop_audit_event(&event);
    ASSERT_EQ(0, send_audit_vfs_event(&event, kAnna.uid));
  }

  std::string name_ = "Anna";
  std::unique_ptr<connection_private_data_s> record_;
  int users_ = 0;
};

TEST_F(ConnectionHooks, ConnectBuildsTheIdentityAndCountsTheUser) {
  EXPECT_EQ(0, connect());
  EXPECT_EQ(1, users_);
  const auto& who = record_->groupmap;
  EXPECT_EQ(kAnna.uid, who.euid);
  EXPECT_EQ(kAnna.gid, who.egid);
  EXPECT_EQ(kAnna.groups, std::vector<gid_t>(who.gids, who.gids + who.num_sup_gids));
  EXPECT_EQ(0, who.is_computer_acct);
  EXPECT_EQ(nullptr, global_read_audit_buffer);
}

TEST_F(ConnectionHooks, ConnectKnowsAComputerByItsAccount) {
  record_->refresh_creds.euid = 1007;
  EXPECT_EQ(0, connect());
  EXPECT_EQ(1, record_->groupmap.is_computer_acct);
}

TEST_F(ConnectionHooks, ConnectMakesTheSemaphoresAnewWhenTheyAreGone) {
  ASSERT_EQ(0, semctl(map_semaphores(), 0, IPC_RMID));
  EXPECT_EQ(0, connect());
  EXPECT_NE(-1, map_semaphores());
}

TEST_F(ConnectionHooks, ConnectWithoutSemaphoresFailsAndCountsNobody) {
  for (const char* call : {"semget", "ftok"}) {
    fail_call(call, EACCES, 1, 10);
    EXPECT_EQ(-1, connect()) << call;
    fail_call(call, 0, 0, 0);
  }
  EXPECT_EQ(0, users_);
  EXPECT_EQ(nullptr, record_->groupmap.gids) << "no identity is built";
  EXPECT_EQ(0, level_of("init_perm_map_semaphore FAILED \n", [this] {
              fail_call("semget", EACCES, 1, 10);
              connect();
              fail_call("semget", 0, 0, 0);
            }));
}

TEST_F(ConnectionHooks, ConnectingAgainEmptiesTheCacheAndCountsAgain) {
  ASSERT_EQ(0, connect());
  add_tlb_entry("Shared", -1, FSOP_STAT, TXPERMS_HAS_PERMS, &record_->vfs_table_cache);
  gid_t* first = record_->groupmap.gids;
  EXPECT_EQ(0, connect());
  EXPECT_EQ(2, users_);
  EXPECT_EQ(0, record_->vfs_table_cache.vfs_tlb_end);
  EXPECT_NE(nullptr, first);
  EXPECT_EQ(static_cast<int>(kAnna.groups.size()), record_->groupmap.num_sup_gids);
}

TEST_F(ConnectionHooks, ConnectGoesOnWithoutAnIdentity) {
  record_->refresh_creds.euid = 4242424;
  EXPECT_EQ(0, connect());
  EXPECT_EQ(1, users_);
}

TEST_F(ConnectionHooks, ConnectMakesAnAuditBufferWhereReadsAreAudited) {
  EXPECT_EQ(0, connect(1));
  ASSERT_NE(nullptr, global_read_audit_buffer);
  EXPECT_EQ(16U, global_read_audit_buffer->next_offset);
}

TEST_F(ConnectionHooks, ConnectIsTold) {
  const auto connects = [this](int audit) { return [this, audit] { connect(audit); }; };
  EXPECT_EQ(10, level_of("Calling init_tlb \n", connects(0)));
  EXPECT_EQ(10, level_of("After calling init_tlb \n", connects(0)));
  EXPECT_EQ(0, level_of("audit is enabled\n", connects(1)));
  EXPECT_EQ(0, level_of("audit is disabled\n", connects(0)));
  EXPECT_EQ(4, level_of("connect_preprocess: Resetting groupmap for uid=1005\n", connects(0)));
}

TEST_F(ConnectionHooks, DisconnectFreesTheCacheAndFlushesTheEvents) {
  const long blocks = live_allocations();
  init_tlb(&record_->vfs_table_cache);
  add_tlb_entry("Shared", -1, FSOP_STAT, TXPERMS_HAS_PERMS, &record_->vfs_table_cache);
  send("/tavrix/Shared/Team/a");
  disconnect();
  EXPECT_EQ(blocks, live_allocations());
  EXPECT_EQ(0, record_->vfs_table_cache.vfs_tlb_end);
  EXPECT_EQ(1U, list(kStagingDir).size());
  EXPECT_EQ((std::vector<std::string>{"CREATE FILE /tavrix/Shared/Team/a"}), event_lines());
}

TEST_F(ConnectionHooks, DisconnectFlushesTheAuditBufferOnlyWhereReadsAreAudited) {
  ASSERT_EQ(0, connect(1));
  audit("/tavrix/Shared/Team/report.txt");
  disconnect(0);
  EXPECT_TRUE(list(kAuditDir).empty());
  disconnect(1);
  ASSERT_EQ(1U, audit_records().size());
  EXPECT_EQ("/tavrix/Shared/Team/report.txt", audit_records()[0].path);
}

TEST_F(ConnectionHooks, DisconnectTellsOfAFlushThatFailedAndKeepsTheEvents) {
  send("/tavrix/Shared/Team/a");
  remove_all(kStagingDir);
  record_->refresh_creds.tlb_owner = 1005;
  const std::string told = "FSB in Disconnect ctx for pid:(" + std::to_string(getpid()) +
                           "), user:(Anna), uid:(1005), ret_val:(-1)";
  EXPECT_EQ(0, level_of(told, [this] { disconnect(); }));
  make_dirs(kStagingDir);
  EXPECT_EQ(1U, events().size());
  remove_all(kStagingDir);
  record_->user_name_as_passed_in = nullptr;
  disconnect();
}

TEST_F(ConnectionHooks, ASessionLeavesNothingBehind) {
  as(kAnna, [this] {
    ASSERT_EQ(0, seteuid(0));  // connecting and disconnecting run as root
    ASSERT_EQ(0, connect(1));
    disconnect(1);
    const Footprint before = footprint_now();
    for (int round = 0; round < 20; ++round) {
      ASSERT_EQ(0, connect(1));
      int is_nav = 0;
      tx_perm_ctx_t* ctx = nullptr;
      ASSERT_EQ(0, fdopendir_preprocess("/tavrix", "Shared/Team", 0, record_.get(), &is_nav, &ctx));
      ASSERT_EQ(0, stat_preprocess(record_.get(), "Shared/Team", "/tavrix", &ctx));
      disconnect(1);
    }
    const Footprint after = footprint_now();
    EXPECT_EQ(before.blocks, after.blocks);
    EXPECT_EQ(before.segments, after.segments);
  });
}

}  // namespace
}  // namespace tavrix::test
