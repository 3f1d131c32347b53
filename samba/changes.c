// SPDX-License-Identifier: GPL-3.0-or-later
/* Requests that change a file's content. Each marks the file as changed, and its close records the
 * event. A request that fails afterwards counts too: an event too many does no harm, a missing one
 * leaves the cloud copy different. Until the close a note on the disk stands for the event, in case
 * this process is killed. */
#include "tavrix_module.h"

#include "lib/util/tevent_ntstatus.h"
#include "lib/util/tevent_unix.h"

static bool write_note(struct vfs_handle_struct* handle, struct files_struct* fsp,
                       struct tavrix_open* kept) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_name name;
  if (tavrix == NULL ||
      tavrix_name_in_share(talloc_tos(), handle, fsp->fsp_name->base_name, &name) != 0) {
    errno = EACCES;
    return false;
  }
  if (tavrix->record->reserved_user != 0) return true; /* the agent's changes are not recorded */
  if (tavrix_raise(tavrix) != 0) return false;
  const struct changing_file file = {.inode = fsp->file_id.inode,
                                     .uid = tavrix->record->refresh_creds.euid,
                                     .user = tavrix->record->user_name_as_passed_in,
                                     .path = name.full};
  const int result = write_open_note(&kept->note, &file);
  if (result != 0) DBG_ERR("no note of %s: %s\n", name.full, strerror(errno));
  tavrix_give_back(tavrix);
  return result == 0;
}

bool tavrix_note_change(struct vfs_handle_struct* handle, struct files_struct* fsp) {
  struct tavrix_open* kept = tavrix_open_of(handle, fsp);
  if (kept == NULL || kept->modified.is_modified != 0) return true;
  if (kept->is_clients && !write_note(handle, fsp, kept)) return false;
  kept->modified.is_modified = 1;
  return true;
}

/* --- writing ---------------------------------------------------------------------------------- */

ssize_t tavrix_pwrite(struct vfs_handle_struct* handle, struct files_struct* fsp, const void* data,
                      size_t n, off_t offset) {
  if (!tavrix_note_change(handle, fsp)) return -1;
  return SMB_VFS_NEXT_PWRITE(handle, fsp, data, n, offset);
}

/* A request that has failed already. Nobody uses its state. */
static struct tevent_req* failed_request(TALLOC_CTX* mem_ctx, struct tevent_context* ev,
                                         bool (*fail)(struct tevent_req*, int)) {
  const int error = errno;
  char* state = NULL;
  struct tevent_req* req = tevent_req_create(mem_ctx, &state, char);
  if (req == NULL) return NULL;
  fail(req, error);
  return tevent_req_post(req, ev);
}

static bool fail_with_errno(struct tevent_req* req, int error) {
  return tevent_req_error(req, (uint64_t)error);
}

static bool fail_with_status(struct tevent_req* req, int error) {
  return tevent_req_nterror(req, map_nt_error_from_unix(error));
}

struct tevent_req* tavrix_pwrite_send(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                                      struct tevent_context* ev, struct files_struct* fsp,
                                      const void* data, size_t n, off_t offset) {
  if (!tavrix_note_change(handle, fsp)) return failed_request(mem_ctx, ev, fail_with_errno);
  return SMB_VFS_NEXT_PWRITE_SEND(mem_ctx, ev, handle, fsp, data, n, offset);
}

ssize_t tavrix_pwrite_recv(struct tevent_req* req, struct vfs_aio_state* state) {
  if (tevent_req_is_unix_error(req, &state->error)) {
    tevent_req_received(req);
    return -1;
  }
  return SMB_VFS_PWRITE_RECV(req, state);
}

ssize_t tavrix_recvfile(struct vfs_handle_struct* handle, int from_fd, files_struct* to_fsp,
                        off_t offset, size_t count) {
  if (!tavrix_note_change(handle, to_fsp)) return -1;
  return SMB_VFS_NEXT_RECVFILE(handle, from_fd, to_fsp, offset, count);
}

int tavrix_ftruncate(struct vfs_handle_struct* handle, struct files_struct* fsp, off_t offset) {
  if (!tavrix_note_change(handle, fsp)) return -1;
  return SMB_VFS_NEXT_FTRUNCATE(handle, fsp, offset);
}

int tavrix_fallocate(struct vfs_handle_struct* handle, struct files_struct* fsp, uint32_t mode,
                     off_t offset, off_t len) {
  if (!tavrix_note_change(handle, fsp)) return -1;
  return SMB_VFS_NEXT_FALLOCATE(handle, fsp, mode, offset, len);
}

/* --- copying on the server -------------------------------------------------------------------- */

struct tevent_req* tavrix_offload_write_send(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                                             struct tevent_context* ev, uint32_t fsctl,
                                             DATA_BLOB* token, off_t transfer_offset,
                                             struct files_struct* dest_fsp, off_t dest_off,
                                             off_t to_copy) {
  if (!tavrix_note_change(handle, dest_fsp)) {
    return failed_request(mem_ctx, ev, fail_with_status);
  }
  return SMB_VFS_NEXT_OFFLOAD_WRITE_SEND(handle, mem_ctx, ev, fsctl, token, transfer_offset,
                                         dest_fsp, dest_off, to_copy);
}

NTSTATUS tavrix_offload_write_recv(struct vfs_handle_struct* handle, struct tevent_req* req,
                                   off_t* copied) {
  NTSTATUS status;
  if (tevent_req_is_nterror(req, &status)) {
    *copied = 0;
    tevent_req_received(req);
    return status;
  }
  return SMB_VFS_NEXT_OFFLOAD_WRITE_RECV(handle, req, copied);
}
