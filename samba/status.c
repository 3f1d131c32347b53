/* Status queries. */
#include "tavrix_module.h"

/* Asks the library about a status query: 1 granted (root, where there is a decision), 0 refused,
 * and 1 without a decision outside of the share. */
static bool may_look(struct vfs_handle_struct* handle, const struct tavrix_name* name, bool link) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (link) {
    return lstat_preprocess(tavrix->share, name->name, &tavrix->perm_ctx, tavrix->record) == 0;
  }
  return stat_preprocess(tavrix->record, name->name, tavrix->share, &tavrix->perm_ctx) == 0;
}

int tavrix_stat(struct vfs_handle_struct* handle, struct smb_filename* smb_fname) {
  TAVRIX_ENTER(handle);
  struct tavrix_name name;
  if (tavrix_name_of(talloc_tos(), handle, smb_fname->base_name, &name) != 0) {
    return SMB_VFS_NEXT_STAT(handle, smb_fname);
  }
  if (!may_look(handle, &name, false)) return -1;
  const int result = SMB_VFS_NEXT_STAT(handle, smb_fname);
  tavrix_give_back(tavrix_connection_of(handle));
  return result;
}

int tavrix_lstat(struct vfs_handle_struct* handle, struct smb_filename* smb_fname) {
  TAVRIX_ENTER(handle);
  struct tavrix_name name;
  if (tavrix_name_of(talloc_tos(), handle, smb_fname->base_name, &name) != 0) {
    return SMB_VFS_NEXT_LSTAT(handle, smb_fname);
  }
  if (!may_look(handle, &name, true)) return -1;
  const int result = SMB_VFS_NEXT_LSTAT(handle, smb_fname);
  tavrix_give_back(tavrix_connection_of(handle));
  return result;
}

int tavrix_fstatat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, SMB_STRUCT_STAT* sbuf, int flags) {
  TAVRIX_ENTER(handle);
  struct tavrix_name name;
  if (tavrix_name_at(talloc_tos(), handle, dirfsp, smb_fname, &name) != 0) {
    return SMB_VFS_NEXT_FSTATAT(handle, dirfsp, smb_fname, sbuf, flags);
  }
  if (!may_look(handle, &name, (flags & AT_SYMLINK_NOFOLLOW) != 0)) return -1;
  const int result = SMB_VFS_NEXT_FSTATAT(handle, dirfsp, smb_fname, sbuf, flags);
  tavrix_give_back(tavrix_connection_of(handle));
  return result;
}

/* The share's root is what is asked about, whatever the client named: there is no rule elsewhere.
 */
static bool may_ask_for_space(struct tavrix_connection* tavrix) {
  return statvfs_preprocess(tavrix->share, tavrix->share, tavrix->record, &tavrix->perm_ctx) == 0;
}

int tavrix_statvfs(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                   struct vfs_statvfs_struct* statbuf) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix == NULL) return SMB_VFS_NEXT_STATVFS(handle, smb_fname, statbuf);
  if (!may_ask_for_space(tavrix)) return -1;
  const int result = SMB_VFS_NEXT_STATVFS(handle, smb_fname, statbuf);
  tavrix_give_back(tavrix);
  return result;
}

uint64_t tavrix_disk_free(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                          uint64_t* bsize, uint64_t* dfree, uint64_t* dsize) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix == NULL) return SMB_VFS_NEXT_DISK_FREE(handle, smb_fname, bsize, dfree, dsize);
  if (!may_ask_for_space(tavrix)) return (uint64_t)-1;
  const uint64_t result = SMB_VFS_NEXT_DISK_FREE(handle, smb_fname, bsize, dfree, dsize);
  tavrix_give_back(tavrix);
  return result;
}
