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

struct tavrix_ids tavrix_ids_now(void) {
  struct tavrix_ids ids;
  getresuid(&ids.real, &ids.effective, &ids.saved);
  return ids;
}

/* smbd's own pair of switches inside an operation may have come back to the client earlier than
 * this module would; what must not be is more than there was. */
void tavrix_check_ids(const struct tavrix_ids* before) {
  const struct tavrix_ids now = tavrix_ids_now();
  if (now.effective == before->effective && now.real == before->real) return;
  DBG_ERR("identity left: real %u effective %u, before %u %u\n", (unsigned)now.real,
          (unsigned)now.effective, (unsigned)before->real, (unsigned)before->effective);
  smb_panic("tavrix: the identity was not given back");
}
