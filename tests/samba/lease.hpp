// SPDX-License-Identifier: LGPL-3.0-or-later
// The lease of a node of a cluster, as its daemon writes it, in a private /run.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>
#include <cstring>
#include <ctime>

#include "internal/scoped.hpp"
#include "tests/support/files.hpp"
#include "tools/cluster/lease.h"

namespace tavrix::test {

inline void make_private_run() {
  ASSERT_EQ(0, mount("tmpfs", "/run", "tmpfs", 0, "mode=0755"));
  make_dirs("/run/tavrix");
}

// The lease ends so many seconds from now; its file stays the same.
inline void lease_for(int64_t seconds) {
  constexpr int64_t kSecond = 1'000'000'000;
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  tavrix_lease lease{
      {}, TAVRIX_LEASE_VERSION, sizeof lease, (now.tv_sec + seconds) * kSecond + now.tv_nsec};
  memcpy(lease.magic, TAVRIX_LEASE_MAGIC, sizeof lease.magic);
  const Fd file(open(TAVRIX_LEASE_FILE, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_EQ(static_cast<ssize_t>(sizeof lease), pwrite(file.get(), &lease, sizeof lease, 0));
}

}  // namespace tavrix::test
