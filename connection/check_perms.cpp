// SPDX-License-Identifier: LGPL-3.0-or-later
// The permission check of a connection: the verdict comes from its cache, or from the decision.

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "connection/check_perms.hpp"
#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "perm_enforcer.h"
#include "tavrix_vfs_utils.h"

namespace tavrix {
namespace {

constexpr int kTrace = 10;

bool is_answer(e_vfs_enforce_perms verdict) {
  return verdict == TXPERMS_NO_PERM || verdict == TXPERMS_HAS_PERMS;
}

e_vfs_enforce_perms unusable_path(const char* path, int error) {
  if (error == ENOMEM) {
    TAVRIX_LOG(0, "path normalization failed %s: %s\n", path, strerror(error));
    return TXPERMS_MALLOC_ERR;
  }
  if (error != ENOENT) {
    TAVRIX_LOG(0, "path normalization failed for %s: code=%d (%s)\n", path != nullptr ? path : "",
               error, strerror(error));
    TAVRIX_REQUIRE(error == ENOENT, "0");
  }
  // The path climbs above the share; the file system refuses it later.
  TAVRIX_LOG(kTrace, "returning HAS_PERMS, path normalization returned an unusable path %s: %s\n",
             path, strerror(error));
  return TXPERMS_HAS_PERMS;
}

// Keeps grants and refusals. Errors and the standard user's verdict are not kept, so the next check
// decides again.
void remember(const char* clean, e_fsop_type op, e_vfs_enforce_perms verdict,
              e_vfs_enforce_perms looked_up, int slot, vfs_table_cache_s& cache) {
  if (!is_answer(verdict)) return;
  switch (looked_up) {
    case TXPERMS_NOT_FOUND:
      TAVRIX_LOG(kTrace, "TLB: Adding entry for %s, op %d, perms %d, slot %d\n", clean,
                 static_cast<int>(op), static_cast<int>(verdict), slot);
      add_tlb_entry(clean, slot, op, verdict, &cache);
      return;
    case TXPERMS_NOT_SET:
      TAVRIX_LOG(kTrace, "TLB: Updating entry for %s, op %d, perms %d, slot %d\n", clean,
                 static_cast<int>(op), static_cast<int>(verdict), slot);
      update_tlb_entry(slot, op, verdict, &cache);
      return;
    default:
      TAVRIX_REQUIRE(false, "0");
  }
}

}  // namespace

std::optional<e_vfs_enforce_perms> verdict_on_account(const connection_private_data_s& connection,
                                                      Observer* observer) {
  const bool is_computer = connection.groupmap.is_computer_acct != 0;
  if (!is_computer && connection.reserved_user == 0) return std::nullopt;
  if (observer != nullptr)
    observer->on_ground(is_computer ? Ground::kComputerAccount : Ground::kReservedUser);
  return is_computer ? TXPERMS_NO_PERM : TXPERMS_HAS_PERMS;
}

e_vfs_enforce_perms verdict_on_clean(const char* shareroot, const char* clean, e_fsop_type op,
                                     connection_private_data_s& connection, int force_path_type) {
  if (const auto ruled = verdict_on_account(connection); ruled) return *ruled;
  const CString full(get_full_path(shareroot, clean));
  if (full == nullptr) return TXPERMS_MALLOC_ERR;
  TAVRIX_LOG(1, "Calling vfs_enforce_perms path=(%s) op=(%d), full_path=[%s]\n", clean,
             static_cast<int>(op), full.get());
  int is_nav = 0;
  const e_vfs_enforce_perms verdict =
      vfs_enforce_perms(shareroot, full.get(), op, &connection.groupmap, force_path_type, &is_nav);
  TAVRIX_LOG(kTrace, "tavrix_%s: vfs_enforce_perms retval=%d\n", "check_perms",
             static_cast<int>(verdict));
  return verdict;
}

e_vfs_enforce_perms verdict_on(const char* shareroot, const char* path, e_fsop_type op,
                               connection_private_data_s& connection, int force_path_type) {
  if (connection.groupmap.is_computer_acct != 0) return TXPERMS_NO_PERM;
  errno = 0;
  const CString clean(normalize_path(path));
  if (clean == nullptr) return unusable_path(path, errno);
  return verdict_on_clean(shareroot, clean.get(), op, connection, force_path_type);
}

}  // namespace tavrix

e_vfs_enforce_perms check_perms(const char* shareroot, const char* path, e_fsop_type op,
                                connection_private_data_s* connection, int force_path_type) {
  if (connection->groupmap.is_computer_acct != 0) {
    TAVRIX_LOG(tavrix::kTrace, "tavrix_%s TXPERMS_NO_PERM\n", __func__);
    return TXPERMS_NO_PERM;
  }
  errno = 0;
  const tavrix::CString clean(normalize_path(path));
  if (clean == nullptr) return tavrix::unusable_path(path, errno);

  vfs_table_cache_s& cache = connection->vfs_table_cache;
  int slot = -1;
  const e_vfs_enforce_perms cached = check_tlb(clean.get(), op, &slot, &cache);
  if (tavrix::is_answer(cached)) {
    TAVRIX_LOG(tavrix::kTrace, "TLB: Cache hit for %s, op %d, perms %d, slot %d\n", clean.get(),
               static_cast<int>(op), static_cast<int>(cached), slot);
    return cached;
  }
  const e_vfs_enforce_perms verdict =
      tavrix::verdict_on_clean(shareroot, clean.get(), op, *connection, force_path_type);
  tavrix::remember(clean.get(), op, verdict, cached, slot, cache);
  return verdict;
}
