// SPDX-License-Identifier: GPL-3.0-or-later
/* The reference module of libtavrix for Samba.
 *
 * Copyright (C) 2026 the libtavrix developers. This module is free software under the terms of the
 * GNU General Public License, version 3 or later, as Samba is (see LICENSES/).
 *
 * Every function of the table asks the library before the operation, runs the operation as root
 * when the library left it root, gives root back on every path, and records what succeeded. */
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
/* The build script names the series. */
#ifndef TAVRIX_INTERFACE_VERSION
#define TAVRIX_INTERFACE_VERSION SMB_VFS_INTERFACE_VERSION
#endif

struct vfs_rename_how; /* smbd has it since version 50 of its interface */

/* One connection of a client to a share. */
struct tavrix_connection {
  connection_private_data_s* record; /* the user that the process works for: usually own */
  connection_private_data_s* own;    /* the connection's user */
  connection_private_data_s asker;   /* another user, see tavrix_enter() */
  tx_perm_ctx_t* perm_ctx; /* the slot of hooks that leave the process root; null between them */
  const char* tree;        /* the tree's root, TAVRIX_TREE; the hooks call it the connect path */
  const char* root;        /* the same folder with its links resolved, as smbd names folders */
  const char* client;      /* the client's address, for audit records */
  int audit;
  uid_t owner_uid; /* owns what clients make; -1: the client does */
  gid_t owner_gid;
  struct GUID login;  /* the login that the identity is of; a session may log in again */
  bool is_lost;       /* everything is refused: a later login has no usable identity, or the
                         node's lease is over */
  bool is_fenced;     /* see fence.c */
  uid_t reserved_uid; /* the agent, whose changes are not recorded; -1: none */
  /* The grant of the create request that is under way, so that the functions it calls do not ask
   * the same question again. The path is null outside of a request. */
  const char* granted_path;
  e_fsop_type granted_op;
  int is_granted_new; /* the object was not there when the request was granted */
  int changes;        /* nested changes of attributes, times or extended attributes under way */
  struct tavrix_listing* listings; /* the folders that the client lists */
  /* See tavrix_request() and tavrix_generation(). */
  struct tevent_immediate* next_request;
  bool is_request_numbered; /* next_request is due after the request under way */
  uint64_t request;
  uint64_t generation;
  /* See tavrix_refresh_identity(). */
  const connection_private_data_s* refreshed;
  uint64_t refreshed_in;
  /* The session, see session.c. */
  bool has_session;
  struct tevent_context* events;   /* smbd's loop; null: there is none */
  struct tevent_timer* idle_timer; /* null while the process keeps nothing attached */
  unsigned decisions_before;       /* of this process when the timer was set */
};

/* The module's state of an open file or folder. */
struct tavrix_open {
  /* A file. */
  bool is_clients;            /* a client opened it: record its close; smbd's own opens are not */
  modify_file_evt_s modified; /* says whether it changed */
  struct open_note note;      /* stands on the disk while it is changed */
  /* A watched folder: the first notice of a rename, held until the second comes. */
  char* old_name;
  struct timespec old_when;
};
/* The state of an open object; null when there is none. */
struct tavrix_open* tavrix_open_of(struct vfs_handle_struct* handle, struct files_struct* fsp);
/* The same, made when it is missing; null without memory. */
struct tavrix_open* tavrix_keep_open(struct vfs_handle_struct* handle, struct files_struct* fsp);

/* The connection of a handle; null before connect and after disconnect. */
struct tavrix_connection* tavrix_connection_of(struct vfs_handle_struct* handle);
/* True for a handle with a connection that has an identity; else false with errno EACCES. smbd
 * calls the table only between connect and disconnect, so refusing there costs nothing. */
bool tavrix_is_connected(struct vfs_handle_struct* handle);
const char* tavrix_option(struct vfs_handle_struct* handle, const char* name,
                          const char* otherwise);

/* Writes a line for the operator into the server's log and the system log. */
void tavrix_complain(const char* format, ...) PRINTF_ATTRIBUTE(1, 2);

/* Registers the table with a server of the series that the module is built for. Any other server
 * gets an error, after a line that says why nobody may connect. */
NTSTATUS tavrix_register(const struct vfs_fn_pointers* functions);

/* --- a connection begins -----------------------------------------------------------------------
 * 0, or -1 after a line that says why nobody may connect. */

/* Takes a new snapshot of the settings and reads the pattern file that they name. */
int tavrix_load_settings(void);
/* Asks whether this node may serve clients, if the share is behind the fence. */
int tavrix_raise_fence(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix);
/* True when the node's lease is over: nothing may be decided any more, and the process ends before
 * its next request. Costs no system call while the lease holds. */
bool tavrix_is_fenced_off(const struct tavrix_connection* tavrix);
/* Writes the client's identity into the connection's record. */
int tavrix_identify_client(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix);
/* Does that again when the session has logged in again; each function of the table calls it. */
void tavrix_notice_login(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix);
/* Writes a line for each setting of the share that leaves a gap. */
void tavrix_warn_about_share(struct vfs_handle_struct* handle);

/* --- the session -------------------------------------------------------------------------------
 * Between requests a process keeps the map table and the staging buffer attached, until no decision
 * was made for a quarter of a second. */

void tavrix_open_session(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix);
/* Detaches everything and closes the session, if it is open. */
void tavrix_close_session(struct tavrix_connection* tavrix);
/* Says that decisions are about to be made. Each function that becomes root for decisions does. */
void tavrix_note_decisions(void);
/* Sets the timer if something is attached now. Each function of the table ends with this. */
void tavrix_watch_session(struct tavrix_connection* tavrix);

/* Decisions in a row, to the end of the block: they look for the current table once. The block has
 * no call to smbd or to the next module, and no hook that leaves the process root. */
static inline void tavrix_end_scope_of(const int* unused) { tavrix_scope_end(); }
static inline int tavrix_begin_scope_of(void) {
  tavrix_scope_begin();
  return 0;
}
#define TAVRIX_DECISIONS() \
  __attribute__((cleanup(tavrix_end_scope_of), unused)) const int scope_ = tavrix_begin_scope_of()

/* --- names -------------------------------------------------------------------------------------
 * The library takes names relative to the tree, and full paths. smbd's names are relative to its
 * working folder, to an open folder, or to the share. The name of the tree's root is its full path,
 * as the hooks know it.
 *
 * A function that makes a name returns 0, or -1 with errno, and its caller refuses the operation
 * with that errno. ENOMEM: no memory for the name. EACCES: the name lies outside the tree, the
 * handle is not connected, or smbd did not give the folder that the name is relative to. */
struct tavrix_name {
  const char* name; /* relative to the tree */
  const char* full; /* the tree's root, a slash, the name */
};
/* Of a name relative to smbd's working folder. */
int tavrix_name_of(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, const char* base_name,
                   struct tavrix_name* out);
/* Of a name relative to an open folder. */
int tavrix_name_at(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                   const struct files_struct* dirfsp, const struct smb_filename* smb_fname,
                   struct tavrix_name* out);
/* Of a name relative to the share. */
int tavrix_name_in_share(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, const char* name,
                         struct tavrix_name* out);
/* Respells a name in the private area as the disk has it, on a share where case does not matter. */
int tavrix_spell(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, struct tavrix_name* name);
/* The name that the kernel has for an open descriptor. Call it as root. */
int tavrix_name_of_fd(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, int fd,
                      struct tavrix_name* out);
/* Replaces the name of a link by the name of the object that smbd found behind it. 1: replaced, 0:
 * no link, -1: the object has no name. Call it as root. */
int tavrix_name_behind_link(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                            const struct smb_filename* smb_fname, struct tavrix_name* name);
/* The name by which smbd opens a link's target itself; null when the target is outside the share or
 * cannot be opened. */
struct smb_filename* tavrix_follow(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                                   const struct smb_filename* link,
                                   const struct tavrix_name* target);
/* True for a folder above the tree, named by its absolute path: no client can name it, but smbd
 * passes it on the way from the root folder to the share. */
bool tavrix_is_above_tree(TALLOC_CTX* ctx, struct vfs_handle_struct* handle,
                          const struct files_struct* dirfsp, const struct smb_filename* smb_fname);
/* True for the tree's root. */
int tavrix_is_tree(const struct tavrix_connection* tavrix, const struct tavrix_name* name);

/* --- identity ---------------------------------------------------------------------------------
 * A change of identity costs about as much as opening a file, and the library makes many short
 * ones. So a function that asks for a decision becomes root once, with user and group, and asks,
 * works and records as root; the library then finds nothing to change. A function that needs no
 * decision tries the client's own identity first. */

/* Becomes root for an operation that needs no decision. 0 or -1 with errno. */
int tavrix_raise(struct tavrix_connection* tavrix);
/* Gives back root that tavrix_raise() took or a hook left. errno survives. */
void tavrix_give_back(struct tavrix_connection* tavrix);

/* Root with user and group to the end of the block. Does nothing when the process is root already
 * or cannot become root; in the second case the library switches for itself. Inside the block
 * refresh_credentials() does not see the client: only the refresh files renew the identity then. */
struct tavrix_root {
  tx_perm_ctx_t before; /* the user ids, if they were changed */
  bool is_raised;
  gid_t group; /* -1: was not changed */
};
struct tavrix_root tavrix_become_root_if(bool wanted);
void tavrix_end_root(struct tavrix_root* root);
#define TAVRIX_AS_ROOT_IF(wanted)                                              \
  __attribute__((cleanup(tavrix_end_root), unused)) struct tavrix_root root_ = \
      tavrix_become_root_if(wanted)
#define TAVRIX_AS_ROOT() TAVRIX_AS_ROOT_IF(true)

/* True if a status query about the name needs a decision. The tree's root needs none, nor does a
 * name whose verdict is cached. */
bool tavrix_must_decide(struct tavrix_connection* tavrix, const struct tavrix_name* name);
/* True if a call failed for want of permission: the caller tries it again as root. */
bool tavrix_was_refused(ssize_t result);

/* Give a new file or folder to the owner that the settings name, or to the client. */
void tavrix_give_to_owner(const struct tavrix_connection* tavrix, int fd);
void tavrix_give_folder_to_owner(const struct tavrix_connection* tavrix,
                                 const struct files_struct* dirfsp, const char* name);

/* Each function of the table begins with TAVRIX_ENTER. smbd calls the table again in the middle of
 * an operation, so the entry puts the outer function's slot aside and gives the inner one an empty
 * slot.
 *
 * The last close of an object carries out a deletion that any user asked for, as that user. So the
 * entry selects the record of the user that the process works for: decisions are about that user,
 * and events carry its uid.
 *
 * A debug build compares the identity at the end with the one at the beginning and ends the process
 * when they differ. */
struct tavrix_entry {
  struct tavrix_connection* tavrix;
  tx_perm_ctx_t* outer;
  uid_t outer_reserved; /* the library has one reserved user a process, each share has its own */
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
/* The name that an account of this machine has in the group list map: a new string, or null. */
char* tavrix_key_of_account(const char* unix_name);

/* The record of a user who is not the connection's own and whose deletion this process carries out.
 * A user whose groups are unknown has no rights. */
connection_private_data_s* tavrix_record_of_asker(struct vfs_handle_struct* handle, uid_t uid);
void tavrix_free_asker(struct tavrix_connection* tavrix);

/* --- what was decided before -------------------------------------------------------------------
 * Verdicts may serve again within a request and for a second, unless the identity was renewed. */

/* A number for the client's request under way, which no later request has. Where requests cannot be
 * told apart, each call gives another number. */
uint64_t tavrix_request(struct vfs_handle_struct* handle);
/* Renews the identity of the present record when a refresh file was touched. Looks at the files
 * once a request. Call it as the client. */
void tavrix_refresh_identity(struct vfs_handle_struct* handle);
/* A number that changes when the identity of the present record is renewed. */
uint64_t tavrix_generation(struct tavrix_connection* tavrix);
/* True if the name is that of the entry of a folder that the client was just shown, in the same
 * request: then it may have its status, without another decision. */
bool tavrix_is_shown(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                     const struct smb_filename* smb_fname);

/* --- changes and notices --------------------------------------------------------------------- */

/* Marks an open file as changed. The first change writes a note to the disk. False with errno when
 * the note cannot be written: then the file must not change, because the event would be lost if
 * this process was killed. */
bool tavrix_note_change(struct vfs_handle_struct* handle, struct files_struct* fsp);

/* Puts a filter before smbd's delivery of change notices, so that a client gets notices only about
 * names that it may see. Each create request calls this: smbd sets up the delivery after the
 * connect function, and a watch needs a handle. Does nothing when the filter is there. Without
 * memory for the filter there are no notices. */
void tavrix_filter_notices(struct vfs_handle_struct* handle);
/* The module's handle in a connection's stack; null when the module is not in it. */
struct vfs_handle_struct* tavrix_handle_of(const struct connection_struct* conn);

/* Reads the settings' pattern file again when it has changed. */
void tavrix_load_patterns(void);
/* True if the settings let everybody delete files of that name. Always false when one of the
 * patterns matches every name. */
bool tavrix_may_always_be_deleted(const char* name);

/* --- access -----------------------------------------------------------------------------------
 * Questions to the library. Ask them as root. */

/* The rights of a client that may only read. */
#define TAVRIX_READING (SEC_RIGHTS_FILE_READ | SEC_RIGHTS_FILE_EXECUTE)

bool tavrix_is_folder(const struct files_struct* fsp);
bool tavrix_grants(struct tavrix_connection* tavrix, const char* full, e_fsop_type op);
/* The rights of a client that may write the object: all of them, without deleting when the object
 * must stay. */
uint32_t tavrix_all_rights_on(const struct tavrix_connection* tavrix,
                              const struct tavrix_name* name, bool is_folder);
/* The client's rights on an object that exists. */
uint32_t tavrix_rights_on(struct tavrix_connection* tavrix, const struct tavrix_name* name,
                          bool is_folder);
/* These rights and those that a request may name besides them without being refused. */
uint32_t tavrix_rights_to_ask_for(uint32_t rights, bool is_folder);
/* Turns the access that a request asks for, without generic rights, into the access of its handle.
 * False when it asks for a right that the client does not have. */
bool tavrix_resolve_access(uint32_t rights, bool is_folder, uint32_t* access_mask);
/* True if the client may change the folder's own attributes, times and extended attributes. */
bool tavrix_may_write_folder(struct tavrix_connection* tavrix, const struct tavrix_name* name);
/* True if the client may not remove, rename or replace the object, whatever the map says. Call it
 * after a decision, which finds out whether the client is an administrator. */
bool tavrix_must_stay(const struct tavrix_connection* tavrix, const struct tavrix_name* name,
                      bool is_folder);

/* --- changes of attributes, times and extended attributes --------------------------------------
 * Each call that makes one stands between begin and end. */
struct tavrix_change {
  struct tavrix_connection* tavrix;
  struct tavrix_name name;
  bool is_recorded;
};
/* 0, or -1 with errno when the client may not; then there is nothing to end. */
int tavrix_begin_change(struct vfs_handle_struct* handle, struct files_struct* fsp,
                        struct tavrix_change* change);
/* Records the change when it was done, and done for a client's request. */
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
long tavrix_telldir(struct vfs_handle_struct* handle, DIR* dirp);
void tavrix_seekdir(struct vfs_handle_struct* handle, DIR* dirp, long offset);
void tavrix_rewinddir(struct vfs_handle_struct* handle, DIR* dirp);
int tavrix_closedir(struct vfs_handle_struct* handle, DIR* dirp);
int tavrix_chdir(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname);
struct smb_filename* tavrix_realpath(struct vfs_handle_struct* handle, TALLOC_CTX* ctx,
                                     const struct smb_filename* smb_fname);

int tavrix_renameat(struct vfs_handle_struct* handle, struct files_struct* srcdir_fsp,
                    const struct smb_filename* smb_fname_src, struct files_struct* dstdir_fsp,
                    const struct smb_filename* smb_fname_dst, const struct vfs_rename_how* how);

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

#include "compatibility.h"

#endif
