// SPDX-License-Identifier: GPL-3.0-or-later
/* From smbd's names to the library's. */
#include "tavrix_module.h"

static int refuse(int error) {
  errno = error;
  return -1;
}

/* The name of an absolute path without links: the part behind the tree's root, without dots at the
 * beginning. The library's full path begins with TAVRIX_TREE, whether that is a link or not. */
static int name_behind(TALLOC_CTX* ctx, const struct tavrix_connection* tavrix, const char* path,
                       struct tavrix_name* out) {
  const size_t length = strlen(tavrix->root);
  if (strncmp(path, tavrix->root, length) != 0) return refuse(EACCES);
  if (path[length] != '\0' && path[length] != '/') return refuse(EACCES);
  const char* name = path + length;
  while (name[0] == '/' || (name[0] == '.' && name[1] == '/')) ++name;
  if (name[0] == '\0' || strcmp(name, ".") == 0) {
    out->name = out->full = tavrix->tree;
    return 0;
  }
  out->full = talloc_asprintf(ctx, "%s/%s", tavrix->tree, name);
  if (out->full == NULL) return refuse(ENOMEM);
  out->name = out->full + strlen(tavrix->tree) + 1;
  return 0;
}

static int spelled(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, const char* path,
                   struct tavrix_name* out) {
  const int result = name_behind(ctx, tavrix_connection_of(handle), path, out);
  return result == 0 ? tavrix_spell(ctx, handle, out) : result;
}

static int name_below(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, const char* folder,
                      const char* name, struct tavrix_name* out) {
  const struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix == NULL || tavrix->is_lost || name == NULL) return refuse(EACCES);
  if (name[0] == '/') return spelled(ctx, handle, name, out);
  while (name[0] == '.' && name[1] == '/') name += 2;
  const bool is_folder = name[0] == '\0' || strcmp(name, ".") == 0;
  const char* path = is_folder ? folder : talloc_asprintf(ctx, "%s/%s", folder, name);
  return path != NULL ? spelled(ctx, handle, path, out) : refuse(ENOMEM);
}

int tavrix_name_in_share(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, const char* name,
                         struct tavrix_name* out) {
  return name_below(ctx, handle, handle->conn->connectpath, name, out);
}

/* The name is relative to smbd's working folder, which need not be the share: smbd changes it
 * around renaming and removing. */
int tavrix_name_of(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, const char* base_name,
                   struct tavrix_name* out) {
  return name_below(ctx, handle, handle->conn->cwd_fsp->fsp_name->base_name, base_name, out);
}

int tavrix_name_at(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                   const struct files_struct* dirfsp, const struct smb_filename* smb_fname,
                   struct tavrix_name* out) {
  if (tavrix_connection_of(handle) == NULL || dirfsp == NULL) return refuse(EACCES);
  /* A server may name a folder that it could not open; it ends when it works below such a folder. */
  if (fsp_get_pathref_fd(dirfsp) == -1 && smb_fname->base_name[0] != '/') return refuse(EACCES);
  const struct smb_filename* whole = full_path_from_dirfsp_atname(ctx, dirfsp, smb_fname);
  if (whole == NULL) return refuse(ENOMEM);
  return tavrix_name_of(ctx, handle, whole->base_name, out);
}

int tavrix_is_tree(const struct tavrix_connection* tavrix, const struct tavrix_name* name) {
  return name->full == tavrix->tree;
}
