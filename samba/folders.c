// SPDX-License-Identifier: GPL-3.0-or-later
/* Making and entering folders. */
#include "tavrix_module.h"

/* --- making ----------------------------------------------------------------------------------- */

static bool is_granted(const struct tavrix_connection* tavrix, const struct tavrix_name* name) {
  return tavrix->granted_path != NULL && tavrix->granted_op == FSOP_MKDIR &&
         strcmp(tavrix->granted_path, name->full) == 0;
}

int tavrix_mkdirat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, mode_t mode) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_name name;
  if (tavrix_name_at(talloc_tos(), handle, dirfsp, smb_fname, &name) != 0) return -1;
  /* The create request around this has asked the same question. */
  const bool granted = is_granted(tavrix, &name);
  TAVRIX_AS_ROOT_IF(!granted);
  const int asked = granted ? tavrix_raise(tavrix)
                            : mkdir_preprocess(tavrix->tree, name.name, name.full, tavrix->record,
                                               &tavrix->perm_ctx);
  if (asked != 0) return -1;
  const int result = SMB_VFS_NEXT_MKDIRAT(handle, dirfsp, smb_fname, mode);
  if (result == 0) tavrix_give_folder_to_owner(tavrix, dirfsp, smb_fname->base_name);
  tavrix_give_back(tavrix);
  /* Record it now: the folder stays even when a later step of the request fails. */
  if (result == 0) {
    char* full = discard_const_p(char, name.full);
    mkdir_postprocess(tavrix->record, &full);
  }
  return result;
}

/* --- entering --------------------------------------------------------------------------------- */

/* smbd enters "/" as root before a connection ends, so that the file system can be unmounted. */
static bool leaves_the_tree(const struct smb_filename* smb_fname) {
  return geteuid() == 0 && strcmp(smb_fname->base_name, "/") == 0;
}

int tavrix_chdir(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_name name;
  if (leaves_the_tree(smb_fname)) return SMB_VFS_NEXT_CHDIR(handle, smb_fname);
  if (tavrix_name_of(talloc_tos(), handle, smb_fname->base_name, &name) != 0) return -1;
  TAVRIX_AS_ROOT_IF(!tavrix_is_tree(tavrix, &name));
  if (chdir_preprocess(name.name, tavrix->tree, tavrix->record, &tavrix->perm_ctx) != 0) return -1;
  const int result = SMB_VFS_NEXT_CHDIR(handle, smb_fname);
  tavrix_give_back(tavrix);
  return result;
}

/* smbd makes names canonical in many places. That decides nothing and shows the client nothing. */
struct smb_filename* tavrix_realpath(struct vfs_handle_struct* handle, TALLOC_CTX* ctx,
                                     const struct smb_filename* smb_fname) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (!tavrix_is_connected(handle)) return NULL;
  struct smb_filename* result = SMB_VFS_NEXT_REALPATH(handle, ctx, smb_fname);
  const bool refused = result == NULL && tavrix_was_refused(-1);
  if (!refused || tavrix_raise(tavrix) != 0) return result;
  result = SMB_VFS_NEXT_REALPATH(handle, ctx, smb_fname);
  tavrix_give_back(tavrix);
  return result;
}
