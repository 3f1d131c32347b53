// SPDX-License-Identifier: LGPL-3.0-or-later
// Takes the superuser's user ids and gives them back.

#include <unistd.h>
#include <cerrno>
#include <cstdlib>

#include "internal/scoped.hpp"
#include "logging.h"
#include "tavrix_utils.h"
#include "tavrix_vfs_utils.h"

int tavrix_become_root(tx_permctx_s** perm_ctx) {
  if (*perm_ctx == nullptr) {
    *perm_ctx = tavrix::malloc_zeroed<tx_permctx_s>();
    if (*perm_ctx == nullptr) {
      TAVRIX_LOG(0, "Cannot allocate memory");
      return -1;
    }
  }
  tx_permctx_s& context = **perm_ctx;
  if (getresuid(&context.real_uid, &context.effective_uid, &context.saved_uid) != 0) {
    TAVRIX_LOG(0, "getresuid failed. Cannot change to root");
    return -1;
  }
  if (context.effective_uid == 0) return 0;
  if (getresgid(&context.real_gid, &context.effective_gid, &context.saved_gid) != 0) {
    TAVRIX_LOG(0, "getresgid failed. Cannot change to root");
    return -1;
  }
  // The saved id stays, because it allows the way back.
  if (setresuid(0, 0, static_cast<uid_t>(-1)) != 0) {
    TAVRIX_LOG(0, "setresuid failed. Cannot change to root");
    return -1;
  }
  return 0;
}

int tavrix_unbecome_root(tx_permctx_s* perm_ctx) {
  if (perm_ctx == nullptr) {
    TAVRIX_LOG(0, "No permission context");
    return -1;
  }
  if (setresuid(perm_ctx->real_uid, perm_ctx->effective_uid, perm_ctx->saved_uid) != 0) {
    TAVRIX_LOG(0, "Could not switch uids");
    return -1;
  }
  return 0;
}

tx_permctx_s* tavrix_vfs_become_root(void) {
  auto* context = static_cast<tx_permctx_s*>(std::calloc(1, sizeof(tx_permctx_s)));
  if (context == nullptr) {
    TAVRIX_LOG(0, "Could not allocate memory for permission context");
    return nullptr;
  }
  if (tavrix_become_root(&context) != 0) {
    TAVRIX_LOG(0, "Could not switch to root");
    std::free(context);
    return nullptr;
  }
  return context;
}

int tavrix_vfs_unbecome_root(tx_permctx_s* perm_ctx) {
  if (perm_ctx == nullptr) return -1;
  const int result = tavrix_unbecome_root(perm_ctx);
  std::free(perm_ctx);
  return result;
}

int raise_permissions(tx_perm_ctx_t** ctx) {
  if (geteuid() == 0) return 1;
  *ctx = tavrix_vfs_become_root();
  if (*ctx != nullptr) return 1;
  errno = EACCES;
  return 0;
}
