// SPDX-License-Identifier: LGPL-3.0-or-later
// Decisions about the entries of a folder, for listings.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "perm_enforcer.h"
#include "tavrix_session.h"
#include "tavrix_utils.h"
#include "tavrix_vfs_utils.h"

namespace tavrix {
namespace {

e_vfs_enforce_perms verdict_on(const char* share_root, const char* folder, e_fsop_type op,
                               connection_private_data_s& connection, const tavrix_entry_s& entry) {
  if (entry.name == nullptr) return TXPERMS_INVALID_ARGS;
  if (connection.groupmap.is_computer_acct != 0) return TXPERMS_NO_PERM;
  const CString path(get_full_path(folder, entry.name));
  if (path == nullptr) return TXPERMS_MALLOC_ERR;
  errno = 0;
  const CString clean(normalize_path(path.get()));
  if (clean == nullptr) return errno == ENOMEM ? TXPERMS_MALLOC_ERR : TXPERMS_HAS_PERMS;
  if (connection.reserved_user != 0) return TXPERMS_HAS_PERMS;
  const CString full(get_full_path(share_root, clean.get()));
  if (full == nullptr) return TXPERMS_MALLOC_ERR;
  int is_nav = 0;
  return vfs_enforce_perms(share_root, full.get(), op, &connection.groupmap, entry.path_type,
                           &is_nav);
}

}  // namespace
}  // namespace tavrix

int tavrix_decide_entries(const char* share_root, const char* folder, e_fsop_type op,
                          connection_private_data_s* connection, tavrix_entry_s* entries,
                          size_t stride, size_t count) {
  if (share_root == nullptr || folder == nullptr || connection == nullptr || entries == nullptr ||
      stride < sizeof(tavrix_entry_s)) {
    errno = EINVAL;
    return -1;
  }
  auto* next = reinterpret_cast<std::byte*>(entries);
  for (size_t left = count; left > 0; --left, next += stride) {
    auto& entry = *reinterpret_cast<tavrix_entry_s*>(next);
    entry.verdict = tavrix::verdict_on(share_root, folder, op, *connection, entry);
  }
  return 0;
}
