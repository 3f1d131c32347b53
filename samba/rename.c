/* Renaming and moving. */
#include "tavrix_module.h"

int tavrix_renameat(struct vfs_handle_struct* handle, struct files_struct* srcdir_fsp,
                    const struct smb_filename* smb_fname_src, struct files_struct* dstdir_fsp,
                    const struct smb_filename* smb_fname_dst) {
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
  if (rename_preprocess(tavrix->share, from.full, to.full, &tavrix->perm_ctx, &isdir,
                        tavrix->record, &is_nav) != 0) {
    return -1;
  }
  const int result =
      SMB_VFS_NEXT_RENAMEAT(handle, srcdir_fsp, smb_fname_src, dstdir_fsp, smb_fname_dst);
  tavrix_give_back(tavrix);
  if (result == 0) rename_postprocess(to.full, from.full, isdir, tavrix->record);
  return result;
}
