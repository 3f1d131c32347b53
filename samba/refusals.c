// SPDX-License-Identifier: GPL-3.0-or-later
/* Operations that are refused to every client.
 *
 * A hard link is a second name of a file. Rights go with the folder of a name, so a user would
 * still reach a file in a closed folder by the other name; and the agent, which knows files by
 * their paths, would take one changed file for two. A symbolic link can lead out of the tree.
 * Devices and pipes cannot be synchronised. Owners and access lists on the disk belong to the
 * appliance: the permission map judges clients. */
#include "tavrix_module.h"

#include "libcli/smb/smb2_constants.h"

#define FILE_LINK_INFORMATION_CLASS 11
#define FILE_ALLOCATION_INFORMATION_CLASS 19
#define FILE_END_OF_FILE_INFORMATION_CLASS 20

/* True for a create request that smbd makes for itself while it serves one of these requests:
 *
 * A request for a hard link. smbd removes the object that the link replaces before it calls linkat,
 * so the request is refused at the first object that it opens.
 *
 * A request for a new size or allocation by a handle without the right to write data. smbd opens
 * the file anew and mixes up the two opens, and the process ends by a signal later. The protocol
 * wants that right in the client's own handle, so this is no loss. */
bool tavrix_is_refused_request(const struct smb_request* req) {
  if (req == NULL || req->smb2req == NULL) return false;
  const uint8_t* header = SMBD_SMB2_IN_HDR_PTR(req->smb2req);
  const uint8_t* body = SMBD_SMB2_IN_BODY_PTR(req->smb2req);
  if (SVAL(header, SMB2_HDR_OPCODE) != SMB2_OP_SETINFO || CVAL(body, 2) != SMB2_0_INFO_FILE) {
    return false;
  }
  const uint8_t class = CVAL(body, 3);
  return class == FILE_LINK_INFORMATION_CLASS || class == FILE_ALLOCATION_INFORMATION_CLASS ||
         class == FILE_END_OF_FILE_INFORMATION_CLASS;
}

static int refuse(void) {
  errno = EACCES;
  return -1;
}

int tavrix_linkat(struct vfs_handle_struct* handle, struct files_struct* srcfsp,
                  const struct smb_filename* old_smb_fname, struct files_struct* dstfsp,
                  const struct smb_filename* new_smb_fname, int flags) {
  return refuse();
}

int tavrix_symlinkat(struct vfs_handle_struct* handle, const struct smb_filename* link_contents,
                     struct files_struct* dirfsp, const struct smb_filename* new_smb_fname) {
  return refuse();
}

int tavrix_mknodat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, mode_t mode, SMB_DEV_T dev) {
  return refuse();
}

NTSTATUS tavrix_create_dfs_pathat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                                  const struct smb_filename* smb_fname,
                                  const struct referral* reflist, size_t referral_count) {
  return NT_STATUS_ACCESS_DENIED;
}

/* A snapshot is a copy of the tree, and no map has rules for it. */
NTSTATUS tavrix_snap_create(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                            const char* base_volume, time_t* tstamp, bool rw, char** base_path,
                            char** snap_path) {
  return NT_STATUS_NOT_SUPPORTED;
}

NTSTATUS tavrix_snap_delete(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx, char* base_path,
                            char* snap_path) {
  return NT_STATUS_NOT_SUPPORTED;
}

int tavrix_fchown(struct vfs_handle_struct* handle, struct files_struct* fsp, uid_t uid,
                  gid_t gid) {
  return refuse();
}

int tavrix_lchown(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname, uid_t uid,
                  gid_t gid) {
  return refuse();
}

int tavrix_sys_acl_set_fd(struct vfs_handle_struct* handle, struct files_struct* fsp,
                          SMB_ACL_TYPE_T type, SMB_ACL_T theacl) {
  return refuse();
}

int tavrix_sys_acl_delete_def_fd(struct vfs_handle_struct* handle, struct files_struct* fsp) {
  return refuse();
}
