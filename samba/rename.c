// SPDX-License-Identifier: GPL-3.0-or-later
/* Renaming and moving. */
#include "tavrix_module.h"

/* True if the client may replace the target. rename_preprocess() judges only the source, but a
 * rename removes the object that it replaces, and a folder in its place would not have its stamps.
 * A rename that only changes the case of a name replaces nothing. */
static bool may_replace(struct tavrix_connection* tavrix, const struct tavrix_name* from,
                        const struct tavrix_name* to) {
  struct stat source;
  struct stat target;
  if (lstat(to->full, &target) != 0) return errno == ENOENT;
  if (lstat(from->full, &source) != 0) return false;
  if (source.st_dev == target.st_dev && source.st_ino == target.st_ino) return true;
  const bool is_folder = S_ISDIR(target.st_mode);
  if (is_folder && !tavrix_grants(tavrix, to->full, FSOP_RMDIR)) return false;
  return !tavrix_must_stay(tavrix, to, is_folder);
}

/* True if a folder may take the new name. The hook lets any folder take the name of a desktop's
 * bookkeeping file, and everybody may remove an object of that name. So taking such a name needs
 * the right to move the folder away. */
static bool may_take_name(struct tavrix_connection* tavrix, const struct tavrix_name* from,
                          const struct tavrix_name* to) {
  if (is_special_folder_file(to->name) == 0 || is_special_folder_file(from->name) != 0) return true;
  return tavrix_grants(tavrix, from->full, FSOP_MOVE_SRC);
}

static bool may_rename(struct tavrix_connection* tavrix, const struct tavrix_name* from,
                       const struct tavrix_name* to, bool is_folder) {
  const bool stays = is_folder && tavrix_must_stay(tavrix, from, is_folder);
  const bool takes = !is_folder || may_take_name(tavrix, from, to);
  if (!stays && takes && may_replace(tavrix, from, to)) return true;
  errno = EACCES;
  return false;
}

int tavrix_renameat(struct vfs_handle_struct* handle, struct files_struct* srcdir_fsp,
                    const struct smb_filename* smb_fname_src, struct files_struct* dstdir_fsp,
                    const struct smb_filename* smb_fname_dst, const struct vfs_rename_how* how) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_name from;
  struct tavrix_name to;
  int isdir = 0;
  int is_nav = 0;
  if (tavrix_name_at(talloc_tos(), handle, srcdir_fsp, smb_fname_src, &from) != 0 ||
      tavrix_name_at(talloc_tos(), handle, dstdir_fsp, smb_fname_dst, &to) != 0) {
    return -1;
  }
  TAVRIX_AS_ROOT();
  if (rename_preprocess(tavrix->tree, from.full, to.full, &tavrix->perm_ctx, &isdir, tavrix->record,
                        &is_nav) != 0) {
    return -1;
  }
  if (!may_rename(tavrix, &from, &to, isdir != 0)) {
    tavrix_give_back(tavrix);
    return -1;
  }
  const int result =
      TAVRIX_NEXT_RENAMEAT(handle, srcdir_fsp, smb_fname_src, dstdir_fsp, smb_fname_dst, how);
  tavrix_give_back(tavrix);
  if (result == 0) rename_postprocess(to.full, from.full, isdir, tavrix->record);
  return result;
}
