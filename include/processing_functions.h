/* The operation hooks: what a Samba module calls before and after each operation of a client.
 *
 * A "preprocess" hook decides; 0 lets the operation go on, -1 with errno refuses it and changes
 * nothing. A "postprocess" hook, called after an operation that succeeded, records it. Call them
 * from the connection's one thread; a switch of identity is the whole process's.
 *
 * `perm_ctx` is the module's slot for a privilege context, null before the call. Where a hook says
 * "root on 0", the process is root when it returns 0, for the operation itself: give it back
 * afterwards with tavrix_vfs_unbecome_root(*perm_ctx) when the slot is set (it stays null when the
 * process was root already). On -1 the identity is what it was, and the slot is null.
 *
 * `connectpath` is the share's root, `base_name`, `path` and `nlpath` are the client's names below
 * it, `full_path` is the root, a slash and the name. errno is EACCES unless a hook says otherwise.
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

/* Fill user_name_as_passed_in, reserved_user, config and refresh_creds.euid of the record before.
 * -1, and no user counted, when the permission map's semaphores cannot be had. `user` is not used.
 */
TAVRIX_API int connect_preprocess(const char* user, connection_private_data_s* private_data,
                                  int audit_enabled, int* number_of_connected_users);
/* Forgets the cached verdicts and flushes what the buffers hold. The record stays the module's. */
TAVRIX_API void disconnect_preprocess(connection_private_data_s* private_data, int audit_enabled);

/* --- files ---------------------------------------------------------------------------------- */

#define TAVRIX_OPEN_WITHOUT_A_NAME 12 /* open_preprocess() of a null base_name */

/* `*open_mode` says what is wanted and becomes OPENMODE_WRITE where it creates or changes; `*op` is
 * the operation that was asked; `*newly_created_file` becomes 1 for a missing file; `*st` is the
 * file as root sees it. Not root on return. */
TAVRIX_API int open_preprocess(const char* connectpath, const char* base_name,
                               e_open_mode* open_mode, e_fsop_type* op, char** full_path,
                               int* newly_created_file, int is_delete_folder_access,
                               connection_private_data_s* private_data, struct stat* st,
                               const char* remote_hostname, tx_perm_ctx_t** perm_ctx,
                               int audit_enabled);
/* Records the creation of a new file. Always 0. */
TAVRIX_API int open_postprocess(struct stat* st, tx_perm_ctx_t** perm_ctx, char** full_path,
                                int newly_created_file, connection_private_data_s* private_data);
/* Records the change of a file that is closed, under the name that its descriptor has now. Takes
 * the record's pmodify into `*pmodify` when it is set, and clears is_modified there. */
TAVRIX_API void close_preprocess(int audit_enabled, int closefd,
                                 connection_private_data_s* private_data,
                                 modify_file_evt_s** pmodify, int connection_valid,
                                 const char* remote_hostname);
/* An SMB create request for a file; `create_disposition` is the protocol's number. Root on 0. */
TAVRIX_API int create_file_preprocess(int write_access_requested, char** full_path,
                                      const char* nlpath, const char* base_name,
                                      tx_perm_ctx_t** perm_ctx, int* file_exists,
                                      uint32_t access_mask, uint32_t create_disposition,
                                      uint32_t create_options, const char* connectpath,
                                      connection_private_data_s* private_data);
TAVRIX_API void create_file_postprocess(connection_private_data_s* private_data,
                                        const char* full_path);
/* ENOMEM for a null name. Root on 0. */
TAVRIX_API int unlink_preprocess(const char* connectpath, const char* base_name,
                                 const char* full_path, connection_private_data_s* private_data,
                                 tx_perm_ctx_t** perm_ctx);
TAVRIX_API void unlink_postprocess(const char* full_path, connection_private_data_s* private_data);
/* `*full_path` becomes a new string of the caller's; ENOMEM without one. Root on 0, unless that
 * fails, which is logged only. There is no decision about times. */
TAVRIX_API int ntimes_file_preprocess(char** full_path, const char* connectpath,
                                      const char* base_name, tx_perm_ctx_t** perm_ctx);
TAVRIX_API void ntimes_file_postprocess(const char* full_path,
                                        connection_private_data_s* private_data);
TAVRIX_API void ntimes_dir_preprocess(tx_perm_ctx_t** perm_ctx, const char* base_name);
/* Gives root back and frees the context; do not use it again. */
TAVRIX_API void ntimes_dir_postprocess(tx_perm_ctx_t* perm_ctx);

/* --- folders -------------------------------------------------------------------------------- */

/* `*nlpath` becomes a new string of the caller's: the folder relative to the share; null on -1.
 * `*is_nav` is 1 when the folder may be seen, not opened. Root on 0. */
TAVRIX_API int opendir_preprocess(const char* fname, const char* cwd, const char* connectpath,
                                  char** nlpath, tx_perm_ctx_t** perm_ctx,
                                  connection_private_data_s* private_data, int* is_nav);
TAVRIX_API int fdopendir_preprocess(const char* connectpath, const char* fname, int delete_access,
                                    connection_private_data_s* private_data, int* is_nav,
                                    tx_perm_ctx_t** perm_ctx);
/* For each entry of a listing: `*allowed` becomes a TXPERMS_ verdict. `full_path` is the caller's
 * buffer for "base/nlpath"; a name that does not fit is cut. */
TAVRIX_API void readir_postprocess(int* allowed, const char* nlpath, const char* base,
                                   char* full_path, int full_path_size, const char* connectpath,
                                   connection_private_data_s* private_data);
TAVRIX_API int mkdir_preprocess(const char* connectpath, const char* path, const char* full_path,
                                connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx);
TAVRIX_API void mkdir_postprocess(connection_private_data_s* private_data, char** full_path);
/* An SMB create request for a folder. ENOMEM when root cannot be had. Root on 0. */
TAVRIX_API int create_dir_preprocess(int is_delete_access, const char* nlpath, char** full_path,
                                     int create_dir, const char* connectpath,
                                     connection_private_data_s* private_data,
                                     tx_perm_ctx_t** perm_ctx);
TAVRIX_API void create_dir_postprocess(const char* full_path,
                                       connection_private_data_s* private_data);
/* EPERM on every refusal. Root on 0. */
TAVRIX_API int rmdir_preprocess(const char* full_path, const char* connectpath, const char* path,
                                connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx);
TAVRIX_API void rmdir_postprocess(const char* full_path, connection_private_data_s* private_data);
/* ENOMEM for a null path. Root on 0. */
TAVRIX_API int chdir_preprocess(const char* path, const char* connectpath,
                                connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx);

/* --- rename --------------------------------------------------------------------------------- */

/* ENOENT for a missing source. `*isdir` tells a folder. Root on 0. */
TAVRIX_API int rename_preprocess(const char* connectpath, const char* sfull_path,
                                 const char* dfull_path, tx_perm_ctx_t** perm_ctx, int* isdir,
                                 connection_private_data_s* private_data, int* is_nav);
TAVRIX_API void rename_postprocess(const char* new_full_path, const char* old_full_path, int isdir,
                                   connection_private_data_s* private_data);

/* --- status --------------------------------------------------------------------------------- */

/* Refreshes the identity first; answered from the verdict cache. EPERM on a refusal, ENOMEM for a
 * null name. Root on 0. */
TAVRIX_API int stat_preprocess(connection_private_data_s* private_data, const char* base_name,
                               const char* connectpath, tx_perm_ctx_t** perm_ctx);
/* ENOMEM for a null name. Root on 0. */
TAVRIX_API int lstat_preprocess(const char* connectpath, const char* base_name,
                                tx_perm_ctx_t** perm_ctx, connection_private_data_s* private_data);
/* Ask about the share's root only (`path` is "." or such): the operation has no rule anywhere else,
 * and asking for it there ends the process. ENOMEM for a null path. Root on 0. */
TAVRIX_API int statvfs_preprocess(const char* connectpath, const char* path,
                                  connection_private_data_s* private_data,
                                  tx_perm_ctx_t** perm_ctx);

TAVRIX_END_DECLS

#endif
