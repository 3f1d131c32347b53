// SPDX-License-Identifier: LGPL-3.0-or-later
/* The operation hooks: a Samba module calls them before and after each operation of a client.
 *
 * A "preprocess" hook decides; 0 lets the operation go on, -1 with errno refuses it and changes
 * nothing. A "postprocess" hook, called only after the operation succeeded, records it. Call them
 * from the connection's one thread; a switch of identity is the whole process's. No hook blocks,
 * except those that record: they wait while the staging buffer is full.
 *
 * Every comment says what a hook leaves:
 *   "root on 0"   the process is root when the hook returns 0, for the operation itself. Afterwards
 *                 give it back with tavrix_vfs_unbecome_root(*perm_ctx) when the slot is set, and
 *                 clear the slot; it stays null when the process was root already.
 *   "not root"    the identity is what it was.
 * On -1 the identity is always what it was and the slot is null. `perm_ctx` is the module's slot
 * for that context: null before the call. errno of a refusal is EACCES unless a hook says
 * otherwise.
 *
 * `connectpath` is the tree's root, TAVRIX_TREE. `base_name`, `path`, `nlpath` and `fname` are
 * names relative to it, `full_path` is the root, a slash and the name. All strings stay the
 * caller's, and the library keeps none; the comment says where a hook makes a new one.
 * `private_data` is the connection's record (tavrix_structs.h).
 *
 * Events and audit records carry private_data->refresh_creds.euid; those of uid 0 and of the
 * reserved user are not recorded. Where a hook "stamps", the name user_name_as_passed_in becomes an
 * extended attribute of the object, which must exist by then.
 */
#ifndef TAVRIX_PROCESSING_FUNCTIONS_H
#define TAVRIX_PROCESSING_FUNCTIONS_H

#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "tavrix_api.h"
#include "tavrix_structs.h"
#include "tavrix_utils.h"

TAVRIX_BEGIN_DECLS

/* --- connection ----------------------------------------------------------------------------- */

/* Called when a client connects to the share, as root, after read_tavrix_config(). Fill
 * user_name_as_passed_in, reserved_user, config and refresh_creds.euid of a zeroed record before.
 * Adds 1 to `*number_of_connected_users`, which the module lowers itself. `user` is not used.
 * 0; -1 when the permission map's semaphores cannot be had: no user is counted then. */
TAVRIX_API int connect_preprocess(const char* user, connection_private_data_s* private_data,
                                  int audit_enabled, int* number_of_connected_users);
/* Called when the connection ends. Frees the cached verdicts and flushes what the buffers hold. The
 * record stays the module's: free groupmap.gids, pmodify, curr_open_dir and the record itself
 * after. */
TAVRIX_API void disconnect_preprocess(connection_private_data_s* private_data, int audit_enabled);

/* --- files ---------------------------------------------------------------------------------- */

/* The result of open_preprocess() for a null base_name: it decided nothing. */
#define TAVRIX_OPEN_WITHOUT_A_NAME 12

/* Before a file is opened. Not root.
 * `*open_mode`  in: what is wanted, from mode2tavrixmode(). Out: OPENMODE_WRITE where it was
 *               OPENMODE_CREATE or OPENMODE_CHATTR.
 * `*op`         out: the operation that was decided.
 * `*full_path`  in: the file's full path; not changed.
 * `*newly_created_file`  in: 0. Out: 1 when there is no such file; hand it to open_postprocess().
 * `*st`         out: the file as root sees it; zeroed when there is none.
 * `is_delete_folder_access`  the client opens to delete: "Private", what lies in it directly, and,
 *               but for administrators, fixed folders below "Shared" are refused.
 * `remote_hostname`  for the audit record of an open to read; may be null. */
TAVRIX_API int open_preprocess(const char* connectpath, const char* base_name,
                               e_open_mode* open_mode, e_fsop_type* op, char** full_path,
                               int* newly_created_file, int is_delete_folder_access,
                               connection_private_data_s* private_data, struct stat* st,
                               const char* remote_hostname, tx_perm_ctx_t** perm_ctx,
                               int audit_enabled);
/* After a successful open: records the creation of a new file, without a stamp. Always 0. Not
 * root; `st` and `perm_ctx` are not used. */
TAVRIX_API int open_postprocess(struct stat* st, tx_perm_ctx_t** perm_ctx, char** full_path,
                                int newly_created_file, connection_private_data_s* private_data);
/* Before a descriptor is closed: records and stamps a changed file under the name that the open
 * descriptor has now, or audits an unchanged one. Not root.
 * `*pmodify`  in: the file's own modify record, or null. Out: private_data->pmodify when that is
 *             set. The record that counts has is_modified 1 for a changed file, which becomes 0, or
 *             0 for an unchanged one; without a record nothing is recorded.
 * `connection_valid`  0: the connection is going away, record nothing. */
TAVRIX_API void close_preprocess(int audit_enabled, int closefd,
                                 connection_private_data_s* private_data,
                                 modify_file_evt_s** pmodify, int connection_valid,
                                 const char* remote_hostname);
/* Before an SMB create request for a file. Root on 0.
 * `*full_path`    in: the file's full path; not changed.
 * `*file_exists`  out: 1 or 0, also on a refusal.
 * `access_mask`, `create_disposition`, `create_options`  the protocol's own numbers; only the
 * disposition (0 to 5) and `write_access_requested` decide. `base_name` is for messages. */
TAVRIX_API int create_file_preprocess(int write_access_requested, char** full_path,
                                      const char* nlpath, const char* base_name,
                                      tx_perm_ctx_t** perm_ctx, int* file_exists,
                                      uint32_t access_mask, uint32_t create_disposition,
                                      uint32_t create_options, const char* connectpath,
                                      connection_private_data_s* private_data);
/* After a request that made a file: records its creation, with a stamp. */
TAVRIX_API void create_file_postprocess(connection_private_data_s* private_data,
                                        const char* full_path);
/* Before a file is deleted: a client that may write it may delete it. ENOMEM for a null name. Root
 * on 0. */
TAVRIX_API int unlink_preprocess(const char* connectpath, const char* base_name,
                                 const char* full_path, connection_private_data_s* private_data,
                                 tx_perm_ctx_t** perm_ctx);
/* After a file was deleted: records the deletion. */
TAVRIX_API void unlink_postprocess(const char* full_path, connection_private_data_s* private_data);
/* Before a file's times are set; nothing is decided. ENOMEM without a name or memory. Root on 0,
 * unless root cannot be had, which is only logged.
 * `*full_path`  out: a new string; free() it, also when the operation fails. Null on -1. */
TAVRIX_API int ntimes_file_preprocess(char** full_path, const char* connectpath,
                                      const char* base_name, tx_perm_ctx_t** perm_ctx);
/* After the times were set: records a change, with a stamp. */
TAVRIX_API void ntimes_file_postprocess(const char* full_path,
                                        connection_private_data_s* private_data);
/* Around setting a folder's times: root, and back. Nothing is decided or recorded. The second
 * frees the context: clear the slot. */
TAVRIX_API void ntimes_dir_preprocess(tx_perm_ctx_t** perm_ctx, const char* base_name);
TAVRIX_API void ntimes_dir_postprocess(tx_perm_ctx_t* perm_ctx);

/* --- folders -------------------------------------------------------------------------------- */

/* Before a folder is opened by name for listing. Root on 0; keep it until the folder is open.
 * The folder that is decided about is `cwd`: enter it and pass "." as `fname`, with `cwd` absolute
 * or relative to the share.
 * `*nlpath`  out: a new string, the folder relative to the share; free() it. Null on -1.
 * `*is_nav`  out: 1 when the folder may be seen and passed, not read. */
TAVRIX_API int opendir_preprocess(const char* fname, const char* cwd, const char* connectpath,
                                  char** nlpath, tx_perm_ctx_t** perm_ctx,
                                  connection_private_data_s* private_data, int* is_nav);
/* Before a folder that is open is listed. Root on 0. `*is_nav` as above. `delete_access`: the
 * client opened it to delete it, which fixed folders below "Shared" allow administrators only. */
TAVRIX_API int fdopendir_preprocess(const char* connectpath, const char* fname, int delete_access,
                                    connection_private_data_s* private_data, int* is_nav,
                                    tx_perm_ctx_t** perm_ctx);
/* For each entry of a listing. Not root.
 * `*allowed`   out: a TXPERMS_ verdict; list the entry on TXPERMS_HAS_PERMS only.
 * `nlpath`     the entry's name. `base` is its folder, relative to the share.
 * `full_path`  the caller's buffer of `full_path_size` bytes, zeroed, then "base/nlpath". A name
 *              that does not fit is not allowed.
 * The verdict stays in the cache: stat_preprocess() of the entry finds it there. */
TAVRIX_API void readir_postprocess(int* allowed, const char* nlpath, const char* base,
                                   char* full_path, int full_path_size, const char* connectpath,
                                   connection_private_data_s* private_data);
/* Before a folder is made. Root on 0. `path` is not used. */
TAVRIX_API int mkdir_preprocess(const char* connectpath, const char* path, const char* full_path,
                                connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx);
/* After a folder was made: records it, with a stamp. */
TAVRIX_API void mkdir_postprocess(connection_private_data_s* private_data, char** full_path);
/* Before an SMB create request for a folder; `create_dir`: it is to be made, else it is opened.
 * `*full_path` must be set; a null one ends the process. EACCES on a refusal; ENOMEM when root
 * cannot be had. Root on 0. */
TAVRIX_API int create_dir_preprocess(int is_delete_access, const char* nlpath, char** full_path,
                                     int create_dir, const char* connectpath,
                                     connection_private_data_s* private_data,
                                     tx_perm_ctx_t** perm_ctx);
/* After a request that made a folder: records it, with a stamp. */
TAVRIX_API void create_dir_postprocess(const char* full_path,
                                       connection_private_data_s* private_data);
/* Before a folder is removed. EPERM on every refusal. Root on 0. */
TAVRIX_API int rmdir_preprocess(const char* full_path, const char* connectpath, const char* path,
                                connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx);
/* After a folder was removed: records the removal. */
TAVRIX_API void rmdir_postprocess(const char* full_path, connection_private_data_s* private_data);
/* Before the working folder changes. `path` is relative to the share, or "/" or `connectpath` for
 * the share itself, which everybody may enter. ENOMEM for a null path. Root on 0. */
TAVRIX_API int chdir_preprocess(const char* path, const char* connectpath,
                                connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx);

/* --- rename --------------------------------------------------------------------------------- */

/* Before a file or folder is renamed or moved. ENOENT when the source cannot be looked at. Root on
 * 0. `*isdir` out: 1 for a folder, 0 for a file; hand it to rename_postprocess(). `*is_nav` out:
 * as for opendir_preprocess(), of the destination. */
TAVRIX_API int rename_preprocess(const char* connectpath, const char* sfull_path,
                                 const char* dfull_path, tx_perm_ctx_t** perm_ctx, int* isdir,
                                 connection_private_data_s* private_data, int* is_nav);
/* After a rename or a move: records it under both paths, and stamps the object. */
TAVRIX_API void rename_postprocess(const char* new_full_path, const char* old_full_path, int isdir,
                                   connection_private_data_s* private_data);

/* --- status --------------------------------------------------------------------------------- */

/* Before a stat that follows links. Calls refresh_credentials() first, so this is where a
 * connection notices new maps, new groups and another user; then answers from the verdict cache.
 * EPERM on a refusal, ENOMEM for a null name. Root on 0. */
TAVRIX_API int stat_preprocess(connection_private_data_s* private_data, const char* base_name,
                               const char* connectpath, tx_perm_ctx_t** perm_ctx);
/* Before a stat that does not. Decided afresh, without a refresh. ENOMEM for a null name. Root on
 * 0. */
TAVRIX_API int lstat_preprocess(const char* connectpath, const char* base_name,
                                tx_perm_ctx_t** perm_ctx, connection_private_data_s* private_data);
/* Before a client gets the size of the file system. `path` must be `connectpath` itself, whatever
 * the client asked about: the share's root is granted to everybody, and anywhere else there is no
 * rule for the operation, which ends the process. ENOMEM for a null path. Root on 0. */
TAVRIX_API int statvfs_preprocess(const char* connectpath, const char* path,
                                  connection_private_data_s* private_data,
                                  tx_perm_ctx_t** perm_ctx);

TAVRIX_END_DECLS

#endif
