// SPDX-License-Identifier: GPL-3.0-or-later
/* The reference module of libtavrix for Samba.
 *
 * Copyright (C) 2026 the libtavrix developers. This module is free software under the terms of the
 * GNU General Public License, version 3 or later, as Samba is (see LICENSES/).
 *
 * Every function of the table asks the library before the operation, runs the operation as root
 * where the library left it so, gives root back on every path, and records what succeeded. */
#ifndef TAVRIX_MODULE_H
#define TAVRIX_MODULE_H

/* Samba's headers, in the order they need. */
/* clang-format off */
#include "includes.h"
#include "smbd/smbd.h"
#include "smbd/globals.h"
#include "auth.h"
#include "system/filesys.h"
/* clang-format on */

#include "tavrix.h"
#include "tools/notes/open_notes.h"

#ifndef TAVRIX_MODULE_NAME
#define TAVRIX_MODULE_NAME "tavrix"
#endif

/* One tree connection. */
struct tavrix_connection {
  connection_private_data_s* record; /* of the user that the process works for: usually own */
  connection_private_data_s* own;    /* of the connection's user */
  connection_private_data_s asker;   /* of another one, see tavrix_enter() */
  tx_perm_ctx_t* perm_ctx; /* the slot of hooks that leave the process root; null between them */
  const char* tree;        /* the root of the tree, which the hooks call the connect path */
  const char* root;        /* the same without links, as smbd names its folders */
  const char* client;      /* address, for audit records */
  int audit;
  uid_t owner_uid; /* of what clients make; -1: the client */
  gid_t owner_gid;
  struct GUID login;  /* that the identity is of: a session may log in again, as somebody else */
  bool is_lost;       /* there is no identity: everything is refused */
  uid_t reserved_uid; /* the agent's, whose changes are not recorded; -1: none */
  /* What the create request that is under way was granted, so that the same question is not asked
   * twice: null outside of one. */
  const char* granted_path;
  e_fsop_type granted_op;
  int is_granted_new; /* the request makes the object: its own hook records that */
  int changes; /* of attributes, times or extended attributes, that are under way: they nest */
};

/* What is kept of an open file or folder, for as long as it is open. */
struct tavrix_open {
  bool is_clients;            /* a client's own open of a file: its close is told */
  modify_file_evt_s modified; /* of that: whether it changed */
  struct open_note note;      /* on the disk, while it is changed */
  DIR* listing;               /* of a folder: the listing that hides what its user may not see */
  char* base;                 /* its name, relative to the tree */
  char* old_name;             /* of a folder that is watched: the first half of a rename, until */
  struct timespec old_when;   /* the notice about the new name comes */
};
/* Null where nothing is kept, or can be. */
struct tavrix_open* tavrix_open_of(struct vfs_handle_struct* handle, struct files_struct* fsp);
struct tavrix_open* tavrix_keep_open(struct vfs_handle_struct* handle, struct files_struct* fsp);

/* A handle's connection; null where the module is not connected. */
struct tavrix_connection* tavrix_connection_of(struct vfs_handle_struct* handle);
/* True if there is one; false with errno EACCES. smbd asks nothing of the table before connect and
 * after disconnect, so a handle without a connection refuses. */
bool tavrix_is_connected(struct vfs_handle_struct* handle);
const char* tavrix_option(struct vfs_handle_struct* handle, const char* name,
                          const char* otherwise);

/* A line for the operator, in the server's log and in the system's. */
void tavrix_complain(const char* format, ...) PRINTF_ATTRIBUTE(1, 2);

/* --- a connection begins; 0, or -1 after a line that says why nobody may connect ---------------
 */

/* A new snapshot of the settings, and the patterns that they name. */
int tavrix_load_settings(void);
/* Who the client is, into the connection's record. */
int tavrix_identify_client(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix);
/* The same when its session has logged in again; with each function of the table. */
void tavrix_notice_login(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix);
/* Settings of the share that leave a gap, a line each. */
void tavrix_warn_about_share(struct vfs_handle_struct* handle);

/* --- names -------------------------------------------------------------------------------------
 * The library wants names relative to the tree, and full paths. smbd's names are relative to its
 * working folder, to a folder that is open, or to the share. The tree's root is named by its full
 * path, as the hooks know it.
 *
 * Names fail closed: 0, or -1 with errno, and the caller refuses the operation with that. ENOMEM:
 * there is no memory for the name. EACCES: it lies outside the tree, or the handle is not
 * connected, or the name is relative to a folder that smbd did not give. */
struct tavrix_name {
  const char* name; /* relative to the tree */
  const char* full; /* the root, a slash, the name */
};
int tavrix_name_of(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, const char* base_name,
                   struct tavrix_name* out);
int tavrix_name_at(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                   const struct files_struct* dirfsp, const struct smb_filename* smb_fname,
                   struct tavrix_name* out);
int tavrix_name_in_share(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, const char* name,
                         struct tavrix_name* out);
/* Puts the letters on the disk into a name of the private area, on a share where case does not
 * matter. */
int tavrix_spell(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, struct tavrix_name* name);
/* Of what is open, by what the kernel calls it; as root. */
int tavrix_name_of_fd(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, int fd,
                      struct tavrix_name* out);
/* Replaces the name of a link by that of what smbd found behind it; as root. 1: did so, 0: no link,
 * -1: no name. */
int tavrix_name_behind_link(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                            const struct smb_filename* smb_fname, struct tavrix_name* name);
/* A name with which smbd opens the target by its own name; null where it may not be opened. */
struct smb_filename* tavrix_follow(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                                   const struct smb_filename* link,
                                   const struct tavrix_name* target);
int tavrix_is_tree(const struct tavrix_connection* tavrix, const struct tavrix_name* name);

/* --- identity ---------------------------------------------------------------------------------
 * A change of identity costs about as much as opening a file, and the library makes many short
 * ones. So a function that asks for a decision becomes root once, with user and group, and asks,
 * works and records as that; the library finds nothing to change then. Where nothing must be
 * decided, the client's own identity is tried first. */

/* Root for an operation that needs no decision. 0 or -1 with errno. */
int tavrix_raise(struct tavrix_connection* tavrix);
/* After every hook that may have left the process root; errno survives. */
void tavrix_give_back(struct tavrix_connection* tavrix);

/* Root with user and group to the end of the block, unless the process is root already or cannot
 * be: then the library switches for itself. Not for refresh_credentials(), which must see the
 * client. */
struct tavrix_root {
  tx_perm_ctx_t* user;
  gid_t group; /* -1: was not changed */
};
struct tavrix_root tavrix_become_root_if(bool wanted);
void tavrix_end_root(struct tavrix_root* root);
#define TAVRIX_AS_ROOT_IF(wanted)                                              \
  __attribute__((cleanup(tavrix_end_root), unused)) struct tavrix_root root_ = \
      tavrix_become_root_if(wanted)
#define TAVRIX_AS_ROOT() TAVRIX_AS_ROOT_IF(true)

/* Whether asking about the status of a name will take a decision: the share's own is for everybody,
 * and the verdict cache may know the rest. */
bool tavrix_must_decide(struct tavrix_connection* tavrix, const struct tavrix_name* name);
/* The client itself was not let, and may be as root what the library grants it. */
bool tavrix_was_refused(ssize_t result);

/* What was made belongs to the settings' user, or to the client. */
void tavrix_give_to_owner(const struct tavrix_connection* tavrix, int fd);
void tavrix_give_folder_to_owner(const struct tavrix_connection* tavrix,
                                 const struct files_struct* dirfsp, const char* name);

/* Each function of the table begins with this. smbd comes back to the table in the middle of an
 * operation, so a function has the slot to itself, and what the one around it has in there waits.
 *
 * The last close of an object whose deletion was asked for deletes it as the user who asked, who
 * may be another than the connection's. So the record is the one of the user that the process works
 * for: decisions are about that one, and events carry its uid.
 *
 * In a debug build the identity at the end is compared with the one at the beginning, and the
 * process ends when they differ. */
struct tavrix_entry {
  struct tavrix_connection* tavrix;
  tx_perm_ctx_t* outer;
  uid_t outer_reserved; /* the library knows one reserved user a process; trees may have others */
  connection_private_data_s* outer_record;
  uid_t real, effective;
  gid_t group;
};
struct tavrix_entry tavrix_enter(struct vfs_handle_struct* handle);
void tavrix_leave(struct tavrix_entry* entry);
#define TAVRIX_ENTER(handle) \
  __attribute__((cleanup(tavrix_leave), unused)) struct tavrix_entry entry_ = tavrix_enter(handle)

/* Records the close of a client's file, a change or a read; as root. */
void tavrix_record_close(struct vfs_handle_struct* handle, int fd, modify_file_evt_s* modified);
/* The name in the group list map of an account of this machine: a new string, or null. */
char* tavrix_key_of_account(const char* unix_name);

/* The record of a user who asked this connection's process for something by another connection. One
 * that nothing is known of has no rights. */
connection_private_data_s* tavrix_record_of_asker(struct vfs_handle_struct* handle, uid_t uid);
void tavrix_free_asker(struct tavrix_connection* tavrix);

/* --- changes and notices -----------------------------------------------------------------------
 */

/* Marks an open file as changed. The first time a note goes to the disk; false with errno when it
 * cannot be written: nothing would tell of the change if this process was killed. */
bool tavrix_note_change(struct vfs_handle_struct* handle, struct files_struct* fsp);

/* Puts a filter before smbd's delivery of change notices: a client gets those about names that it
 * may see. Each create request comes here, for smbd makes the delivery after the connect function
 * and a watch needs a handle; usually the filter is there. Without memory for it there are no
 * notices. */
void tavrix_filter_notices(struct vfs_handle_struct* handle);
/* The module in a connection's stack; null where it is not in it. */
struct vfs_handle_struct* tavrix_handle_of(const struct connection_struct* conn);

/* Names of the settings' patterns may be deleted by everybody, where the settings say so; none when
 * one of the patterns matches every name. */
void tavrix_load_patterns(void);
bool tavrix_may_always_be_deleted(const char* name);

/* --- access -----------------------------------------------------------------------------------
 * Questions to the library, to be asked as root. */

/* The rights of a client that may only look. */
#define TAVRIX_READING (SEC_RIGHTS_FILE_READ | SEC_RIGHTS_FILE_EXECUTE)

bool tavrix_is_folder(const struct files_struct* fsp);
bool tavrix_grants(struct tavrix_connection* tavrix, const char* full, e_fsop_type op);
/* The rights of a client that may write the object: all, but to delete what must stay. */
uint32_t tavrix_all_rights_on(const struct tavrix_connection* tavrix,
                              const struct tavrix_name* name, bool is_folder);
/* All that the client has on an object that exists. */
uint32_t tavrix_rights_on(struct tavrix_connection* tavrix, const struct tavrix_name* name,
                          bool is_folder);
/* The same, and what else a request may name without being refused. */
uint32_t tavrix_rights_to_ask_for(uint32_t rights, bool is_folder);
/* Turns what a request asks for, without generic rights, into what its handle gets. False: it asks
 * for a right that the client has not. */
bool tavrix_resolve_access(uint32_t rights, bool is_folder, uint32_t* access_mask);
/* True if the client may change the folder's own attributes, times and extended attributes. */
bool tavrix_may_write_folder(struct tavrix_connection* tavrix, const struct tavrix_name* name);
/* True if the client may not remove, rename or replace the object, whatever the map says; after a
 * decision, which finds out who is an administrator. */
bool tavrix_must_stay(const struct tavrix_connection* tavrix, const struct tavrix_name* name,
                      bool is_folder);

/* --- changes beside the content ---------------------------------------------------------------
 * Around each call that changes attributes, times or extended attributes. */
struct tavrix_change {
  struct tavrix_connection* tavrix;
  struct tavrix_name name;
  bool is_recorded;
};
/* 0, or -1 with errno: the client may not; then there is nothing to end. */
int tavrix_begin_change(struct vfs_handle_struct* handle, struct files_struct* fsp,
                        struct tavrix_change* change);
/* Records what was done, where a client's request did it. */
void tavrix_end_change(struct vfs_handle_struct* handle, struct files_struct* fsp,
                       const struct tavrix_change* change, bool is_done);

/* --- the functions of the table --------------------------------------------------------------- */

int tavrix_connect(struct vfs_handle_struct* handle, const char* service, const char* user);
void tavrix_disconnect(struct vfs_handle_struct* handle);

NTSTATUS tavrix_create_file(struct vfs_handle_struct* handle, struct smb_request* req,
                            struct files_struct* dirfsp, struct smb_filename* smb_fname,
                            uint32_t access_mask, uint32_t share_access,
                            uint32_t create_disposition, uint32_t create_options,
                            uint32_t file_attributes, uint32_t oplock_request,
                            const struct smb2_lease* lease, uint64_t allocation_size,
                            uint32_t private_flags, struct security_descriptor* sd,
                            struct ea_list* ea_list, files_struct** result, int* pinfo,
                            const struct smb2_create_blobs* in_context_blobs,
                            struct smb2_create_blobs* out_context_blobs);

int tavrix_openat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                  const struct smb_filename* smb_fname, struct files_struct* fsp,
                  const struct vfs_open_how* how);
int tavrix_close(struct vfs_handle_struct* handle, struct files_struct* fsp);
NTSTATUS tavrix_durable_disconnect(struct vfs_handle_struct* handle, struct files_struct* fsp,
                                   const DATA_BLOB old_cookie, TALLOC_CTX* mem_ctx,
                                   DATA_BLOB* new_cookie);
int tavrix_unlinkat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                    const struct smb_filename* smb_fname, int flags);
int tavrix_fchmod(struct vfs_handle_struct* handle, struct files_struct* fsp, mode_t mode);
NTSTATUS tavrix_fset_dos_attributes(struct vfs_handle_struct* handle, struct files_struct* fsp,
                                    uint32_t dosmode);
int tavrix_fntimes(struct vfs_handle_struct* handle, struct files_struct* fsp,
                   struct smb_file_time* ft);

ssize_t tavrix_fgetxattr(struct vfs_handle_struct* handle, struct files_struct* fsp,
                         const char* name, void* value, size_t size);
ssize_t tavrix_flistxattr(struct vfs_handle_struct* handle, struct files_struct* fsp, char* list,
                          size_t size);
int tavrix_fsetxattr(struct vfs_handle_struct* handle, struct files_struct* fsp, const char* name,
                     const void* value, size_t size, int flags);
int tavrix_fremovexattr(struct vfs_handle_struct* handle, struct files_struct* fsp,
                        const char* name);

ssize_t tavrix_pwrite(struct vfs_handle_struct* handle, struct files_struct* fsp, const void* data,
                      size_t n, off_t offset);
struct tevent_req* tavrix_pwrite_send(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                                      struct tevent_context* ev, struct files_struct* fsp,
                                      const void* data, size_t n, off_t offset);
ssize_t tavrix_pwrite_recv(struct tevent_req* req, struct vfs_aio_state* state);
ssize_t tavrix_recvfile(struct vfs_handle_struct* handle, int from_fd, files_struct* to_fsp,
                        off_t offset, size_t count);
int tavrix_ftruncate(struct vfs_handle_struct* handle, struct files_struct* fsp, off_t offset);
int tavrix_fallocate(struct vfs_handle_struct* handle, struct files_struct* fsp, uint32_t mode,
                     off_t offset, off_t len);
struct tevent_req* tavrix_offload_write_send(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                                             struct tevent_context* ev, uint32_t fsctl,
                                             DATA_BLOB* token, off_t transfer_offset,
                                             struct files_struct* dest_fsp, off_t dest_off,
                                             off_t to_copy);
NTSTATUS tavrix_offload_write_recv(struct vfs_handle_struct* handle, struct tevent_req* req,
                                   off_t* copied);

int tavrix_mkdirat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, mode_t mode);
DIR* tavrix_fdopendir(struct vfs_handle_struct* handle, files_struct* fsp, const char* mask,
                      uint32_t attributes);
struct dirent* tavrix_readdir(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                              DIR* dirp, SMB_STRUCT_STAT* sbuf);
int tavrix_chdir(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname);
struct smb_filename* tavrix_realpath(struct vfs_handle_struct* handle, TALLOC_CTX* ctx,
                                     const struct smb_filename* smb_fname);

int tavrix_renameat(struct vfs_handle_struct* handle, struct files_struct* srcdir_fsp,
                    const struct smb_filename* smb_fname_src, struct files_struct* dstdir_fsp,
                    const struct smb_filename* smb_fname_dst);

int tavrix_stat(struct vfs_handle_struct* handle, struct smb_filename* smb_fname);
int tavrix_lstat(struct vfs_handle_struct* handle, struct smb_filename* smb_fname);
int tavrix_fstatat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, SMB_STRUCT_STAT* sbuf, int flags);
int tavrix_statvfs(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                   struct vfs_statvfs_struct* statbuf);
uint64_t tavrix_disk_free(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                          uint64_t* bsize, uint64_t* dfree, uint64_t* dsize);
int tavrix_get_quota(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                     enum SMB_QUOTA_TYPE qtype, unid_t id, SMB_DISK_QUOTA* qt);
int tavrix_set_quota(struct vfs_handle_struct* handle, enum SMB_QUOTA_TYPE qtype, unid_t id,
                     SMB_DISK_QUOTA* qt);

bool tavrix_is_refused_request(const struct smb_request* req);
int tavrix_linkat(struct vfs_handle_struct* handle, struct files_struct* srcfsp,
                  const struct smb_filename* old_smb_fname, struct files_struct* dstfsp,
                  const struct smb_filename* new_smb_fname, int flags);
int tavrix_symlinkat(struct vfs_handle_struct* handle, const struct smb_filename* link_contents,
                     struct files_struct* dirfsp, const struct smb_filename* new_smb_fname);
int tavrix_mknodat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, mode_t mode, SMB_DEV_T dev);
NTSTATUS tavrix_create_dfs_pathat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                                  const struct smb_filename* smb_fname,
                                  const struct referral* reflist, size_t referral_count);
NTSTATUS tavrix_snap_create(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                            const char* base_volume, time_t* tstamp, bool rw, char** base_path,
                            char** snap_path);
NTSTATUS tavrix_snap_delete(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx, char* base_path,
                            char* snap_path);
int tavrix_fchown(struct vfs_handle_struct* handle, struct files_struct* fsp, uid_t uid, gid_t gid);
int tavrix_lchown(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname, uid_t uid,
                  gid_t gid);
int tavrix_sys_acl_set_fd(struct vfs_handle_struct* handle, struct files_struct* fsp,
                          SMB_ACL_TYPE_T type, SMB_ACL_T theacl);
int tavrix_sys_acl_delete_def_fd(struct vfs_handle_struct* handle, struct files_struct* fsp);

NTSTATUS tavrix_fget_nt_acl(struct vfs_handle_struct* handle, struct files_struct* fsp,
                            uint32_t security_info, TALLOC_CTX* mem_ctx,
                            struct security_descriptor** ppdesc);
NTSTATUS tavrix_fset_nt_acl(struct vfs_handle_struct* handle, struct files_struct* fsp,
                            uint32_t security_info_sent, const struct security_descriptor* psd);

#endif
