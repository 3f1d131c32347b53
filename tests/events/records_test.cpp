// SPDX-License-Identifier: LGPL-3.0-or-later
// Event and audit records: stamping, framing, what is dropped.

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>

#include "internal/scoped.hpp"
#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"
#include "vfs_common.h"

namespace tavrix::test {
namespace {

using Record = Malloced<staging_data_s>;

VFSEvent event(const char* path = "Shared/a.txt", uid_t uid = 1001) {
  VFSEvent event = VFSEVENT__INIT;
  event.path = const_cast<char*>(path);
  event.uid = uid;
  event.optype = VFSEVENT__OP_TYPE__OPTYPE_CLOSE;
  event.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE;
  return event;
}

AuditEvent audit(const char* path = "Shared/a.txt", uid_t uid = 1001) {
  AuditEvent event = AUDIT_EVENT__INIT;
  event.path = const_cast<char*>(path);
  event.uid = uid;
  event.size = 5000000000ULL;
  return event;
}

const uint8_t* payload(const staging_data_s& record) {
  return reinterpret_cast<const uint8_t*>(&record + 1);
}

TEST(EventNumbers, AreTheAgents) {
  EXPECT_EQ(0, VFSEVENT__OP_TYPE__OPTYPE_CONNECT);
  EXPECT_EQ(1, VFSEVENT__OP_TYPE__OPTYPE_DISCONNECT);
  EXPECT_EQ(2, VFSEVENT__OP_TYPE__OPTYPE_OPENDIR);
  EXPECT_EQ(3, VFSEVENT__OP_TYPE__OPTYPE_MKDIR);
  EXPECT_EQ(4, VFSEVENT__OP_TYPE__OPTYPE_RMDIR);
  EXPECT_EQ(5, VFSEVENT__OP_TYPE__OPTYPE_OPEN);
  EXPECT_EQ(6, VFSEVENT__OP_TYPE__OPTYPE_CLOSE);
  EXPECT_EQ(7, VFSEVENT__OP_TYPE__OPTYPE_RENAME);
  EXPECT_EQ(8, VFSEVENT__OP_TYPE__OPTYPE_UNLINK);
  EXPECT_EQ(9, VFSEVENT__OP_TYPE__OPTYPE_CHMOD);
  EXPECT_EQ(10, VFSEVENT__OP_TYPE__OPTYPE_CREATE);
  EXPECT_EQ(0, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE);
  EXPECT_EQ(1, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR);
}

TEST(Frame, IsAllocatedSigned) {
  const Record record(alloc_staging_data(5));
  EXPECT_EQ(13U, record->size);
  EXPECT_EQ(0x04012010U, record->sig);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(0, payload(*record)[i]);
}

TEST(Frame, OfNothingIsNone) {
  EXPECT_EQ(nullptr, alloc_staging_data(0));
  EXPECT_EQ(nullptr, alloc_staging_data(-1));
  fail_call("malloc", ENOMEM);
  EXPECT_EQ(nullptr, alloc_staging_data(5));
}

TEST(Event, IsStampedBeforeItIsSent) {
  VFSEvent ve = event();
  timeval before{};
  gettimeofday(&before, nullptr);
  EXPECT_EQ(0, pop_vfs_event(&ve, 1234));
  EXPECT_EQ(1234U, ve.uid);
  EXPECT_EQ(getpid(), ve.client_pid);
  EXPECT_GE(ve.time_sec, before.tv_sec);
  EXPECT_LE(ve.time_sec, before.tv_sec + 1);
  EXPECT_GE(ve.time_usec, 0);
  EXPECT_LT(ve.time_usec, 1000000);
}

TEST(Event, TellsItsStamp) {
  VFSEvent ve = event();
  set_debug_level(0);
  clear_log();
  pop_vfs_event(&ve, 1234);
  const std::string expected = "pop_vfs_event: Time stamp=" + std::to_string(ve.time_sec) +
                               "(secs) " + std::to_string(ve.time_usec) +
                               "(msecs) uid=1234 path=Shared/a.txt";
  EXPECT_TRUE(logged(expected)) << (messages().empty() ? "" : messages()[0]);
}

TEST(Event, IsFramedByItsPackedLength) {
  VFSEvent ve = event();
  const Record record(create_staging_data_buf(&ve));
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(vfsevent__get_packed_size(&ve), record->size);
  EXPECT_EQ(0x04012010U, record->sig);
}

TEST(Event, ComesBackWithEveryField) {
  VFSEvent ve = event("Shared/\xc3\xa9\xff", 42);
  ve.rename_path = const_cast<char*>("Shared/b");
  ve.tavrix_user = const_cast<char*>("anna");
  pop_vfs_event(&ve, 42);
  const Record record(create_staging_data_buf(&ve));
  VFSEvent* back = vfsevent__unpack(nullptr, record->size, payload(*record));
  ASSERT_NE(nullptr, back);
  EXPECT_EQ(ve.client_pid, back->client_pid);
  EXPECT_STREQ(ve.path, back->path);
  EXPECT_EQ(42U, back->uid);
  EXPECT_STREQ("Shared/b", back->rename_path);
  EXPECT_EQ(VFSEVENT__OP_TYPE__OPTYPE_CLOSE, back->optype);
  EXPECT_EQ(ve.time_sec, back->time_sec);
  EXPECT_EQ(ve.time_usec, back->time_usec);
  EXPECT_STREQ("anna", back->tavrix_user);
  vfsevent__free_unpacked(back, nullptr);
}

// The bytes, field by field, as a reader of the protocol finds them.
TEST(Event, HasItsFieldNumbersOnTheWire) {
  VFSEvent ve = event("p", 3);
  ve.client_pid = 2;
  ve.time_sec = 5;
  ve.time_usec = 6;
  ve.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR;
  const Record record(create_staging_data_buf(&ve));
  const uint8_t expected[] = {0x08, 2, 0x12, 1, 'p', 0x18, 3, 0x28, 6, 0x30, 5, 0x38, 6, 0x40, 1};
  ASSERT_EQ(sizeof expected, record->size);
  EXPECT_EQ(0, std::memcmp(expected, payload(*record), sizeof expected));
  ve.rename_path = const_cast<char*>("r");
  ve.tavrix_user = const_cast<char*>("u");
  const Record longer(create_staging_data_buf(&ve));
  EXPECT_EQ(sizeof expected + 6, longer->size);
}

TEST(Event, OfRootAndTheReservedUserIsDropped) {
  set_reserved_user_uid(77);
  for (const uid_t uid : {0U, 77U}) {
    VFSEvent ve = event("some/path", uid);
    // The message says pid and prints the user.
    EXPECT_EQ(0, level_of("Ignoring reserved user events [some/path] pid " + std::to_string(uid),
                          [&] { EXPECT_EQ(nullptr, create_staging_data_buf(&ve)); }));
    EXPECT_EQ(-1, send_modify_vfs_event(&ve));
  }
  VFSEvent other = event("x", 78);
  EXPECT_NE(nullptr, Record(create_staging_data_buf(&other)));
}

TEST(Event, OfNothingIsNone) {
  EXPECT_EQ(0, level_of("vfsevent is null",
                        [] { EXPECT_EQ(nullptr, create_staging_data_buf(nullptr)); }));
  EXPECT_EQ(
      0, level_of("vfsevent is null", [] { EXPECT_EQ(nullptr, create_audit_data_buf(nullptr)); }));
  EXPECT_EQ(-1, send_modify_vfs_event(nullptr));
}

TEST(Event, WithoutMemoryIsNone) {
  const auto attempt = [] {
    VFSEvent ve = event();
    fail_call("malloc", ENOMEM);
    EXPECT_EQ(nullptr, create_staging_data_buf(&ve));
  };
  EXPECT_EQ(0, level_of("could not allocate event staging data. errno = 12(Cannot allocate memory)",
                        attempt));
  const auto attempt_audit = [] {
    AuditEvent ae = audit();
    fail_call("malloc", ENOMEM);
    EXPECT_EQ(nullptr, create_audit_data_buf(&ae));
  };
  EXPECT_EQ(0, level_of("could not allocate audit staging data. errno = 12(Cannot allocate memory)",
                        attempt_audit));
}

TEST(Event, IsTraced) {
  VFSEvent ve = event();
  const auto size = std::to_string(vfsevent__get_packed_size(&ve));
  EXPECT_EQ(10, level_of("event " + size + " [Shared/a.txt]",
                         [&] { Record(create_staging_data_buf(&ve)); }));
  AuditEvent ae = audit();
  const auto audit_size = std::to_string(audit_event__get_packed_size(&ae));
  EXPECT_EQ(10, level_of("audit " + audit_size + " [Shared/a.txt]",
                         [&] { Record(create_audit_data_buf(&ae)); }));
}

TEST(Event, SurvivesTheRoundTripWithAnyBytes) {
  std::mt19937 random(9);
  for (int round = 0; round < 2000; ++round) {
    std::string path(1 + random() % 300, 'x');
    for (char& c : path) c = static_cast<char>(1 + random() % 255);
    VFSEvent ve = event(path.c_str(), static_cast<uid_t>(random() | 1U));
    ve.time_sec = static_cast<int>(random());
    const Record record(create_staging_data_buf(&ve));
    if (record == nullptr) continue;
    VFSEvent* back = vfsevent__unpack(nullptr, record->size, payload(*record));
    ASSERT_NE(nullptr, back);
    ASSERT_STREQ(path.c_str(), back->path);
    ASSERT_EQ(ve.uid, back->uid);
    ASSERT_EQ(ve.time_sec, back->time_sec);
    vfsevent__free_unpacked(back, nullptr);
  }
}

TEST(Audit, IsStampedAndComesBack) {
  AuditEvent ae = audit();
  ae.ip_address = const_cast<char*>("10.0.0.1");
  EXPECT_EQ(0, pop_audit_event(&ae));
  const Record record(create_audit_data_buf(&ae));
  AuditEvent* back = audit_event__unpack(nullptr, record->size, payload(*record));
  ASSERT_NE(nullptr, back);
  EXPECT_STREQ("10.0.0.1", back->ip_address);
  EXPECT_EQ(5000000000ULL, back->size);
  EXPECT_EQ(ae.time_sec, back->time_sec);
  audit_event__free_unpacked(back, nullptr);
}

TEST(Audit, TellsItsStampLate) {
  AuditEvent ae = audit();
  set_debug_level(10);
  clear_log();
  pop_audit_event(&ae);
  EXPECT_TRUE(logged("pop_audit_event: Time stamp=" + std::to_string(ae.time_sec) +
                     "(secs) uid=1001 path=Shared/a.txt"));
}

TEST(Audit, OfRootIsDroppedWithTheProcess) {
  AuditEvent ae = audit("p", 0);
  EXPECT_EQ(5, level_of("Ignoring reserved user events [p] pid " + std::to_string(getpid()),
                        [&] { EXPECT_EQ(nullptr, create_audit_data_buf(&ae)); }));
}

TEST(Audit, IsSentForItsUser) {
  AuditEvent ae = audit("p", 5);
  EXPECT_EQ(-1, send_audit_vfs_event(&ae, 0));
  EXPECT_EQ(0U, ae.uid);
  EXPECT_EQ(0, send_audit_vfs_event(&ae, 1001));  // the append's result is ignored on purpose
  EXPECT_EQ(1, level_of("send_audit_vfs_event: send audit event",
                        [&] { send_audit_vfs_event(&ae, 1001); }));
}

TEST(Protobuf, GeneratedCodeIsCurrent) {
  const std::string events = TAVRIX_SOURCE_DIR "/events";
  for (const char* name : {"samba", "audit_events"}) {
    const Outcome outcome = in_child([&] {
      enter_private_world();
      const Outcome made = run_program({"protoc-c", "--c_out=/scratch", "--proto_path=" + events,
                                        events + "/" + name + ".proto"});
      ASSERT_TRUE(made.ok()) << made.err;
      for (const char* end : {".pb-c.c", ".pb-c.h"}) {
        EXPECT_EQ(read_file(events + "/generated/" + name + end),
                  read_file(std::string("/scratch/") + name + end));
      }
    });
    EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  }
}

}  // namespace
}  // namespace tavrix::test
