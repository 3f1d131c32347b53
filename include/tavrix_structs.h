// SPDX-License-Identifier: LGPL-3.0-or-later
/* The operations, verdicts and callers of permission decisions, and the connection record that
 * keeps a caller's state between hooks. */
#ifndef TAVRIX_STRUCTS_H
#define TAVRIX_STRUCTS_H

#include <dirent.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

enum e_fsop_type TAVRIX_ENUM_INT {
  FSOP_CREATE = 1,
  FSOP_OPEN_READ = 2,
  FSOP_OPEN_WRITE = 3,
  FSOP_OPEN_CHATTR = 4,
  FSOP_OPENDIR = 5,
  FSOP_READDIR = 6,
  FSOP_UNLINK = 7,
  FSOP_RENAME_SRC = 8,
  FSOP_RENAME_DEST = 9,
  FSOP_MOVE_SRC = 10,
  FSOP_MOVE_DEST = 11,
  FSOP_CHMOD = 12,
  FSOP_CHOWN = 13,
  FSOP_SET_ACL = 14,
  FSOP_GET_ACL = 15,
  FSOP_STAT = 16,
  FSOP_LSTAT = 17,
  FSOP_READ_LINK = 18,
  FSOP_CONNECT = 19,
  FSOP_MKDIR = 20,
  FSOP_RMDIR = 21,
  FSOP_STATVFS = 22,
  FSOP_SEEKDIR = 23,
  FSOP_REWINDDIR = 24,
  FSOP_TELLDIR = 25,
  FSOP_CHDIR = 26,
  FSOP_REALPATH = 27,
  FSOP_GETNTACL = 28,
  FSOP_FGETNTACL = 29,
  FSOP_INVAL = 30,
};
typedef enum e_fsop_type e_fsop_type;

/* Treat every verdict other than TXPERMS_HAS_PERMS as a refusal. */
enum e_vfs_enforce_perms TAVRIX_ENUM_INT {
  TXPERMS_STANDARD_USER = 1, /* the caller is neither administrator nor power user */
  TXPERMS_NO_PERM = 2,
  TXPERMS_HAS_PERMS = 3,
  TXPERMS_INVALID_ARGS = 4,
  TXPERMS_MALLOC_ERR = 5,
  TXPERMS_SYSTEM_ERR = 6,
  TXPERMS_NOT_FOUND = 11, /* verdict cache: the path is not cached */
  TXPERMS_NOT_SET = 12,   /* verdict cache: the path is, this operation is not */
};
typedef enum e_vfs_enforce_perms e_vfs_enforce_perms;

/* The identity a decision is made for. */
struct process_trustees_s {
  uid_t euid;
  gid_t egid;
  int num_sup_gids;
  gid_t* gids;   /* num_sup_gids supplementary groups */
  int admin;     /* written by every decision: a member of the administrators' group */
  int poweruser; /* written by every decision: a member of the power users' group */
  int is_computer_acct;
  int is_global_map_in_use;
};
typedef struct process_trustees_s process_trustees_s;
typedef struct process_trustees_s process_trustees_t;

TAVRIX_ASSERT_SIZE(struct process_trustees_s, 40);
TAVRIX_ASSERT_OFFSET(struct process_trustees_s, num_sup_gids, 8);
TAVRIX_ASSERT_OFFSET(struct process_trustees_s, gids, 16);
TAVRIX_ASSERT_OFFSET(struct process_trustees_s, admin, 24);
TAVRIX_ASSERT_OFFSET(struct process_trustees_s, is_global_map_in_use, 36);

/* --- the verdict cache of a connection ------------------------------------------------------ */

#define TAVRIX_TLB_PATHS 1024

/* flush_tlb: any other value is treated like "flushed" */
#define TAVRIX_TLB_FLUSHED 9
#define TAVRIX_TLB_FLUSH_REQUESTED 21

/* Bit n % 32 of word n / 32 is operation n: it has a cached verdict, and the verdict was a grant.
 */
struct tlb_perms_s {
  uint32_t set[2];
  uint32_t value[2];
};
typedef struct tlb_perms_s tlb_perms_s;
typedef struct tlb_perms_s tlb_perms_t;

struct vfs_table_cache_s {
  struct tlb_perms_s tlb_perms[TAVRIX_TLB_PATHS]; /* a slot each */
  char* tlb_paths[TAVRIX_TLB_PATHS];              /* the slot's own normalized path; null: free */
  int tlb_index_table[TAVRIX_TLB_PATHS];          /* slots: in use, latest first; then the free */
  int flush_tlb;
  int vfs_tlb_end; /* paths in the cache */
};
typedef struct vfs_table_cache_s vfs_table_cache_s;
typedef struct vfs_table_cache_s tx_vfs_table_cache_t;

TAVRIX_ASSERT_SIZE(struct tlb_perms_s, 16);
TAVRIX_ASSERT_SIZE(struct vfs_table_cache_s, 28680);
TAVRIX_ASSERT_OFFSET(struct vfs_table_cache_s, tlb_paths, 16384);
TAVRIX_ASSERT_OFFSET(struct vfs_table_cache_s, tlb_index_table, 24576);
TAVRIX_ASSERT_OFFSET(struct vfs_table_cache_s, flush_tlb, 28672);
TAVRIX_ASSERT_OFFSET(struct vfs_table_cache_s, vfs_tlb_end, 28676);

/* --- the connection record ------------------------------------------------------------------ */

enum e_open_mode TAVRIX_ENUM_INT {
  OPENMODE_INVALID = 0,
  OPENMODE_READ = 1,
  OPENMODE_WRITE = 2,
  OPENMODE_CREATE = 3,
  OPENMODE_CHATTR = 4,
};
typedef enum e_open_mode e_open_mode;

/* A file opened for writing, whose close must raise an event. */
struct modify_file_evt_s {
  char* path;
  int is_modified;
  int is_nav_cache;
};
typedef struct modify_file_evt_s modify_file_evt_s;
typedef struct modify_file_evt_s modify_file_evt_t;

struct _tavrix_config {
  int allow_computeracct; /* the module's own; the library carries it */
};
typedef struct _tavrix_config tavrix_config;

struct refresh_credentials_s {
  time_t permmap_refresh;  /* when the refresh file of permissions was last acted on */
  time_t groupmap_refresh; /* the same for that of groups */
  uid_t euid;              /* the effective user that the identity was built for */
  uid_t tlb_owner;         /* the user for whom the verdict cache was last flushed */
};
typedef struct refresh_credentials_s refresh_credentials_s;
typedef struct refresh_credentials_s refresh_crendetials_t; /* the spelling is the interface */

/* One client connection. The module allocates it zeroed, fills user_name_as_passed_in, config,
 * reserved_user and refresh_creds.euid before connect_preprocess(), hands it to every hook, and
 * frees what it owns at the end. */
struct connection_private_data_s {
  char* user_name_as_passed_in; /* as the client gave it; the module's */
  tavrix_config config;
  struct refresh_credentials_s refresh_creds;
  struct process_trustees_s groupmap; /* gids: owned by the library's refreshes */
  struct vfs_table_cache_s vfs_table_cache;
  struct modify_file_evt_s* pmodify;
  int reserved_user;   /* nonzero: granted everything, without the map */
  char* curr_open_dir; /* the folder being listed */
  DIR* dirptr;         /* its stream */
};
typedef struct connection_private_data_s connection_private_data_s;
typedef struct connection_private_data_s connection_private_data_t;
typedef struct connection_private_data_s tx_connection_private_data_t;

TAVRIX_ASSERT_OFFSET(struct connection_private_data_s, config, 8);
TAVRIX_ASSERT_OFFSET(struct connection_private_data_s, refresh_creds, 16);
TAVRIX_ASSERT_OFFSET(struct connection_private_data_s, groupmap, 40);
TAVRIX_ASSERT_OFFSET(struct connection_private_data_s, vfs_table_cache, 80);
TAVRIX_ASSERT_OFFSET(struct connection_private_data_s, pmodify, 28760);
TAVRIX_ASSERT_OFFSET(struct connection_private_data_s, reserved_user, 28768);
TAVRIX_ASSERT_OFFSET(struct connection_private_data_s, curr_open_dir, 28776);
TAVRIX_ASSERT_OFFSET(struct connection_private_data_s, dirptr, 28784);
TAVRIX_ASSERT_SIZE(struct connection_private_data_s, 28792);

TAVRIX_END_DECLS

#endif
