// SPDX-License-Identifier: GPL-3.0-or-later
/* Status queries. */
#include "tavrix_module.h"

/* True if the verdict is not cached. Refreshes the identity then, as the client, because the next
 * step becomes root. */
static bool must_decide(struct vfs_handle_struct* handle, const struct tavrix_name* name) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (!tavrix_must_decide(tavrix, name)) return false;
  tavrix_refresh_identity(handle);
  return true;
}

/* True if the library grants a status query; it leaves the process root. */
static bool may_look(struct vfs_handle_struct* handle, const struct tavrix_name* name, bool link) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (link) {
    return lstat_preprocess(tavrix->tree, name->name, &tavrix->perm_ctx, tavrix->record) == 0;
  }
  return stat_preprocess(tavrix->record, name->name, tavrix->tree, &tavrix->perm_ctx) == 0;
}

int tavrix_stat(struct vfs_handle_struct* handle, struct smb_filename* smb_fname) {
  TAVRIX_ENTER(handle);
  struct tavrix_name name;
  if (tavrix_name_of(talloc_tos(), handle, smb_fname->base_name, &name) != 0) return -1;
  TAVRIX_AS_ROOT_IF(must_decide(handle, &name));
  if (!may_look(handle, &name, false)) return -1;
  const int result = SMB_VFS_NEXT_STAT(handle, smb_fname);
  tavrix_give_back(tavrix_connection_of(handle));
  return result;
}

int tavrix_lstat(struct vfs_handle_struct* handle, struct smb_filename* smb_fname) {
  TAVRIX_ENTER(handle);
  struct tavrix_name name;
  if (tavrix_name_of(talloc_tos(), handle, smb_fname->base_name, &name) != 0) return -1;
  TAVRIX_AS_ROOT();
  if (!may_look(handle, &name, true)) return -1;
  const int result = SMB_VFS_NEXT_LSTAT(handle, smb_fname);
  tavrix_give_back(tavrix_connection_of(handle));
  return result;
}

int tavrix_fstatat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, SMB_STRUCT_STAT* sbuf, int flags) {
  TAVRIX_ENTER(handle);
  struct tavrix_name name;
  if (tavrix_name_at(talloc_tos(), handle, dirfsp, smb_fname, &name) != 0) return -1;
  const bool link = (flags & AT_SYMLINK_NOFOLLOW) != 0;
  TAVRIX_AS_ROOT_IF(link || must_decide(handle, &name));
  if (!may_look(handle, &name, link)) return -1;
  const int result = SMB_VFS_NEXT_FSTATAT(handle, dirfsp, smb_fname, sbuf, flags);
  tavrix_give_back(tavrix_connection_of(handle));
  return result;
}

/* Asks about the tree's root, whatever the client named: the operation has a rule only there. */
static bool may_ask_for_space(struct tavrix_connection* tavrix) {
  return statvfs_preprocess(tavrix->tree, tavrix->tree, tavrix->record, &tavrix->perm_ctx) == 0;
}

int tavrix_statvfs(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                   struct vfs_statvfs_struct* statbuf) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (!tavrix_is_connected(handle) || !may_ask_for_space(tavrix)) return -1;
  const int result = SMB_VFS_NEXT_STATVFS(handle, smb_fname, statbuf);
  tavrix_give_back(tavrix);
  return result;
}

uint64_t tavrix_disk_free(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                          uint64_t* bsize, uint64_t* dfree, uint64_t* dsize) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (!tavrix_is_connected(handle) || !may_ask_for_space(tavrix)) return (uint64_t)-1;
  const uint64_t result = SMB_VFS_NEXT_DISK_FREE(handle, smb_fname, bsize, dfree, dsize);
  tavrix_give_back(tavrix);
  return result;
}

/* --- quotas ------------------------------------------------------------------------------------
 * smbd asks for quotas with each question about free space. The module asks as root: the client may
 * not reach the folder on the disk, and smbd would log an error each time. */

/* The user or group whose quota bounds the client: files belong to the settings' owner. */
static unid_t payer_of(const struct tavrix_connection* tavrix, enum SMB_QUOTA_TYPE qtype,
                       unid_t id) {
  if (qtype == SMB_USER_QUOTA_TYPE && id.uid == geteuid() && tavrix->owner_uid != (uid_t)-1) {
    id.uid = tavrix->owner_uid;
  }
  if (qtype == SMB_GROUP_QUOTA_TYPE && id.gid == getegid() && tavrix->owner_gid != (gid_t)-1) {
    id.gid = tavrix->owner_gid;
  }
  return id;
}

int tavrix_get_quota(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                     enum SMB_QUOTA_TYPE qtype, unid_t id, SMB_DISK_QUOTA* qt) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (!tavrix_is_connected(handle)) return -1;
  const unid_t payer = payer_of(tavrix, qtype, id);
  if (tavrix_raise(tavrix) != 0) return -1;
  const int result = SMB_VFS_NEXT_GET_QUOTA(handle, smb_fname, qtype, payer, qt);
  tavrix_give_back(tavrix);
  return result;
}

/* Only the server's administrator sets quotas. */
int tavrix_set_quota(struct vfs_handle_struct* handle, enum SMB_QUOTA_TYPE qtype, unid_t id,
                     SMB_DISK_QUOTA* qt) {
  errno = EPERM;
  return -1;
}
