/* What a permission decision is asked and what it answers: operations, verdicts, the caller. */
#ifndef TAVRIX_STRUCTS_H
#define TAVRIX_STRUCTS_H

#include <stddef.h>
#include <sys/types.h>

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

TAVRIX_END_DECLS

#endif
