// SPDX-License-Identifier: GPL-3.0-or-later
/* The table of the module, and its registration. */
#include "tavrix_module.h"

static struct vfs_fn_pointers tavrix_functions = {
    .connect_fn = tavrix_connect,
    .disconnect_fn = tavrix_disconnect,
    .disk_free_fn = tavrix_disk_free,
    .get_quota_fn = tavrix_get_quota,
    .set_quota_fn = tavrix_set_quota,
    .statvfs_fn = tavrix_statvfs,
    .fdopendir_fn = tavrix_fdopendir,
    .readdir_fn = tavrix_compatible_readdir,
    TAVRIX_TABLE_OF_POSITIONS.rewind_dir_fn = tavrix_rewinddir,
    .closedir_fn = tavrix_closedir,
    .mkdirat_fn = tavrix_mkdirat,
    .openat_fn = tavrix_openat,
    .create_file_fn = tavrix_create_file,
    .close_fn = tavrix_close,
    .pwrite_fn = tavrix_pwrite,
    .pwrite_send_fn = tavrix_pwrite_send,
    .pwrite_recv_fn = tavrix_pwrite_recv,
    .recvfile_fn = tavrix_recvfile,
    .renameat_fn = tavrix_compatible_renameat,
    .stat_fn = tavrix_stat,
    .lstat_fn = tavrix_lstat,
    .fstatat_fn = tavrix_fstatat,
    .unlinkat_fn = tavrix_unlinkat,
    .chdir_fn = tavrix_chdir,
    .realpath_fn = tavrix_realpath,
    .fchmod_fn = tavrix_fchmod,
    .fset_dos_attributes_fn = tavrix_fset_dos_attributes,
    .fntimes_fn = tavrix_fntimes,
    .ftruncate_fn = tavrix_ftruncate,
    .fallocate_fn = tavrix_fallocate,
    .offload_write_send_fn = tavrix_offload_write_send,
    .offload_write_recv_fn = tavrix_offload_write_recv,
    .fgetxattr_fn = tavrix_fgetxattr,
    .flistxattr_fn = tavrix_flistxattr,
    .fsetxattr_fn = tavrix_fsetxattr,
    .fremovexattr_fn = tavrix_fremovexattr,
    .linkat_fn = tavrix_linkat,
    .symlinkat_fn = tavrix_symlinkat,
    .mknodat_fn = tavrix_mknodat,
    .create_dfs_pathat_fn = tavrix_create_dfs_pathat,
    .snap_create_fn = tavrix_snap_create,
    .snap_delete_fn = tavrix_snap_delete,
    .fchown_fn = tavrix_fchown,
    .lchown_fn = tavrix_lchown,
    .sys_acl_set_fd_fn = tavrix_sys_acl_set_fd,
    .sys_acl_delete_def_fd_fn = tavrix_sys_acl_delete_def_fd,
    .durable_disconnect_fn = tavrix_durable_disconnect,
    .fget_nt_acl_fn = tavrix_fget_nt_acl,
    .fset_nt_acl_fn = tavrix_fset_nt_acl,
};

struct vfs_handle_struct* tavrix_handle_of(const struct connection_struct* conn) {
  struct vfs_handle_struct* handle = conn->vfs_handles;
  while (handle != NULL && handle->fns != &tavrix_functions) handle = handle->next;
  return handle;
}

_PUBLIC_ NTSTATUS samba_init_module(TALLOC_CTX* ctx);
_PUBLIC_ NTSTATUS samba_init_module(TALLOC_CTX* ctx) { return tavrix_register(&tavrix_functions); }
