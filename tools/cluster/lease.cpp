// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/lease.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

#include "internal/scoped.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/files/durable.hpp"

namespace tavrix::cluster {
namespace {

static_assert(sizeof(tavrix_lease) == 24 && offsetof(tavrix_lease, version) == 8 &&
              offsetof(tavrix_lease, size) == 12 && offsetof(tavrix_lease, until) == 16);
static_assert(std::atomic_ref<int64_t>::is_always_lock_free);
static_assert(std::string_view(kLease) == TAVRIX_LEASE_FILE);

tavrix_lease empty_lease() {
  tavrix_lease lease{};
  std::memcpy(lease.magic, TAVRIX_LEASE_MAGIC, sizeof lease.magic);
  lease.version = TAVRIX_LEASE_VERSION;
  lease.size = sizeof lease;
  return lease;
}

bool has_layout(const tavrix_lease& lease) {
  const tavrix_lease wanted = empty_lease();
  return std::memcmp(&lease, &wanted, offsetof(tavrix_lease, until)) == 0;
}

std::optional<tavrix_lease> read_lease(const std::string& path) {
  const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  tavrix_lease lease{};
  if (!file || read(file.get(), &lease, sizeof lease) != sizeof lease) return std::nullopt;
  if (!has_layout(lease)) return std::nullopt;
  return lease;
}

bool make_lease(const std::string& path) {
  const std::string folder = files::folder_of(path);
  if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) return false;
  const tavrix_lease lease = empty_lease();
  const std::string_view bytes(reinterpret_cast<const char*>(&lease), sizeof lease);
  return files::replace(path, bytes, 0644);
}

uint64_t inode_of(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

}  // namespace

int64_t lease_clock() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

std::optional<int64_t> lease_end(const std::string& path) {
  const auto lease = read_lease(path);
  if (!lease) return std::nullopt;
  return lease->until;
}

// A lease that is there is kept: server processes have it mapped.
bool Lease::open() {
  unmap();
  if (!read_lease(path_) && !make_lease(path_)) return false;
  const Fd file(::open(path_.c_str(), O_RDWR | O_CLOEXEC));
  if (!file) return false;
  void* address =
      mmap(nullptr, sizeof(tavrix_lease), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (address == MAP_FAILED) return false;
  lease_ = static_cast<tavrix_lease*>(address);
  inode_ = inode_of(path_);
  return true;
}

bool Lease::is_in_place() const { return lease_ != nullptr && inode_ == inode_of(path_); }

void Lease::unmap() {
  if (lease_ != nullptr) munmap(lease_, sizeof *lease_);
  lease_ = nullptr;
}

bool Lease::extend(int64_t until) {
  if (!is_in_place() && !open()) return false;
  const std::atomic_ref<int64_t> end(lease_->until);
  if (until > end.load()) end.store(until);
  return true;
}

}  // namespace tavrix::cluster
