// SPDX-License-Identifier: GPL-3.0-or-later
/* The differences between the series of Samba that the module is built for. No other file asks for
 * a version.
 *
 *   series   SMB_VFS_INTERFACE_VERSION
 *   4.17     47
 *   4.22     50
 *
 * The module's own functions take what the older or the newer interface has more, whichever is
 * more. */
#ifndef TAVRIX_COMPATIBILITY_H
#define TAVRIX_COMPATIBILITY_H

#if SMB_VFS_INTERFACE_VERSION >= 48
#include "smbd/smbXsrv_session.h"
#endif

/* --- listing -----------------------------------------------------------------------------------
 * Version 49 asks for an entry without its status, and knows no positions in a folder. */
#if SMB_VFS_INTERFACE_VERSION >= 49

static inline struct dirent* tavrix_compatible_readdir(struct vfs_handle_struct* handle,
                                                       struct files_struct* dirfsp, DIR* dirp) {
  return tavrix_readdir(handle, dirfsp, dirp, NULL);
}
#define TAVRIX_NEXT_READDIR(handle, dirfsp, dirp, status) SMB_VFS_NEXT_READDIR(handle, dirfsp, dirp)
#define TAVRIX_NEXT_TELLDIR(handle, dirp) (-1L)
#define TAVRIX_NEXT_SEEKDIR(handle, dirp, offset) ((void)0)
#define TAVRIX_TABLE_OF_POSITIONS

#else

static inline struct dirent* tavrix_compatible_readdir(struct vfs_handle_struct* handle,
                                                       struct files_struct* dirfsp, DIR* dirp,
                                                       SMB_STRUCT_STAT* status) {
  return tavrix_readdir(handle, dirfsp, dirp, status);
}
#define TAVRIX_NEXT_READDIR SMB_VFS_NEXT_READDIR
#define TAVRIX_NEXT_TELLDIR SMB_VFS_NEXT_TELLDIR
#define TAVRIX_NEXT_SEEKDIR SMB_VFS_NEXT_SEEKDIR
#define TAVRIX_TABLE_OF_POSITIONS .telldir_fn = tavrix_telldir, .seekdir_fn = tavrix_seekdir,

#endif

/* --- renaming ----------------------------------------------------------------------------------
 * Version 50 says how: a rename may be one that replaces nothing. */
#if SMB_VFS_INTERFACE_VERSION >= 50

#define tavrix_compatible_renameat tavrix_renameat
#define TAVRIX_NEXT_RENAMEAT SMB_VFS_NEXT_RENAMEAT

#else

static inline int tavrix_compatible_renameat(struct vfs_handle_struct* handle,
                                             struct files_struct* srcdir_fsp,
                                             const struct smb_filename* smb_fname_src,
                                             struct files_struct* dstdir_fsp,
                                             const struct smb_filename* smb_fname_dst) {
  return tavrix_renameat(handle, srcdir_fsp, smb_fname_src, dstdir_fsp, smb_fname_dst, NULL);
}
#define TAVRIX_NEXT_RENAMEAT(handle, srcdir_fsp, src, dstdir_fsp, dst, how) \
  SMB_VFS_NEXT_RENAMEAT(handle, srcdir_fsp, src, dstdir_fsp, dst)

#endif

/* --- settings of the share ---------------------------------------------------------------------
 * A server of version 50 makes a folder under a name of its own and renames it when its attributes
 * are set. The module grants the name that the client asked for, and records one event about it. */
static inline void tavrix_settle_share(int share) {
#if SMB_VFS_INTERFACE_VERSION >= 50
  lp_do_parameter(share, "vfs mkdir use tmp name", "no");
#endif
}

#endif
