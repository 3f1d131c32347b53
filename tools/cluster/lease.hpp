// SPDX-License-Identifier: LGPL-3.0-or-later
// The lease (lease.h) as its writer has it.
#pragma once

#include <sys/mman.h>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/cluster/lease.h"

namespace tavrix::cluster {

// Nanoseconds of the clock of leases.
[[nodiscard]] int64_t lease_clock();

// Until when this node may serve; nothing when there is no lease, or one of another layout.
[[nodiscard]] std::optional<int64_t> lease_end(const std::string& path = TAVRIX_LEASE_FILE);

class Lease {
 public:
  explicit Lease(std::string path = TAVRIX_LEASE_FILE) : path_(std::move(path)) {}
  ~Lease() { unmap(); }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  // This node may serve until then. An earlier end is not brought forward. False with errno.
  [[nodiscard]] bool extend(int64_t until);

 private:
  [[nodiscard]] bool open();
  [[nodiscard]] bool is_in_place() const;
  void unmap();

  std::string path_;
  tavrix_lease* lease_ = nullptr;
  uint64_t inode_ = 0;
};

}  // namespace tavrix::cluster
