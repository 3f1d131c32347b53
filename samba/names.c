/* Names as smbd has them, and as the library wants them. */
#include "tavrix_module.h"

int tavrix_name_in_share(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, const char* name,
                         struct tavrix_name* out) {
  const struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix == NULL) return -1;
  while (name[0] == '.' && name[1] == '/') name += 2;
  if (name[0] == '\0' || strcmp(name, ".") == 0) {
    out->name = out->full = tavrix->share;
    return 0;
  }
  out->full = talloc_asprintf(ctx, "%s/%s", tavrix->share, name);
  if (out->full == NULL) return -1;
  out->name = out->full + strlen(tavrix->share) + 1;
  return 0;
}

int tavrix_name_of(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, const char* base_name,
                   struct tavrix_name* out) {
  const struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix == NULL || base_name == NULL) return -1;
  const char* path = base_name;
  if (base_name[0] != '/') {
    /* Not the share: smbd changes its folder around renaming and removing. */
    path = talloc_asprintf(ctx, "%s/%s", handle->conn->cwd_fsp->fsp_name->base_name, base_name);
    if (path == NULL) return -1;
  }
  const size_t length = strlen(tavrix->share);
  if (strncmp(path, tavrix->share, length) != 0) return -1;
  if (path[length] != '\0' && path[length] != '/') return -1;
  while (path[length] == '/') ++path;
  return tavrix_name_in_share(ctx, handle, path + length, out);
}

int tavrix_name_at(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                   const struct files_struct* dirfsp, const struct smb_filename* smb_fname,
                   struct tavrix_name* out) {
  const struct smb_filename* whole = full_path_from_dirfsp_atname(ctx, dirfsp, smb_fname);
  if (whole == NULL) return -1;
  return tavrix_name_of(ctx, handle, whole->base_name, out);
}

int tavrix_is_share(const struct tavrix_connection* tavrix, const struct tavrix_name* name) {
  return name->full == tavrix->share;
}
