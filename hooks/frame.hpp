// SPDX-License-Identifier: LGPL-3.0-or-later
// Shared by all hooks: the decision, the refusal, root for a moment or for the operation, events.
#pragma once

#include <cerrno>

#include "internal/scoped.hpp"
#include "perm_enforcer.h"
#include "tavrix_vfs_utils.h"
#include "utils/root_scope.hpp"
#include "vfs_common.h"

namespace tavrix {

constexpr int kProceed = 0;

[[nodiscard]] inline int refuse(int error = EACCES) noexcept {
  errno = error;
  return -1;
}

// The decision about an operation; the reserved user's connection skips it.
[[nodiscard]] inline bool is_allowed(const char* connectpath, const char* full_path, e_fsop_type op,
                                     connection_private_data_s& connection, int* is_nav = nullptr) {
  int unused = 0;
  int* nav = is_nav != nullptr ? is_nav : &unused;
  if (connection.reserved_user != 0) {
    *nav = 0;
    return true;
  }
  return vfs_enforce_perms(connectpath, full_path, op, &connection.groupmap, 0, nav) ==
         TXPERMS_HAS_PERMS;
}

enum class Stamp { kNo, kYes };

// Records a change for the synchronisation agent. A stamp also writes the user's name into an
// extended attribute of the object.
inline void record_change(const connection_private_data_s& connection, const char* path,
                          VFSEvent__OpType type, VFSEvent__FsElemType element, Stamp stamp,
                          const char* rename_path = nullptr) {
  VFSEvent event = VFSEVENT__INIT;
  event.path = const_cast<char*>(path);
  event.rename_path = const_cast<char*>(rename_path);
  event.optype = type;
  event.fselem_type = element;
  pop_vfs_event(&event, connection.refresh_creds.euid);
  if (stamp == Stamp::kYes && connection.user_name_as_passed_in != nullptr) {
    set_xattr_modifying_user(rename_path != nullptr ? rename_path : path,
                             connection.user_name_as_passed_in);
  }
  send_modify_vfs_event(&event);
}

inline void record_read(const connection_private_data_s& connection, const char* path,
                        const char* remote_hostname, uint64_t size) {
  AuditEvent event = AUDIT_EVENT__INIT;
  event.path = const_cast<char*>(path);
  event.ip_address = const_cast<char*>(remote_hostname);
  event.size = size;
  pop_audit_event(&event);
  send_audit_vfs_event(&event, connection.refresh_creds.euid);
}

}  // namespace tavrix
