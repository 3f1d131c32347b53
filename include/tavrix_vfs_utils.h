// SPDX-License-Identifier: LGPL-3.0-or-later
/* Connection services: what one client connection needs between hooks.
 *
 * The connection record (tavrix_structs.h) belongs to the module; a server process uses it from one
 * thread, and nothing here locks. */
#ifndef TAVRIX_VFS_UTILS_H
#define TAVRIX_VFS_UTILS_H

#include <stdint.h>
#include <sys/types.h>

#include "regex_parser.h"
#include "tavrix_api.h"
#include "tavrix_structs.h"
#include "tavrix_utils.h"

TAVRIX_BEGIN_DECLS

/* --- identity ------------------------------------------------------------------------------- */

#define TAVRIX_GROUPMAP_MARKER_PATH "/etc/tavrix/groupmap_refresh"
#define TAVRIX_PERMISSION_MARKER_PATH "/etc/tavrix/permission_refresh"

extern TAVRIX_API uid_t reserved_user_uid;
TAVRIX_API void set_reserved_user_uid(uid_t uid);

/* Takes a private snapshot of the parameter block into global_params, creating an empty block when
 * there is none. 0 or -1. */
TAVRIX_API int read_tavrix_config(void);
/* Builds groupmap from refresh_creds.euid and the group list map file. 0, also when there is no
 * such file (no groups then), or -1. */
TAVRIX_API int reset_groupmap(connection_private_data_s* connection);
/* Rebuilds the identity; the next lookup flushes the verdict cache. `signal` is SIGUSR1. */
TAVRIX_API void flush_perms_handler(int signal, connection_private_data_s* connection);
/* The above, when a refresh file was touched or the effective user has changed. */
TAVRIX_API void refresh_credentials(connection_private_data_s* connection);
/* 1 for the account of a computer: its name ends in "$". */
TAVRIX_API int is_computer_name(const char* user_name);
TAVRIX_API int _check_if_special_user(const char* account_name);
/* 1 when the process is or has become root, else 0 with errno EACCES. `*ctx` is set only by a
 * switch: give it back with tavrix_vfs_unbecome_root(). */
TAVRIX_API int raise_permissions(tx_perm_ctx_t** ctx);

/* --- verdict cache -------------------------------------------------------------------------- */

TAVRIX_API void init_tlb(vfs_table_cache_s* cache);
/* Frees every path, then init_tlb(). */
TAVRIX_API void destroy_tlb(vfs_table_cache_s* cache);
/* The cached verdict of a normalized path; TXPERMS_NOT_FOUND, or TXPERMS_NOT_SET with the path's
 * position in `*index`. */
TAVRIX_API e_vfs_enforce_perms check_tlb(const char* path, e_fsop_type op, int* index,
                                         vfs_table_cache_s* cache);
/* Adds a verdict: for a new path (slot -1) or at the position that check_tlb() gave. */
TAVRIX_API void add_tlb_entry(const char* path, int slot, e_fsop_type op,
                              e_vfs_enforce_perms verdict, vfs_table_cache_s* cache);
/* Sets a verdict in the slot of that number: a slot, not a position. */
TAVRIX_API void update_tlb_entry(int slot, e_fsop_type op, e_vfs_enforce_perms verdict,
                                 vfs_table_cache_s* cache);
/* Forgets a path. Beware: unless it was the least recently used one, its slot is not given back,
 * and the next new path can meet a slot that is still in use, which aborts. Where many paths
 * change, ask for a flush instead. */
TAVRIX_API void del_tlb_entry(const char* path, vfs_table_cache_s* cache);
TAVRIX_API int _tlb_lookup_path(const char* path, vfs_table_cache_s* cache);
TAVRIX_API int _update_tlb_hit(int position, vfs_table_cache_s* cache);

/* --- permission check ----------------------------------------------------------------------- */

/* The verdict for a connection, from its cache or from the decision. `path` is the client's path
 * below `shareroot`; `force_path_type` is the e_file_type that the caller knows, or 0. */
TAVRIX_API e_vfs_enforce_perms check_perms(const char* shareroot, const char* path, e_fsop_type op,
                                           connection_private_data_s* connection,
                                           int force_path_type);

/* --- paths and operations ------------------------------------------------------------------- */

/* A new string "folder/path"; null on failure. */
TAVRIX_API char* get_full_path(const char* folder, const char* path);
/* A new string, the last component; null for null or when out of memory. */
TAVRIX_API char* child_from_path(const char* path);
/* open() flags to an open mode. */
TAVRIX_API e_open_mode mode2tavrixmode(int flags);
/* An SMB create request to an operation and an open mode; both stay as preset where the disposition
 * (the protocol's number, 0 to 5) does not say. */
TAVRIX_API void _get_op_create_file(const char* nlpath, uint32_t create_disposition,
                                    uint32_t create_options, int file_exists,
                                    int write_access_requested, e_fsop_type* op,
                                    e_open_mode* open_mode);
/* 1: the parents differ, a move; 0: a rename in place; -1: error. */
TAVRIX_API int is_amove(const char* src_fsobj, const char* dst_fsobj);
/* 0 for "Private" and its direct children, relative to the share root: they are protected. */
TAVRIX_API int is_deleteable(const char* path_to_delete);

/* --- patterns of names that may always be deleted -------------------------------------------- */

extern TAVRIX_API pattern_buf_s g_tavrix_pattern_buf;

/* Loads the pattern file of the settings; call it once, when the process starts. -1 without a
 * readable file; no other result means anything. At most 256 lines; an empty line matches every
 * name. */
TAVRIX_API int read_and_compile_patterns(void);
/* 1 when a pattern matches. */
TAVRIX_API int is_deletable_file(const char* fname);

TAVRIX_END_DECLS

#endif
