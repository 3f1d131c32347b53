// SPDX-License-Identifier: LGPL-3.0-or-later
// The hooks around status queries. None of them records anything.

#include "hooks/frame.hpp"
#include "logging.h"
#include "processing_functions.h"

int stat_preprocess(connection_private_data_s* private_data, const char* base_name,
                    const char* connectpath, tx_perm_ctx_t** perm_ctx) {
  // The client's most frequent request, so the connection looks here for a changed identity.
  refresh_credentials(private_data);
  if (base_name == nullptr) {
    TAVRIX_LOG(0, "%s: base_name null\n", __func__);
    return tavrix::refuse(ENOMEM);
  }
  TAVRIX_LOG(1, "Calling check_perms enforce perms nlpath=[%s]\n", base_name);
  const int verdict = check_perms(connectpath, base_name, FSOP_STAT, private_data, 0);
  TAVRIX_LOG(1, "Back from enforce perms %d\n", verdict);
  if (verdict != TXPERMS_HAS_PERMS) {
    TAVRIX_LOG(10, "%s: EPERM\n", __func__);
    return tavrix::refuse(EPERM);
  }
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Could not switch to root for stat operation for nlpath=%s\n", base_name);
    return tavrix::refuse(EPERM);
  }
  return tavrix::kProceed;
}

int lstat_preprocess(const char* connectpath, const char* base_name, tx_perm_ctx_t** perm_ctx,
                     connection_private_data_s* private_data) {
  const tavrix::CString full_path(get_full_path(connectpath, base_name));
  if (full_path == nullptr) return tavrix::refuse(ENOMEM);
  if (!tavrix::is_allowed(connectpath, full_path.get(), FSOP_LSTAT, *private_data)) {
    return tavrix::refuse();
  }
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Could not switch to root for lstat operation, base_name=%s\n", base_name);
    return tavrix::refuse();
  }
  return tavrix::kProceed;
}

int statvfs_preprocess(const char* connectpath, const char* path,
                       connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx) {
  const tavrix::CString full_path(get_full_path(connectpath, path));
  if (full_path == nullptr) return tavrix::refuse(ENOMEM);
  if (private_data->reserved_user == 0) {
    TAVRIX_LOG(1, "Calling vfs_enforce_perms for connectpath=(%s), nlpath=(%s)\n", connectpath,
               path);
  }
  if (!tavrix::is_allowed(connectpath, full_path.get(), FSOP_STATVFS, *private_data)) {
    return tavrix::refuse();
  }
  TAVRIX_LOG(10, "Enabled statvfs for %s\n", path);
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Cannot elevate to root privileges to enforce statvfs permissions, path=%s\n",
               path);
    return tavrix::refuse();
  }
  return tavrix::kProceed;
}
