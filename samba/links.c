// SPDX-License-Identifier: GPL-3.0-or-later
/* Symbolic links that the server's administrator made: the tree's root may be one, and the tree may
 * contain some. The target of a link is decided and recorded under its own name. */
#include "tavrix_module.h"

#define DESCRIPTOR_PATH_SIZE 64
#define LONGEST_PATH 4096

int tavrix_name_of_fd(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, int fd,
                      struct tavrix_name* out) {
  char descriptor[DESCRIPTOR_PATH_SIZE];
  char path[LONGEST_PATH + 1];
  snprintf(descriptor, sizeof descriptor, "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(descriptor, path, LONGEST_PATH);
  if (length < 0) return -1;
  path[length] = '\0';
  return tavrix_name_of(ctx, handle, path, out);
}

/* --- names behind links ----------------------------------------------------------------------- */

static bool is_link(const char* path) {
  struct stat st;
  return lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

static bool is_deleted(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && st.st_nlink == 0;
}

int tavrix_name_behind_link(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                            const struct smb_filename* smb_fname, struct tavrix_name* name) {
  struct tavrix_name real;
  if (smb_fname->fsp == NULL || is_named_stream(smb_fname)) return 0;
  const int fd = fsp_get_pathref_fd(smb_fname->fsp);
  if (fd < 0) return 0;
  if (tavrix_name_of_fd(ctx, handle, fd, &real) != 0) return -1;
  if (strcmp(real.full, name->full) == 0 || is_deleted(fd)) return 0;
  /* The names differ without a link when another client has just renamed the object. It is decided
   * under its new name. */
  const int found = is_link(name->full) ? 1 : 0;
  *name = real;
  return found;
}

struct smb_filename* tavrix_follow(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                                   const struct smb_filename* link,
                                   const struct tavrix_name* target) {
  const struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct smb_filename* followed = NULL;
  const char* share = handle->conn->connectpath;
  const char* path = tavrix_is_tree(tavrix, target)
                         ? tavrix->root
                         : talloc_asprintf(ctx, "%s/%s", tavrix->root, target->name);
  if (path == NULL) return NULL;
  const size_t length = strlen(share);
  if (strncmp(path, share, length) != 0 || path[length] != '/') return NULL;
  const NTSTATUS status = synthetic_pathref(ctx, handle->conn->cwd_fsp, path + length + 1, NULL,
                                            NULL, link->twrp, link->flags, &followed);
  return NT_STATUS_IS_OK(status) ? followed : NULL;
}

/* --- a tree behind a link --------------------------------------------------------------------- */

static void record_read(struct tavrix_connection* tavrix, const char* full, int fd) {
  struct stat st;
  if (!tavrix->audit || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return;
  AuditEvent event = AUDIT_EVENT__INIT;
  event.path = discard_const_p(char, full);
  event.ip_address = discard_const_p(char, tavrix->client);
  event.size = (uint64_t)st.st_size;
  pop_audit_event(&event);
  send_audit_vfs_event(&event, tavrix->record->refresh_creds.euid);
}

/* close_preprocess() asks the kernel for the file's name, and the kernel's name is not below
 * TAVRIX_TREE when the tree's root is a link. */
void tavrix_record_close(struct vfs_handle_struct* handle, int fd, modify_file_evt_s* modified) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_name name;
  if (strcmp(tavrix->root, tavrix->tree) == 0) {
    close_preprocess(tavrix->audit, fd, tavrix->record, &modified, 1, tavrix->client);
  } else if (tavrix_name_of_fd(talloc_tos(), handle, fd, &name) != 0) {
    DBG_ERR("a file that is closed has no name: %s\n", strerror(errno));
  } else if (modified->is_modified == 0) {
    record_read(tavrix, name.full, fd);
  } else {
    ntimes_file_postprocess(name.full, tavrix->record); /* the same event, under a given name */
    modified->is_modified = 0;
  }
}
