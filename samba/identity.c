/* Root for an operation, and back; and who owns what was made. */
#include "tavrix_module.h"

int tavrix_raise(struct tavrix_connection* tavrix) {
  return raise_permissions(&tavrix->perm_ctx) == 1 ? 0 : -1;
}

void tavrix_give_back(struct tavrix_connection* tavrix) {
  const int keep = errno;
  if (tavrix->perm_ctx != NULL) tavrix_vfs_unbecome_root(tavrix->perm_ctx);
  tavrix->perm_ctx = NULL;
  errno = keep;
}

static uid_t owner_of(const struct tavrix_connection* tavrix) {
  return tavrix->owner_uid != (uid_t)-1 ? tavrix->owner_uid : tavrix->record->refresh_creds.euid;
}

static gid_t group_of(const struct tavrix_connection* tavrix) {
  return tavrix->owner_gid != (gid_t)-1 ? tavrix->owner_gid : tavrix->record->groupmap.egid;
}

void tavrix_give_to_owner(const struct tavrix_connection* tavrix, int fd) {
  const int keep = errno;
  if (fchown(fd, owner_of(tavrix), group_of(tavrix)) != 0) {
    DBG_WARNING("fchown: %s\n", strerror(errno));
  }
  errno = keep;
}

void tavrix_give_path_to_owner(const struct tavrix_connection* tavrix, const char* full) {
  const int keep = errno;
  if (lchown(full, owner_of(tavrix), group_of(tavrix)) != 0) {
    DBG_WARNING("lchown %s: %s\n", full, strerror(errno));
  }
  errno = keep;
}

struct tavrix_entry tavrix_enter(struct vfs_handle_struct* handle) {
  struct tavrix_entry entry = {.tavrix = tavrix_connection_of(handle)};
  if (entry.tavrix != NULL) {
    entry.outer = entry.tavrix->perm_ctx;
    entry.tavrix->perm_ctx = NULL;
  }
#ifdef TAVRIX_CHECK_IDENTITY
  uid_t saved;
  getresuid(&entry.real, &entry.effective, &saved);
#endif
  return entry;
}

#ifdef TAVRIX_CHECK_IDENTITY
static void check_identity(const struct tavrix_entry* entry) {
  uid_t real;
  uid_t effective;
  uid_t saved;
  const int keep = errno;
  getresuid(&real, &effective, &saved);
  errno = keep;
  if (real == entry->real && effective == entry->effective) return;
  DBG_ERR("identity left: real %u effective %u, before %u %u\n", (unsigned)real,
          (unsigned)effective, (unsigned)entry->real, (unsigned)entry->effective);
  smb_panic("tavrix: the identity was not given back");
}
#endif

void tavrix_leave(struct tavrix_entry* entry) {
  if (entry->tavrix != NULL) entry->tavrix->perm_ctx = entry->outer;
#ifdef TAVRIX_CHECK_IDENTITY
  check_identity(entry);
#endif
}
