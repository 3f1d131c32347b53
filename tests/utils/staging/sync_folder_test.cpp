// SPDX-License-Identifier: LGPL-3.0-or-later
// The names in a folder, put on the disk.

#include "utils/staging/sync_folder.hpp"

#include <gtest/gtest.h>
#include <cerrno>

#include "tests/support/fail_call.hpp"
#include "tests/support/isolated.hpp"

namespace tavrix::test {
namespace {

class SyncFolder : public Isolated {};

TEST_F(SyncFolder, SyncsOnce) {
  reset_calls();
  sync_folder("/scratch");
  EXPECT_EQ(1, calls("fsync"));
  EXPECT_EQ(1, calls("close"));
}

TEST_F(SyncFolder, KeepsErrnoWhateverComes) {
  errno = EAGAIN;
  sync_folder("/none");
  EXPECT_EQ(EAGAIN, errno);
  fail_call("fsync", EIO);
  sync_folder("/scratch");
  EXPECT_EQ(EAGAIN, errno);
}

}  // namespace
}  // namespace tavrix::test
