// SPDX-License-Identifier: GPL-3.0-or-later
/* Making, listing and entering folders. */
#include "tavrix_module.h"

#define ENTRY_SIZE 8192 /* a folder's path and an entry's name */

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

/* --- listing ---------------------------------------------------------------------------------- */

/* Remembers a listing that a client asked for; tavrix_readdir() leaves out of it what the user may
 * not see. */
static bool remember_listing(struct vfs_handle_struct* handle, files_struct* fsp, DIR* dirp,
                             const struct tavrix_name* name) {
  struct tavrix_open* kept = tavrix_keep_open(handle, fsp);
  if (kept == NULL) return false;
  const bool is_tree = tavrix_is_tree(tavrix_connection_of(handle), name);
  TALLOC_FREE(kept->base);
  kept->base = talloc_strdup(VFS_MEMCTX_FSP_EXTENSION(handle, fsp), is_tree ? "." : name->name);
  kept->listing = dirp;
  return kept->base != NULL;
}

static DIR* list_for_client(struct vfs_handle_struct* handle, files_struct* fsp, const char* mask,
                            uint32_t attributes) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_name name;
  if (tavrix_name_of(talloc_tos(), handle, fsp->fsp_name->base_name, &name) != 0) return NULL;
  const bool is_tree = tavrix_is_tree(tavrix, &name);
  TAVRIX_AS_ROOT_IF(!is_tree);
  int is_nav = 0;
  const int deletes = (fsp->access_mask & SEC_STD_DELETE) != 0;
  /* Everybody may list the tree's root. */
  const int asked = is_tree ? tavrix_raise(tavrix)
                            : fdopendir_preprocess(tavrix->tree, name.name, deletes, tavrix->record,
                                                   &is_nav, &tavrix->perm_ctx);
  if (asked != 0) return NULL;
  DIR* dirp = SMB_VFS_NEXT_FDOPENDIR(handle, fsp, mask, attributes);
  tavrix_give_back(tavrix);
  if (dirp == NULL || remember_listing(handle, fsp, dirp, &name)) return dirp;
  SMB_VFS_NEXT_CLOSEDIR(handle, dirp); /* a listing that cannot be filtered is refused */
  errno = ENOMEM;
  return NULL;
}

/* A listing without a mask is smbd's own: it looks for a name in other letters, or for entries left
 * in a folder that is removed. It must see everything, and each entry is decided when it is opened.
 * A refusal here would end the process, because smbd does not close the folder that it opened. */
DIR* tavrix_fdopendir(struct vfs_handle_struct* handle, files_struct* fsp, const char* mask,
                      uint32_t attributes) {
  TAVRIX_ENTER(handle);
  if (!tavrix_is_connected(handle)) return NULL;
  if (mask != NULL) return list_for_client(handle, fsp, mask, attributes);
  struct tavrix_open* kept = tavrix_open_of(handle, fsp);
  if (kept != NULL) kept->listing = NULL; /* the new DIR may have the address of an old one */
  return SMB_VFS_NEXT_FDOPENDIR(handle, fsp, mask, attributes);
}

static bool is_self_or_parent(const char* name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

static bool may_see(struct tavrix_connection* tavrix, const char* base, const char* name) {
  char path[ENTRY_SIZE];
  char full[ENTRY_SIZE];
  int allowed = TXPERMS_NO_PERM;
  /* The hook clears the whole buffer, so it gets only as much as this name needs. */
  const int length = snprintf(path, sizeof path, "%s/%s", base, name);
  if (length < 0 || (size_t)length >= sizeof path) return false;
  const struct tavrix_name entry = {.name = path};
  TAVRIX_AS_ROOT_IF(tavrix_must_decide(tavrix, &entry));
  readir_postprocess(&allowed, name, base, full, length + 1, tavrix->tree, tavrix->record);
  return allowed == TXPERMS_HAS_PERMS;
}

struct dirent* tavrix_readdir(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                              DIR* dirp, SMB_STRUCT_STAT* sbuf) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  const struct tavrix_open* kept = tavrix != NULL ? tavrix_open_of(handle, dirfsp) : NULL;
  if (kept == NULL || kept->listing != dirp) {
    return SMB_VFS_NEXT_READDIR(handle, dirfsp, dirp, sbuf);
  }
  for (;;) {
    struct dirent* entry = SMB_VFS_NEXT_READDIR(handle, dirfsp, dirp, sbuf);
    if (entry == NULL || is_self_or_parent(entry->d_name)) return entry;
    if (may_see(tavrix, kept->base, entry->d_name)) return entry;
  }
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
