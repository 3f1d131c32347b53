// SPDX-License-Identifier: LGPL-3.0-or-later
// Owners of raw resources.

#include "internal/scoped.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <cerrno>
#include <string>

#include "tests/support/fail_call.hpp"

namespace tavrix::test {
namespace {

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }
int some_fd() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

TEST(Scoped, ClosesAtTheEndAndKeepsErrno) {
  const int fd = some_fd();
  errno = ENOSPC;
  { const Fd owner(fd); }
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_FALSE(is_open(fd));
  fail_call("close", EIO);
  errno = ENOSPC;
  { const Fd owner(some_fd()); }
  EXPECT_EQ(ENOSPC, errno);
}

TEST(Scoped, IsEmptyByTheFailureValueOfItsCall) {
  reset_calls();
  {
    const Fd none(-1);
    const ShmAttachment nowhere(reinterpret_cast<void*>(-1));
    EXPECT_FALSE(none);
    EXPECT_FALSE(nowhere);
    EXPECT_TRUE(Fd(some_fd()));
  }
  EXPECT_EQ(1, calls("close"));
  EXPECT_EQ(0, calls("shmdt"));
}

TEST(Scoped, IsEmptiedByAMoveAndByARelease) {
  Fd first(some_fd());
  const int fd = first.get();
  Fd second(std::move(first));
  EXPECT_FALSE(first);
  EXPECT_EQ(fd, second.get());
  EXPECT_EQ(fd, second.release());
  EXPECT_FALSE(second);
  EXPECT_TRUE(is_open(fd));
  close(fd);
}

TEST(Scoped, ClosesTheOldHandleForANewOne) {
  Fd owner(some_fd());
  const int old = owner.get();
  Fd other(some_fd());
  const int fresh = other.get();
  owner = std::move(other);
  EXPECT_EQ(fresh, owner.get());
  EXPECT_FALSE(is_open(old));
  EXPECT_TRUE(is_open(fresh));
}

TEST(Malloced, FreesAndKeepsErrno) {
  const long before = live_allocations();
  errno = ENOSPC;
  { const CString text(strdup("x")); }
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_EQ(before, live_allocations());
}

TEST(Malloced, RecordIsZeroOrNone) {
  struct Record {
    char bytes[200];
  };
  const Malloced<Record> record(malloc_zeroed<Record>());
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(std::string(200, '\0'), std::string(record->bytes, 200));
  fail_call("malloc", ENOMEM);
  fail_call("calloc", ENOMEM);  // compilers may turn the two steps into this
  EXPECT_EQ(nullptr, malloc_zeroed<Record>());
}

}  // namespace
}  // namespace tavrix::test
