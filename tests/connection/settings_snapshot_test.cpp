// SPDX-License-Identifier: LGPL-3.0-or-later
// The private copy of the settings that a server process works with.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <cerrno>

#include "eventstore.h"
#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

class Snapshot : public Isolated {
 protected:
  static int segment() { return shmget(ftok("/dev/null", 3456), 0, 0); }
};

TEST_F(Snapshot, IsAPrivateCopy) {
  ASSERT_EQ(0, create_config_buffer());
  global_param_s* shared = global_params;
  shared[PARAM_FLUSH_PERIOD].value.intval = 30;
  EXPECT_EQ(0, read_tavrix_config());
  EXPECT_NE(shared, global_params);
  EXPECT_EQ(30, global_params[PARAM_FLUSH_PERIOD].value.intval);
  shared[PARAM_FLUSH_PERIOD].value.intval = 31;
  EXPECT_EQ(30, global_params[PARAM_FLUSH_PERIOD].value.intval);
  EXPECT_EQ(0, read_tavrix_config());
  EXPECT_EQ(31, global_params[PARAM_FLUSH_PERIOD].value.intval);
}

TEST_F(Snapshot, MakesAnEmptyBlockWhenItComesFirst) {
  no_parameter_block();
  EXPECT_EQ(0, read_tavrix_config());
  struct shmid_ds info {};
  ASSERT_EQ(0, shmctl(segment(), IPC_STAT, &info));
  EXPECT_EQ(19760U, info.shm_segsz);
  EXPECT_EQ(0666, info.shm_perm.mode & 0777);
  EXPECT_EQ(0U, info.shm_nattch);
  EXPECT_EQ(0, global_params[PARAM_DEBUG_LEVEL].value.intval);
}

TEST_F(Snapshot, IsTold) {
  ASSERT_EQ(0, create_config_buffer());
  global_params[PARAM_DEBUG_LEVEL].value.intval = 5;
  clear_log();
  read_tavrix_config();
  EXPECT_TRUE(logged("tavrix:read_tavrix_config have read tavrix config\n"));
}

TEST_F(Snapshot, Failures) {
  no_parameter_block();
  fail_call("realloc", ENOMEM);
  fail_call("malloc", ENOMEM);  // compilers turn the first realloc() into this
  EXPECT_EQ(-1, read_tavrix_config());
  EXPECT_EQ(nullptr, global_params);
  EXPECT_TRUE(logged("could not allocate global_params buffer\n"));
  fail_call("realloc", 0, 1, 0);
  fail_call("malloc", 0, 1, 0);
  fail_call("ftok", ENOENT);
  EXPECT_EQ(-1, read_tavrix_config());
  EXPECT_TRUE(logged("cannot create sema key for shm. errno = 2(No such file or directory)\n"));
  fail_call("shmget", ENOSPC);
  EXPECT_EQ(-1, read_tavrix_config());
  EXPECT_TRUE(logged(
      "cannot create shared memory for global param. errno = 28(No space left on device)\n"));
  fail_call("shmat", EACCES);
  EXPECT_EQ(-1, read_tavrix_config());
  EXPECT_TRUE(logged("cannot attach to shm. errno = 13(Permission denied)\n"));
}

}  // namespace
}  // namespace tavrix::test
