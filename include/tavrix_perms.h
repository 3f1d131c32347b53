// SPDX-License-Identifier: LGPL-3.0-or-later
/* In-memory ACLs and the permission bits that stored and in-memory entries share. */
#ifndef TAVRIX_PERMS_H
#define TAVRIX_PERMS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "tavrix_api.h"
#include "tavrix_lists.h"

TAVRIX_BEGIN_DECLS

/* Permission bits: read 1, write 2, delete 4; navigate (pass through and list, not open) 8; viewer
 * only 16. 0 is no permission. */
#define TAVRIX_PERM_MASK_RDONLY 1U
#define TAVRIX_PERM_MASK_RDWR 3U
#define TAVRIX_PERM_MASK_RDWRDEL 7U
#define TAVRIX_PERM_MASK_NAVIGATE 8U
#define TAVRIX_PERM_MASK_VIEWER_ONLY 16U

#define TAVRIX_ACL_VERSION 0U /* the only version that may be stored */

#define TAVRIX_ACE_EXPLICIT 0U  /* ace_type: the element's own ACL */
#define TAVRIX_ACE_INHERITED 1U /* ace_type: taken from an ancestor */

enum e_file_type TAVRIX_ENUM_INT {
  FSTYPE_FILE = 1,
  FSTYPE_FOLDER = 2,
  FSTYPE_DOES_NOT_EXIST = 3,
  FSTYPE_INVAL = 4,
};
typedef enum e_file_type e_file_type;

enum e_ace_type TAVRIX_ENUM_INT {
  ACE_TYPE_USER = 1,
  ACE_TYPE_GROUP = 2,
  ACE_TYPE_ALL = 3, /* cannot be stored */
  ACE_TYPE_UNDEF = 4,
};
typedef enum e_ace_type e_ace_type;
typedef enum e_ace_type e_ace_type_t;

struct tavrix_acl_V0_s;

/* One entry, a heap block of its own. */
struct tavrix_ace_s {
  struct oneway_list_elem_s ace_list; /* first: an element pointer is an entry pointer */
  uint32_t version;                   /* 0 */
  uint32_t ace_type;                  /* TAVRIX_ACE_EXPLICIT or TAVRIX_ACE_INHERITED */
  e_ace_type_t trustee_type;
  union {
    uid_t uid;
    gid_t gid;
  } trustee;
  uint32_t perm_mask;
  struct tavrix_acl_V0_s* acl; /* the owner's place; neither filled nor read by the library */
};
typedef struct tavrix_ace_s tavrix_ace_s;
typedef struct tavrix_ace_s tavrix_ace_t;

TAVRIX_ASSERT_SIZE(struct tavrix_ace_s, 48);
TAVRIX_ASSERT_OFFSET(struct tavrix_ace_s, ace_list, 0);

struct tavrix_acl_V0_s {
  uint32_t version; /* TAVRIX_ACL_VERSION */
  uint32_t num_aces;
  struct oneway_list_head_s ace_list_head; /* of tavrix_ace_s */
};
typedef struct tavrix_acl_V0_s tavrix_acl_V0_s;
typedef struct tavrix_acl_V0_s tavrix_acl_t;

TAVRIX_ASSERT_SIZE(struct tavrix_acl_V0_s, 16);

TAVRIX_END_DECLS

#endif
