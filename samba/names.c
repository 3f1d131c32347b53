// SPDX-License-Identifier: GPL-3.0-or-later
/* From smbd's names to the library's. */
#include "tavrix_module.h"

static int refuse(int error) {
  errno = error;
  return -1;
}

/* The length of the part at a slash that names nothing: another slash follows, or "." does. */
static size_t length_of_nothing(const char* at) {
  if (at[0] != '/') return 0;
  if (at[1] == '/') return 1;
  return at[1] == '.' && (at[2] == '/' || at[2] == '\0') ? 2 : 0;
}

static bool names_nothing_on_the_way(const char* path) {
  while (path[0] != '\0' && length_of_nothing(path) == 0) ++path;
  return path[0] != '\0';
}

/* An absolute path without doubled slashes and without "." on the way, which smbd leaves where it
 * joins the name of a folder and that of an entry. Null without memory. */
static const char* tidy_path(TALLOC_CTX* ctx, const char* path) {
  if (!names_nothing_on_the_way(path)) return path;
  char* tidy = talloc_strdup(ctx, path);
  char* end = tidy;
  if (tidy == NULL) return NULL;
  while (path[0] != '\0') {
    const size_t nothing = length_of_nothing(path);
    if (nothing == 0) *end++ = *path++;
    path += nothing;
  }
  *end = '\0';
  return tidy[0] != '\0' ? tidy : "/";
}

/* The name of an absolute path without links: the part behind the tree's root, without dots at the
 * beginning. The library's full path begins with TAVRIX_TREE, whether that is a link or not. */
static int name_behind(TALLOC_CTX* ctx, const struct tavrix_connection* tavrix, const char* path,
                       struct tavrix_name* out) {
  const size_t length = strlen(tavrix->root);
  path = tidy_path(ctx, path);
  if (path == NULL) return refuse(ENOMEM);
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
  /* A server may name a folder that it could not open; it ends when it works below such a folder.
   */
  if (fsp_get_pathref_fd(dirfsp) == -1 && smb_fname->base_name[0] != '/') return refuse(EACCES);
  const struct smb_filename* whole = full_path_from_dirfsp_atname(ctx, dirfsp, smb_fname);
  if (whole == NULL) return refuse(ENOMEM);
  return tavrix_name_of(ctx, handle, whole->base_name, out);
}

int tavrix_is_tree(const struct tavrix_connection* tavrix, const struct tavrix_name* name) {
  return name->full == tavrix->tree;
}

bool tavrix_is_above_tree(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                          const struct files_struct* dirfsp, const struct smb_filename* smb_fname) {
  const struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix == NULL || dirfsp == NULL) return false;
  const bool is_absolute =
      smb_fname->base_name[0] == '/' ||
      (dirfsp != handle->conn->cwd_fsp && dirfsp->fsp_name->base_name[0] == '/');
  if (!is_absolute) return false;
  const struct smb_filename* whole = full_path_from_dirfsp_atname(ctx, dirfsp, smb_fname);
  if (whole == NULL || whole->base_name[0] != '/') return false;
  const char* path = tidy_path(ctx, whole->base_name);
  if (path == NULL) return false;
  const size_t length = strlen(path);
  if (length == 1) return true;
  return strncmp(tavrix->root, path, length) == 0 && tavrix->root[length] == '/';
}
