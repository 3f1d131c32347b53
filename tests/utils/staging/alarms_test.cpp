// SPDX-License-Identifier: LGPL-3.0-or-later
// The files that tell the synchronisation agent of lost events.

#include <sys/stat.h>
#include <cerrno>

#include "tests/support/fail_call.hpp"
#include "tests/support/staging.hpp"

namespace tavrix::test {
namespace {

class Alarms : public Isolated {};

TEST_F(Alarms, AreOnTheDiskWithTheirNames) {
  make_dirs("/tavrix/.conf");
  reset_calls();
  write_sync_off();
  EXPECT_EQ(2, calls("fsync"));  // the file and its folder
  mark_event_db_as_rescan_needed("x");
  EXPECT_EQ(4, calls("fsync"));
}

TEST_F(Alarms, CountAsMadeWhenTheDiskCannotSync) {
  make_dirs("/tavrix/.conf");
  fail_call("fsync", EIO, 1, 9);
  EXPECT_EQ(0, write_sync_off());
  EXPECT_EQ(0, mark_event_db_as_rescan_needed("x"));
}

TEST_F(Alarms, SyncOffIsWrittenOverWhatIsThere) {
  make_dirs("/tavrix/.conf");
  write_file("/tavrix/.conf/sync.off", std::string(40, 'o'));
  EXPECT_EQ(
      0, level_of("/tavrix/.conf/sync.off file created.", [] { EXPECT_EQ(0, write_sync_off()); }));
  EXPECT_EQ("Failed to write event." + std::string(18, 'o'), read_file("/tavrix/.conf/sync.off"));
}

TEST_F(Alarms, SyncOffCannotBeMadeWithoutItsFolder) {
  EXPECT_EQ(0,
            level_of("Creation of /tavrix/.conf/sync.off failed with 2(No such file or directory)",
                     [] { EXPECT_EQ(ENOENT, write_sync_off()); }));
}

TEST_F(Alarms, RescanHoldsItsReasonAndANul) {
  make_dirs("/tavrix/.conf");
  EXPECT_EQ(0, mark_event_db_as_rescan_needed("because"));
  EXPECT_EQ(std::string("because\0", 8), read_file("/tavrix/.conf/tavrix_event_status.dirty"));
  struct stat info {};
  stat("/tavrix/.conf/tavrix_event_status.dirty", &info);
  EXPECT_EQ(0744U, info.st_mode & 0777);
}

TEST_F(Alarms, RescanFailures) {
  const std::string rest =
      " event status file '/tavrix/.conf/tavrix_event_status.dirty' to mark rescan needed (-1). "
      "errno = ";
  EXPECT_EQ(0, level_of("Cannot open" + rest + "2(No such file or directory)",
                        [] { EXPECT_EQ(-1, mark_event_db_as_rescan_needed("x")); }));
  make_dirs("/tavrix/.conf");
  EXPECT_EQ(0, level_of("Cannot write" + rest + "28(No space left on device)", [] {
              fail_call("write", ENOSPC);
              EXPECT_EQ(-1, mark_event_db_as_rescan_needed("x"));
            }));
  EXPECT_EQ(0, level_of("Close of event status file '/tavrix/.conf/tavrix_event_status.dirty' "
                        "failed. errno = 5(Input/output error)",
                        [] {
                          fail_call("close", EIO);
                          EXPECT_EQ(-1, mark_event_db_as_rescan_needed("x"));
                        }));
}

}  // namespace
}  // namespace tavrix::test
