// SPDX-License-Identifier: GPL-3.0-or-later
/* Root for an operation and back, the entry of each function, and the owner of new objects. */
#include "tavrix_module.h"

enum raised { RAISED, WAS_ROOT, NOT_RAISED };

/* Takes root's user ids and says which ids were there. Asks for them once, where
 * raise_permissions() asks three times; tavrix_unbecome_root() gives them back. */
static enum raised take_root(tx_perm_ctx_t* before) {
  if (getresuid(&before->real_uid, &before->effective_uid, &before->saved_uid) != 0) {
    return NOT_RAISED;
  }
  if (before->effective_uid == 0) return WAS_ROOT;
  if (setresuid(0, 0, (uid_t)-1) == 0) return RAISED;
  DBG_ERR("cannot become root: %s\n", strerror(errno));
  return NOT_RAISED;
}

/* smbd's own change to root and back may have left a slot whose root is gone. */
int tavrix_raise(struct tavrix_connection* tavrix) {
  tx_perm_ctx_t* slot = malloc(sizeof *slot);
  const enum raised raised = slot != NULL ? take_root(slot) : NOT_RAISED;
  if (raised == RAISED) {
    free(tavrix->perm_ctx);
    tavrix->perm_ctx = slot;
    return 0;
  }
  free(slot);
  if (raised == WAS_ROOT) return 0;
  errno = EACCES;
  return -1;
}

void tavrix_give_back(struct tavrix_connection* tavrix) {
  const int keep = errno;
  if (tavrix->perm_ctx != NULL && tavrix_vfs_unbecome_root(tavrix->perm_ctx) != 0) {
    smb_panic("tavrix: the identity was not given back");
  }
  tavrix->perm_ctx = NULL;
  errno = keep;
}

struct tavrix_root tavrix_become_root_if(bool wanted) {
  struct tavrix_root root = {.is_raised = false, .group = (gid_t)-1};
  if (!wanted) return root;
  tavrix_note_decisions();
  const enum raised raised = take_root(&root.before);
  if (raised == NOT_RAISED) return root;
  root.is_raised = raised == RAISED;
  const gid_t group = getegid();
  if (group != 0 && setegid(0) == 0) root.group = group;
  return root;
}

/* Gives back the group first: only the superuser may take any group. */
void tavrix_end_root(struct tavrix_root* root) {
  const int keep = errno;
  if (root->group != (gid_t)-1 && setegid(root->group) != 0) {
    smb_panic("tavrix: the group was not given back");
  }
  if (root->is_raised && tavrix_unbecome_root(&root->before) != 0) {
    smb_panic("tavrix: the identity was not given back");
  }
  errno = keep;
}

bool tavrix_must_decide(struct tavrix_connection* tavrix, const struct tavrix_name* name) {
  if (tavrix_is_tree(tavrix, name)) return false;
  int slot = -1;
  const e_vfs_enforce_perms known =
      check_tlb(name->name, FSOP_STAT, &slot, &tavrix->record->vfs_table_cache);
  return known != TXPERMS_HAS_PERMS && known != TXPERMS_NO_PERM;
}

bool tavrix_was_refused(ssize_t result) {
  return result == -1 && (errno == EACCES || errno == EPERM);
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

/* The name may mean another object by now. So the folder goes to its owner by its descriptor, and
 * only if it belongs to root, as the folder that was just made does. */
static int give_new_folder(const struct tavrix_connection* tavrix, int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -1;
  if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
    errno = ESTALE;
    return -1;
  }
  return fchownat(fd, "", owner_of(tavrix), group_of(tavrix), AT_EMPTY_PATH);
}

void tavrix_give_folder_to_owner(const struct tavrix_connection* tavrix,
                                 const struct files_struct* dirfsp, const char* name) {
  const int keep = errno;
  const int fd =
      openat(fsp_get_pathref_fd(dirfsp), name, O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 || give_new_folder(tavrix, fd) != 0) {
    DBG_WARNING("the owner of %s: %s\n", name, strerror(errno));
  }
  if (fd >= 0) close(fd);
  errno = keep;
}

/* The record of the user that the process works for. smbd's own work as root keeps the present
 * record. */
static connection_private_data_s* record_of(struct vfs_handle_struct* handle) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  const uid_t uid = get_current_uid(handle->conn);
  if (uid == 0) return tavrix->record;
  return uid == tavrix->own->refresh_creds.euid ? tavrix->own : tavrix_record_of_asker(handle, uid);
}

struct tavrix_entry tavrix_enter(struct vfs_handle_struct* handle) {
  struct tavrix_entry entry = {.tavrix = tavrix_connection_of(handle),
                               .outer_reserved = reserved_user_uid};
  if (entry.tavrix != NULL) {
    entry.outer = entry.tavrix->perm_ctx;
    entry.outer_record = entry.tavrix->record;
    entry.tavrix->perm_ctx = NULL;
    tavrix_notice_login(handle, entry.tavrix);
    if (tavrix_is_fenced_off(entry.tavrix)) entry.tavrix->is_lost = true;
    set_reserved_user_uid(entry.tavrix->reserved_uid);
    entry.tavrix->record = record_of(handle);
  }
#ifdef TAVRIX_CHECK_IDENTITY
  uid_t saved;
  getresuid(&entry.real, &entry.effective, &saved);
  entry.group = getegid();
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
  if (real == entry->real && effective == entry->effective && getegid() == entry->group) return;
  DBG_ERR("identity left: real %u effective %u group %u, before %u %u %u\n", (unsigned)real,
          (unsigned)effective, (unsigned)getegid(), (unsigned)entry->real,
          (unsigned)entry->effective, (unsigned)entry->group);
  smb_panic("tavrix: the identity was not given back");
}
#endif

void tavrix_leave(struct tavrix_entry* entry) {
  if (entry->tavrix != NULL) {
    entry->tavrix->perm_ctx = entry->outer;
    entry->tavrix->record = entry->outer_record;
    tavrix_watch_session(entry->tavrix);
  }
  set_reserved_user_uid(entry->outer_reserved);
#ifdef TAVRIX_CHECK_IDENTITY
  check_identity(entry);
#endif
}
