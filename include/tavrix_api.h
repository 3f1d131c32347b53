// SPDX-License-Identifier: LGPL-3.0-or-later
/* Shared by every public header of libtavrix: linkage, visibility, layout guards, and the place of
 * the tree.
 *
 * The headers are plain C: they compile as C11 and as C++20, each on its own. Names that end in
 * "_s" are structures; each has a typedef of the same name and one that ends in "_t". */
#ifndef TAVRIX_API_H
#define TAVRIX_API_H

#define TAVRIX_API __attribute__((visibility("default")))

/* The root of the tree that the permission map describes. A share is this folder or one in it, and
 * every path that a decision is asked about begins with it. */
#define TAVRIX_TREE "/tavrix"
/* The appliance's own folder in the tree: dump files, marks and notes; closed to clients. */
#define TAVRIX_CONF_FOLDER TAVRIX_TREE "/.conf"

/* Structures that lie at any byte of the map image are packed: read their fields by value, never
 * through a pointer to the field. */
#define TAVRIX_PACKED __attribute__((packed))

#ifdef __cplusplus
#define TAVRIX_BEGIN_DECLS extern "C" {
#define TAVRIX_END_DECLS }
/* Callers hand in codes from outside, so every int is a valid value of these enumerations. */
#define TAVRIX_ENUM_INT : int
#define TAVRIX_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define TAVRIX_BEGIN_DECLS
#define TAVRIX_END_DECLS
#define TAVRIX_ENUM_INT
#define TAVRIX_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#define TAVRIX_ASSERT_SIZE(type, bytes) \
  TAVRIX_STATIC_ASSERT(sizeof(type) == (bytes), "size of " #type)
#define TAVRIX_ASSERT_OFFSET(type, field, bytes) \
  TAVRIX_STATIC_ASSERT(offsetof(type, field) == (bytes), "offset of " #field " in " #type)

#endif
