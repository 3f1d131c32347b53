// SPDX-License-Identifier: LGPL-3.0-or-later
// The audit buffer of a process.

#include <sys/mount.h>
#include <sys/stat.h>
#include <cerrno>
#include <csignal>

#include "tests/support/fail_call.hpp"
#include "tests/support/staging.hpp"

namespace tavrix::test {
namespace {

using Payloads = std::vector<std::string>;

class AuditBuffer : public Isolated {
 protected:
  static constexpr const char* kDir = "/scratch/audit";
  static constexpr const char* kHistory = TAVRIX_HISTORY_FOLDER;

  void SetUp() override {
    Isolated::SetUp();
    set_debug_level(-1);
    make_dirs(kDir);
    configure(4096, 50, 60);
    init_audit_buffer();
    clear_log();
  }
  void TearDown() override {
    std::free(global_read_audit_buffer);
    global_read_audit_buffer = nullptr;
  }
  static void configure(int size, int percent, int interval) {
    global_params[PARAM_AUDITING_BUFFER_SIZE].value.intval = size;
    global_params[PARAM_FLUSH_FILL_THRESHOLD].value.intval = percent;
    global_params[PARAM_AUDITING_FLUSH_INTERVAL].value.intval = interval;
    std::strcpy(global_params[PARAM_AUDITING_DIR].value.strval, kDir);
  }
  static void append(const std::string& payload) {
    write_to_audit_buffer(record_of(payload).get());
  }
  static Payloads kept() {
    return payloads_of({reinterpret_cast<const char*>(global_read_audit_buffer + 1),
                        global_read_audit_buffer->next_offset - 16});
  }
  static Payloads dumped() {
    Payloads all;
    for (const std::string& name : list(kDir)) {
      if (!name.starts_with("pending_")) continue;
      const auto some = payloads_of(read_file(std::string(kDir) + "/" + name));
      all.insert(all.end(), some.begin(), some.end());
    }
    return all;
  }
  static bool told(const std::string& start) {
    for (const auto& text : messages()) {
      if (text.starts_with(start)) return true;
    }
    return false;
  }
};

TEST_F(AuditBuffer, BeginsEmpty) {
  ASSERT_NE(nullptr, global_read_audit_buffer);
  EXPECT_EQ(16U, global_read_audit_buffer->next_offset);
  EXPECT_EQ(0U, global_read_audit_buffer->num_records);
  EXPECT_NEAR(static_cast<double>(time(nullptr)),
              static_cast<double>(global_read_audit_buffer->last_flush_time), 2);
}

TEST_F(AuditBuffer, KeepsRecordsUntilTheyAreFlushed) {
  append("one");
  append("two");
  EXPECT_EQ((Payloads{"one", "two"}), kept());
  EXPECT_TRUE(list(kDir).empty());
  EXPECT_EQ(0, flush_audit_buffer());
  EXPECT_EQ((Payloads{"one", "two"}), dumped());
  EXPECT_TRUE(kept().empty());
  EXPECT_EQ(1U, list(kDir).size());
  EXPECT_EQ(1, flush_audit_buffer());
}

TEST_F(AuditBuffer, FlushesAtItsThreshold) {
  append(std::string(2000, 'a'));
  append(std::string(30, 'b'));  // ends behind 2048
  EXPECT_TRUE(dumped().empty());
  append("c");
  EXPECT_EQ((Payloads{std::string(2000, 'a'), std::string(30, 'b')}), dumped());
  EXPECT_EQ(Payloads{"c"}, kept());
}

TEST_F(AuditBuffer, TakesHalfForThresholdsAboveNinetyNine) {
  configure(4096, 150, 60);
  append(std::string(2048 - 16 - 8 - 1, 'a'));
  append("b");
  EXPECT_TRUE(dumped().empty());
  append("c");
  EXPECT_EQ(2U, dumped().size());
}

TEST_F(AuditBuffer, FlushesAfterItsInterval) {
  append("one");
  global_read_audit_buffer->last_flush_time = time(nullptr) - 61;
  append("two");
  EXPECT_EQ(Payloads{"one"}, dumped());
  EXPECT_EQ(Payloads{"two"}, kept());
}

TEST_F(AuditBuffer, WaitsForTheEndOfItsInterval) {
  append("one");
  global_read_audit_buffer->last_flush_time = time(nullptr) - 58;
  append("two");
  EXPECT_TRUE(dumped().empty());
}

TEST_F(AuditBuffer, HoldsARecordThatIsLargerThanItsRoom) {
  append(std::string(2000, 'a'));
  append(std::string(10000, 'b'));
  EXPECT_EQ((Payloads{std::string(2000, 'a'), std::string(10000, 'b')}), kept());
}

TEST_F(AuditBuffer, IsInitialisedAgainByAFlush) {
  append("one");
  EXPECT_EQ(1, level_of("Got an init force flush temp_offset 27, flush_time " +
                            std::to_string(global_read_audit_buffer->last_flush_time),
                        [] {
                          if (kept().empty()) append("one");
                          init_audit_buffer();
                        }));
  EXPECT_FALSE(dumped().empty());
  EXPECT_EQ(1, level_of("Got an init but nothing in the buffer", [] { init_audit_buffer(); }));
  EXPECT_EQ(1, level_of("Allocating 4096 for audit buffer", [] { init_audit_buffer(); }));
}

TEST_F(AuditBuffer, KeepsItsRecordsWhenAnInitCannotFlush) {
  append("one");
  remove_all(kDir);
  init_audit_buffer();
  EXPECT_EQ(Payloads{"one"}, kept());
}

TEST_F(AuditBuffer, RefusesWhatIsNoRecord) {
  EXPECT_EQ(0,
            level_of("null staging data", [] { EXPECT_EQ(-1, write_to_audit_buffer(nullptr)); }));
  staging_data_s nothing{0, STAGING_DATA_SIGNATURE};
  EXPECT_EQ(0,
            level_of("invalid data size", [&] { EXPECT_EQ(-1, write_to_audit_buffer(&nothing)); }));
  TearDown();
  EXPECT_EQ(0, level_of("Auditing buffer is NULL",
                        [] { EXPECT_EQ(-1, write_to_audit_buffer(record_of("x").get())); }));
  EXPECT_EQ(0,
            level_of("cannot access staging buffer.", [] { EXPECT_EQ(-1, flush_audit_buffer()); }));
}

TEST_F(AuditBuffer, StoresAForeignSignatureAllTheSame) {
  const auto record = record_of("x");
  record->sig = 1;
  EXPECT_EQ(0, level_of("Writing to audit buffer without a proper signature",
                        [&] { write_to_audit_buffer(record.get()); }));
  EXPECT_GT(global_read_audit_buffer->num_records, 0U);
}

TEST_F(AuditBuffer, WithoutMemoryHasNoBuffer) {
  TearDown();
  EXPECT_EQ(0, level_of("Unable to allocate buffer for auditing", [] {
              fail_call("calloc", ENOMEM);
              init_audit_buffer();
              EXPECT_EQ(nullptr, global_read_audit_buffer);
            }));
}

TEST_F(AuditBuffer, RunsAsRootForAUserAndGivesItBack) {
  ASSERT_EQ(0, chmod(kDir, 0700));
  append("one");
  const Outcome outcome = in_child([] {
    become_samba_user(1000, 1000);
    const Ids before = ids_now();
    EXPECT_EQ(0, flush_audit_buffer());
    EXPECT_TRUE(before == ids_now());
    append("two");
    std::strcpy(global_params[PARAM_AUDITING_DIR].value.strval, "/none");
    EXPECT_EQ(-1, flush_audit_buffer());
    EXPECT_TRUE(before == ids_now());
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
  EXPECT_EQ(Payloads{"one"}, dumped());
}

// --- every error path ----------------------------------------------------------------------------

TEST_F(AuditBuffer, NeedsItsFolder) {
  append("one");
  remove_all(kDir);
  EXPECT_EQ(0, level_of("missing auditing directory /scratch/audit",
                        [] { EXPECT_EQ(-1, flush_audit_buffer()); }));
  EXPECT_EQ(Payloads{"one"}, kept());
}

TEST_F(AuditBuffer, NeedsATemporaryFile) {
  append("one");
  set_debug_level(0);
  fail_call("mkostemp", EMFILE);
  EXPECT_EQ(-1, flush_audit_buffer());
  EXPECT_TRUE(told("cannot openfile /scratch/audit/adtemp")) << messages()[0];
  fail_call("malloc", ENOMEM);
  EXPECT_EQ(-1, flush_audit_buffer());
  EXPECT_TRUE(logged("Out of memory for creating tmpfname"));
  EXPECT_EQ(Payloads{"one"}, kept());
}

TEST_F(AuditBuffer, LeavesItsTemporaryFileBesideADumpOfItsName) {
  append("one");
  set_debug_level(0);
  // The time in the next dump's name cannot be predicted. The path of this folder is so long that
  // the name of every dump is cut to the folder's own, which is taken.
  const std::string deep = std::string(kDir) + "/" + std::string(240, 'd');
  make_dirs(deep);
  std::strcpy(global_params[PARAM_AUDITING_DIR].value.strval, deep.c_str());
  write_file(deep + "/" + "x", "");
  const std::string cut = (deep + "/pending_" + std::to_string(getpid()) + "_").substr(0, 255);
  if (cut != deep) write_file(cut == deep + "/" ? deep + "/x" : cut, "");
  EXPECT_EQ(-1, flush_audit_buffer());
  EXPECT_TRUE(told("dump file ")) << messages()[0];
  bool left = false;
  for (const auto& name : list(deep)) left |= name.starts_with("adtemp");
  EXPECT_TRUE(left);
  EXPECT_EQ(Payloads{"one"}, kept());
}

TEST_F(AuditBuffer, KeepsItsRecordsAfterAShortWrite) {
  append("one");
  const auto attempt = [] {
    cut_short("write", 3);
    EXPECT_EQ(-1, flush_audit_buffer());
  };
  EXPECT_EQ(4, level_of("staging buffer could not finish write", attempt));
  EXPECT_EQ(Payloads{"one"}, kept());
}

TEST_F(AuditBuffer, LosesItsRecordsWhenTheNameIsRefused) {
  append("one");
  set_debug_level(0);
  fail_call("rename", EROFS);
  EXPECT_EQ(0, flush_audit_buffer());
  EXPECT_TRUE(told("cannot rename /scratch/audit/adtemp"));
  EXPECT_TRUE(list(kDir).empty());
  EXPECT_TRUE(kept().empty());
}

TEST_F(AuditBuffer, LinksItsDumpForTheHistoryBeforeItsName) {
  make_dirs(kHistory);
  append("one");
  run_before("rename", [] { EXPECT_EQ(1U, list(kHistory).size()); });
  EXPECT_EQ(0, flush_audit_buffer());
  ASSERT_EQ(1U, list(kDir).size());
  EXPECT_EQ(std::vector<std::string>{"audit.audit." + list(kDir).at(0)}, list(kHistory));
  EXPECT_EQ(Payloads{"one"}, payloads_of(read_file(kHistory + ("/" + list(kHistory).at(0)))));
}

TEST_F(AuditBuffer, LeavesItsRecordsToTheHistoryWhenTheNameIsRefused) {
  make_dirs(kHistory);
  append("one");
  fail_call("rename", EROFS);
  EXPECT_EQ(0, flush_audit_buffer());
  EXPECT_TRUE(list(kDir).empty());
  EXPECT_EQ(1U, list(kHistory).size());
}

TEST_F(AuditBuffer, GoesOnAfterAFailedFlush) {
  append(std::string(3000, 'a'));
  remove_all(kDir);
  set_debug_level(0);
  append("b");
  EXPECT_TRUE(told("Failed to flush audit buffer. errno = "));
  EXPECT_EQ((Payloads{std::string(3000, 'a'), "b"}), kept());
  make_dirs(kDir);
  append("c");
  EXPECT_EQ((Payloads{std::string(3000, 'a'), "b"}), dumped());
}

TEST_F(AuditBuffer, IsTraced) {
  set_debug_level(8);
  clear_log();
  append("x");
  EXPECT_TRUE(told("audit: last flush time "));
  flush_audit_buffer();
  EXPECT_TRUE(told("flush_audit_buffer: writing to /scratch/audit/adtemp"));
}

}  // namespace
}  // namespace tavrix::test
