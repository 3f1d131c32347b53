// SPDX-License-Identifier: GPL-3.0-or-later
/* Opening, changing, closing and deleting files. */
#include "tavrix_module.h"

/* --- opening ---------------------------------------------------------------------------------- */

/* True for an open that only names the object, as most of smbd's opens do. */
static bool only_names(const struct files_struct* fsp, const struct vfs_open_how* how) {
  return fsp->fsp_flags.is_pathref || (how->flags & O_PATH) != 0;
}

/* The object's name. A reopen goes through /proc and takes the name that the open file has. */
static int name_of_open(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                        const struct files_struct* dirfsp, const struct smb_filename* smb_fname,
                        const struct files_struct* fsp, struct tavrix_name* out) {
  if (strncmp(smb_fname->base_name, "/proc/", strlen("/proc/")) == 0) {
    return tavrix_name_of(ctx, handle, fsp->fsp_name->base_name, out);
  }
  return tavrix_name_at(ctx, handle, dirfsp, smb_fname, out);
}

static bool is_granted(const struct tavrix_connection* tavrix, const struct tavrix_name* name) {
  return tavrix->granted_path != NULL && strcmp(tavrix->granted_path, name->full) == 0;
}

static e_fsop_type operation_of(e_open_mode mode) {
  if (mode == OPENMODE_CREATE) return FSOP_CREATE;
  return mode == OPENMODE_READ ? FSOP_OPEN_READ : FSOP_OPEN_WRITE;
}

/* True if the create request under way has asked the same question already. Opens that are audited
 * or that delete are asked about again, because open_preprocess() does more for them. */
static bool was_asked(const struct tavrix_connection* tavrix, const struct tavrix_name* name,
                      const struct files_struct* fsp, int flags) {
  const e_open_mode mode = mode2tavrixmode(flags);
  const bool deletes = (fsp->access_mask & SEC_STD_DELETE) != 0;
  const bool audits = tavrix->audit && mode == OPENMODE_READ;
  return is_granted(tavrix, name) && !deletes && !audits &&
         operation_of(mode) == tavrix->granted_op;
}

static int ask(struct tavrix_connection* tavrix, const struct tavrix_name* name,
               const struct files_struct* fsp, int flags, int* is_new) {
  e_open_mode mode = mode2tavrixmode(flags);
  const int deletes = (fsp->access_mask & SEC_STD_DELETE) != 0;
  e_fsop_type op = FSOP_INVAL;
  struct stat st;
  char* full = discard_const_p(char, name->full);
  return open_preprocess(tavrix->tree, name->name, &mode, &op, &full, is_new, deletes,
                         tavrix->record, &st, tavrix->client, &tavrix->perm_ctx, tavrix->audit);
}

/* The create request asked about the folder, or its listing will ask. */
static int open_folder(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                       const struct smb_filename* smb_fname, struct files_struct* fsp,
                       const struct vfs_open_how* how) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix_raise(tavrix) != 0) return -1;
  const int fd = SMB_VFS_NEXT_OPENAT(handle, dirfsp, smb_fname, fsp, how);
  tavrix_give_back(tavrix);
  return fd;
}

/* True if this open made the file. Another client may have made it after the question was asked;
 * smbd makes files with O_EXCL, so an open with it that succeeds is certain. */
static bool has_made(const struct vfs_open_how* how, bool is_new) {
  return (how->flags & O_CREAT) != 0 && (is_new || (how->flags & O_EXCL) != 0);
}

static int open_file(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                     const struct smb_filename* smb_fname, struct files_struct* fsp,
                     const struct vfs_open_how* how, const struct tavrix_name* name, bool is_new) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  /* Before the open: a file whose changes could not be recorded is not opened. */
  struct tavrix_open* kept = tavrix_keep_open(handle, fsp);
  if (kept == NULL) {
    errno = ENOMEM;
    return -1;
  }
  if (tavrix_raise(tavrix) != 0) return -1;
  const int fd = SMB_VFS_NEXT_OPENAT(handle, dirfsp, smb_fname, fsp, how);
  kept->is_clients |= fd >= 0;
  if (fd >= 0 && is_new && (how->flags & O_CREAT) != 0) tavrix_give_to_owner(tavrix, fd);
  /* Record it now: the file stays even when a later step of the request fails. */
  if (fd >= 0 && has_made(how, is_new)) create_file_postprocess(tavrix->record, name->full);
  tavrix_give_back(tavrix);
  return fd;
}

static int open_for_client(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                           const struct smb_filename* smb_fname, struct files_struct* fsp,
                           const struct vfs_open_how* how, const struct tavrix_name* name) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (fsp->fsp_flags.is_directory) return open_folder(handle, dirfsp, smb_fname, fsp, how);
  const bool asked = was_asked(tavrix, name, fsp, how->flags);
  int is_new = asked ? tavrix->is_granted_new : 0;
  TAVRIX_AS_ROOT_IF(!asked);
  if (!asked && ask(tavrix, name, fsp, how->flags, &is_new) != 0) return -1;
  return open_file(handle, dirfsp, smb_fname, fsp, how, name, is_new != 0);
}

/* Checks a name as a status query does. Becomes root only when the verdict is not cached. */
static int ask_to_name(struct vfs_handle_struct* handle, const struct tavrix_name* name) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  tavrix_refresh_identity(handle);
  TAVRIX_AS_ROOT_IF(tavrix_must_decide(tavrix, name));
  if (check_perms(tavrix->tree, name->name, FSOP_STAT, tavrix->record, 0) == TXPERMS_HAS_PERMS) {
    return 0;
  }
  errno = EPERM;
  return -1;
}

/* Refuses a name. Where case does not matter smbd looks for a name in other letters only when it
 * does not exist as it is spelled, so there a missing one is called missing, whatever the map says
 * of it. */
static int refuse_to_name(struct vfs_handle_struct* handle, const struct tavrix_name* name) {
  struct stat st;
  const int keep = errno;
  TAVRIX_AS_ROOT_IF(!handle->conn->case_sensitive);
  const bool is_missing =
      !handle->conn->case_sensitive && lstat(name->full, &st) != 0 && errno == ENOENT;
  errno = is_missing ? ENOENT : keep;
  return -1;
}

static int open_to_name(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                        const struct smb_filename* smb_fname, struct files_struct* fsp,
                        const struct vfs_open_how* how) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  int fd = SMB_VFS_NEXT_OPENAT(handle, dirfsp, smb_fname, fsp, how);
  if (!tavrix_was_refused(fd) || tavrix_raise(tavrix) != 0) return fd;
  fd = SMB_VFS_NEXT_OPENAT(handle, dirfsp, smb_fname, fsp, how);
  tavrix_give_back(tavrix);
  return fd;
}

int tavrix_openat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                  const struct smb_filename* smb_fname, struct files_struct* fsp,
                  const struct vfs_open_how* how) {
  TAVRIX_ENTER(handle);
  struct tavrix_name name;
  const bool only_named = only_names(fsp, how);
  if (only_named && (tavrix_is_shown(handle, dirfsp, smb_fname) ||
                     tavrix_is_above_tree(talloc_tos(), handle, dirfsp, smb_fname))) {
    return open_to_name(handle, dirfsp, smb_fname, fsp, how);
  }
  if (name_of_open(talloc_tos(), handle, dirfsp, smb_fname, fsp, &name) != 0) return -1;
  if (!only_named) return open_for_client(handle, dirfsp, smb_fname, fsp, how, &name);
  if (ask_to_name(handle, &name) != 0) return refuse_to_name(handle, &name);
  return open_to_name(handle, dirfsp, smb_fname, fsp, how);
}

/* --- closing ---------------------------------------------------------------------------------- */

/* A deleted file is recorded as deleted, and has no name to record a change under. */
static bool is_deleted(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && st.st_nlink == 0;
}

/* smbd opens a path with O_PATH first, reopens it for the client, and then closes the first
 * descriptor. */
static bool is_path_only(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags < 0 || (flags & O_PATH) != 0;
}

static void record_close(struct vfs_handle_struct* handle, struct files_struct* fsp) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_open* kept = tavrix_open_of(handle, fsp);
  if (tavrix == NULL || kept == NULL || !kept->is_clients || fsp->fsp_flags.is_pathref) return;
  if (kept->modified.is_modified == 0 && !tavrix->audit) return;
  const int fd = fsp_get_pathref_fd(fsp);
  if (fd <= 0 || is_path_only(fd)) return;
  modify_file_evt_s* modified = &kept->modified;
  const bool deleted = is_deleted(fd);
  const bool raised = tavrix_raise(tavrix) == 0;
  if (!deleted) tavrix_record_close(handle, fd, modified);
  /* The hook clears the flag when it has recorded the event. */
  if (deleted || modified->is_modified == 0) remove_open_note(&kept->note);
  if (raised) tavrix_give_back(tavrix);
}

int tavrix_close(struct vfs_handle_struct* handle, struct files_struct* fsp) {
  TAVRIX_ENTER(handle);
  record_close(handle, fsp);
  return SMB_VFS_NEXT_CLOSE(handle, fsp);
}

/* A client disconnects and may come back. smbd notes the file's state now and accepts only a file
 * in that state later, so the stamp of a change must be on the file before. */
NTSTATUS tavrix_durable_disconnect(struct vfs_handle_struct* handle, struct files_struct* fsp,
                                   const DATA_BLOB old_cookie, TALLOC_CTX* mem_ctx,
                                   DATA_BLOB* new_cookie) {
  TAVRIX_ENTER(handle);
  record_close(handle, fsp);
  return SMB_VFS_NEXT_DURABLE_DISCONNECT(handle, fsp, old_cookie, mem_ctx, new_cookie);
}

/* --- deleting --------------------------------------------------------------------------------- */

static int ask_to_remove(struct tavrix_connection* tavrix, const struct tavrix_name* name,
                         bool is_folder) {
  if (is_folder) {
    return rmdir_preprocess(name->full, tavrix->tree, name->name, tavrix->record,
                            &tavrix->perm_ctx);
  }
  if (tavrix_may_always_be_deleted(name->name)) return tavrix_raise(tavrix);
  return unlink_preprocess(tavrix->tree, name->name, name->full, tavrix->record, &tavrix->perm_ctx);
}

int tavrix_unlinkat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                    const struct smb_filename* smb_fname, int flags) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  const bool is_folder = (flags & AT_REMOVEDIR) != 0;
  struct tavrix_name name;
  if (tavrix_name_at(talloc_tos(), handle, dirfsp, smb_fname, &name) != 0) return -1;
  if (is_named_stream(smb_fname)) {
    errno = EACCES;
    return -1;
  }
  TAVRIX_AS_ROOT();
  if (ask_to_remove(tavrix, &name, is_folder) != 0) return -1;
  /* Ask again whatever the handle was granted: a handle may come about in several ways. */
  if (is_folder && tavrix_must_stay(tavrix, &name, is_folder)) {
    tavrix_give_back(tavrix);
    errno = EACCES;
    return -1;
  }
  const int result = SMB_VFS_NEXT_UNLINKAT(handle, dirfsp, smb_fname, flags);
  tavrix_give_back(tavrix);
  if (result == 0 && is_folder) rmdir_postprocess(name.full, tavrix->record);
  if (result == 0 && !is_folder) unlink_postprocess(name.full, tavrix->record);
  return result;
}
