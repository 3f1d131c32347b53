/* What changes a file's content: the close of the file records it. A request that fails later
 * counts as a change too: better an event too many than a cloud copy that differs. */
#include "tavrix_module.h"

static void note_change(struct vfs_handle_struct* handle, struct files_struct* fsp) {
  struct tavrix_open* kept = tavrix_open_of(handle, fsp);
  if (kept != NULL) kept->modified.is_modified = 1;
}

ssize_t tavrix_pwrite(struct vfs_handle_struct* handle, struct files_struct* fsp, const void* data,
                      size_t n, off_t offset) {
  note_change(handle, fsp);
  return SMB_VFS_NEXT_PWRITE(handle, fsp, data, n, offset);
}

struct tevent_req* tavrix_pwrite_send(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                                      struct tevent_context* ev, struct files_struct* fsp,
                                      const void* data, size_t n, off_t offset) {
  note_change(handle, fsp);
  return SMB_VFS_NEXT_PWRITE_SEND(mem_ctx, ev, handle, fsp, data, n, offset);
}

ssize_t tavrix_pwrite_recv(struct tevent_req* req, struct vfs_aio_state* state) {
  return SMB_VFS_PWRITE_RECV(req, state);
}

ssize_t tavrix_recvfile(struct vfs_handle_struct* handle, int from_fd, files_struct* to_fsp,
                        off_t offset, size_t count) {
  note_change(handle, to_fsp);
  return SMB_VFS_NEXT_RECVFILE(handle, from_fd, to_fsp, offset, count);
}

int tavrix_ftruncate(struct vfs_handle_struct* handle, struct files_struct* fsp, off_t offset) {
  note_change(handle, fsp);
  return SMB_VFS_NEXT_FTRUNCATE(handle, fsp, offset);
}

int tavrix_fallocate(struct vfs_handle_struct* handle, struct files_struct* fsp, uint32_t mode,
                     off_t offset, off_t len) {
  note_change(handle, fsp);
  return SMB_VFS_NEXT_FALLOCATE(handle, fsp, mode, offset, len);
}

struct tevent_req* tavrix_offload_write_send(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                                             struct tevent_context* ev, uint32_t fsctl,
                                             DATA_BLOB* token, off_t transfer_offset,
                                             struct files_struct* dest_fsp, off_t dest_off,
                                             off_t to_copy) {
  note_change(handle, dest_fsp);
  return SMB_VFS_NEXT_OFFLOAD_WRITE_SEND(handle, mem_ctx, ev, fsctl, token, transfer_offset,
                                         dest_fsp, dest_off, to_copy);
}

NTSTATUS tavrix_offload_write_recv(struct vfs_handle_struct* handle, struct tevent_req* req,
                                   off_t* copied) {
  return SMB_VFS_NEXT_OFFLOAD_WRITE_RECV(handle, req, copied);
}
