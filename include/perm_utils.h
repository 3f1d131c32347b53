// SPDX-License-Identifier: LGPL-3.0-or-later
/* Writing the records of a map image, and finding the ACL that governs a path in one.
 *
 * Writers: the primitives append to the image at `msum->membuf` through the next_free_* fields of
 * its header. They never compare with the region sizes: the size pass must have sized the image
 * exactly. A violated precondition or a broken signature aborts, for the importer is a process of
 * its own and a half-written image is never published.
 *
 * Readers: only read the image and allocate private memory, so any number of threads and processes
 * may run at once; none blocks. The image must be sound and must not change while attached. */
#ifndef TAVRIX_PERM_UTILS_H
#define TAVRIX_PERM_UTILS_H

#include <stddef.h>
#include <stdint.h>

#include "mkperms_shm.h"
#include "tavrix_api.h"
#include "tavrix_perms.h"

TAVRIX_BEGIN_DECLS

/* One component of a path; both are owned by the array. */
struct path_elems_s {
  uint32_t len;   /* bytes */
  uint32_t index; /* 0 for the leading "/", 1 for the first name after it */
  uint32_t hashval;
  char* name_elem; /* NUL-terminated, in a buffer as large as the whole path */
};
typedef struct path_elems_s path_elems_s;
typedef struct path_elems_s path_elems;

struct path_array_s {
  uint32_t num_elems;
  path_elems** elems; /* in path order */
};
typedef struct path_array_s path_array_s;
typedef struct path_array_s path_array;

/* The hash stored with every name: Jenkins's one-at-a-time over the bytes below 0x80, folded to
 * upper case. Names that differ only in other bytes collide. 0 for an empty name. */
TAVRIX_API uint32_t process_namecomponent_4hash(const char* name, uint32_t len);

/* --- records ------------------------------------------------------------------------------- */

/* Appends a folder below the folder at `parent_offset` (FSELEM_ROOT_OFFSET: the root, at offset 0)
 * and records its offset in `stelem`. */
TAVRIX_API membe_shm_err create_fselem(memsummary_s* msum, jsonstack* stelem,
                                       uint32_t parent_offset);
/* Appends the name of the folder of `stelem`, which must have none; prints a line to standard
 * output. */
TAVRIX_API membe_shm_err create_nameelem(memsummary_s* msum, uint32_t len, const char* name,
                                         jsonstack* stelem);
/* Appends an empty child list of that capacity for the folder of `stelem`. */
TAVRIX_API membe_shm_err create_child_list(memsummary_s* msum, uint32_t num_children,
                                           jsonstack* stelem);
/* Puts the folder of `child` into the next slot of the parent's list. There is no capacity check.
 */
TAVRIX_API membe_shm_err add_to_parentlist(memsummary_s* msum, jsonstack* child,
                                           uint32_t parent_offset);

/* --- in-memory ACLs ------------------------------------------------------------------------ */

/* A new ACL without entries; `*acl` must be null before. Release with free_tavrix_acl() and free().
 */
TAVRIX_API membe_shm_err create_empty_acl(tavrix_acl_t** acl);
/* A new explicit entry of mask 0 at the head of the list. */
TAVRIX_API membe_shm_err add_ace_to_acl(tavrix_acl_t* acl, e_ace_type_t trustee_type, uint32_t id);
/* Sets the mask of the first entry of that trustee, which must exist. */
TAVRIX_API membe_shm_err add_ace_mask(tavrix_acl_t* acl, e_ace_type_t trustee_type, uint32_t id,
                                      uint32_t mask);
/* Marks every entry explicit (0) or inherited (1). */
TAVRIX_API membe_shm_err set_inheritance_flag(tavrix_acl_t* acl, uint32_t inherited);
/* The stored form of `acl` in a new block of `*size` bytes, entries in list order; the caller frees
 * it. A null ACL gives a null block. */
TAVRIX_API membe_shm_err ACL_2_membuf(tavrix_acl_t* acl, beacl_s** out, uint32_t* size);
/* The in-memory form of a stored ACL, entries in reverse stored order; `*acl` must be null before.
 */
TAVRIX_API membe_shm_err membuf_2_ACL(const beacl_s* bacl, uint32_t version, uint32_t inherited,
                                      tavrix_acl_t** acl);

/* Free the entries of an ACL, not the ACL itself; null is ignored. */
TAVRIX_API void free_tavrix_acl(tavrix_acl_t* acl);
TAVRIX_API void free_ACL(tavrix_acl_t* acl);

/* Dumps to standard output. */
TAVRIX_API void print_acl(tavrix_acl_t* acl);
TAVRIX_API void print_bacl(const beacl_s* bacl);

/* --- lookup -------------------------------------------------------------------------------- */

/* Splits a path of `count` bytes, its NUL included, into a new array; null when out of memory. */
TAVRIX_API void get_path_elem_smb4(const char* path, uint32_t count, path_array** out);
/* Frees an array and sets the caller's pointer to null. */
TAVRIX_API void cleanup_path_array_smb4(path_array** parr);

/* The deepest folder on the path: SHM_MEMBE_OK when it is the path itself,
 * SHM_MEMBE_OK_NAMEREMAPPED when it is an ancestor or the root. `*offset` must be 0 before. */
TAVRIX_API membe_shm_err find_fselem_fromname(void* map, path_array* parr, uint32_t* offset);
/* The folder's own stored ACL, or the one that governs it: its own, else its nearest ancestor's,
 * marked inherited. `*acl` must be null before. */
TAVRIX_API membe_shm_err get_tavrixacl_fromfselemoffset(void* map, uint32_t fselem_offset,
                                                        tavrix_acl_t** acl);
TAVRIX_API membe_shm_err get_nonempty_tavrixacl_fromfselemoffset(void* map, uint32_t fselem_offset,
                                                                 tavrix_acl_t** acl);
/* The ACL that governs a path, relative to the share root. 0, or 3 for a null map or an empty path.
 * The caller owns `*acl`: free_ACL(), then free(). */
TAVRIX_API int get_tavrix_acl(void* map, const char* path, tavrix_acl_t** acl);

TAVRIX_END_DECLS

#endif
