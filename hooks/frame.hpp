// SPDX-License-Identifier: LGPL-3.0-or-later
// What all hooks share: the decision, the refusal, root for a moment or for the operation, events.
#pragma once

#include <unistd.h>
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

// Root within a hook. Gives back what it took itself, and only that: the module may be root
// already.
class [[nodiscard]] RootInHook {
 public:
  explicit RootInHook(tx_perm_ctx_t** slot) noexcept
      : slot_(slot), was_root_(geteuid() == 0), is_root_(raise_permissions(slot) == 1) {}
  ~RootInHook() { give_back(); }
  RootInHook(const RootInHook&) = delete;
  RootInHook& operator=(const RootInHook&) = delete;

  [[nodiscard]] explicit operator bool() const noexcept { return is_root_; }
  void give_back() noexcept {
    if (was_root_ || !is_root_) return;
    const ErrnoKeeper keep;
    require_unbecome_root(*slot_);
    *slot_ = nullptr;
    is_root_ = false;
  }

 private:
  tx_perm_ctx_t** slot_;
  bool was_root_;
  bool is_root_;
};

// Root that stays for the operation itself; the module gives it back.
[[nodiscard]] inline bool stay_root(tx_perm_ctx_t** slot) noexcept {
  return raise_permissions(slot) == 1;
}

enum class Stamp { kNo, kYes };

// The record of a change, for the synchronisation agent; with a stamp, the user's name stays on the
// object itself.
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
