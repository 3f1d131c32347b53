// SPDX-License-Identifier: LGPL-3.0-or-later
/* One-way lists that are linked through their elements: in-memory ACLs and the import's parse
 * stack.
 *
 * An element lives inside the record it links, as its first field, so that a pointer to the element
 * is a pointer to the record. New elements go at the head. Nothing here allocates, blocks or logs;
 * lists are not locked. */
#ifndef TAVRIX_LISTS_H
#define TAVRIX_LISTS_H

#include <stddef.h>

#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

enum e_txlist_err TAVRIX_ENUM_INT {
  TXLIST_ERR_OK = 0,
  TXLIST_ERR_LIST_EMPTY = 1,
  TXLIST_ERR_NULL_HEAD = 2,
  TXLIST_ERR_UNITIALIZED_ELEM = 3, /* the spelling is the interface */
  TXLIST_ERR_NULLELEM = 4,
  TXLIST_ERR_UNDEFINED = 5,
};
typedef enum e_txlist_err e_txlist_err;

struct oneway_list_elem_s {
  struct oneway_list_elem_s* next_elem;
  struct oneway_list_elem_s** ptr2prev; /* the pointer that points here; null while unlinked */
};
typedef struct oneway_list_elem_s oneway_list_elem_s;
typedef struct oneway_list_elem_s oneway_list_elem_t;

struct oneway_list_head_s {
  struct oneway_list_elem_s* first_elem;
};
typedef struct oneway_list_head_s oneway_list_head_s;
typedef struct oneway_list_head_s oneway_list_head_t;

/* Links `elem` in front of the first element. */
static inline e_txlist_err oneway_list_insert_head(oneway_list_head_s* head,
                                                   oneway_list_elem_s* elem) {
  if (head == NULL) return TXLIST_ERR_NULL_HEAD;
  if (elem == NULL) return TXLIST_ERR_NULLELEM;
  elem->next_elem = head->first_elem;
  elem->ptr2prev = &head->first_elem;
  if (elem->next_elem != NULL) elem->next_elem->ptr2prev = &elem->next_elem;
  head->first_elem = elem;
  return TXLIST_ERR_OK;
}

/* Unlinks `elem` from the list it is in; the record stays the caller's. */
static inline e_txlist_err oneway_list_remove(oneway_list_elem_s* elem) {
  if (elem == NULL) return TXLIST_ERR_NULLELEM;
  if (elem->ptr2prev == NULL) return TXLIST_ERR_UNITIALIZED_ELEM;
  *elem->ptr2prev = elem->next_elem;
  if (elem->next_elem != NULL) elem->next_elem->ptr2prev = elem->ptr2prev;
  elem->next_elem = NULL;
  elem->ptr2prev = NULL;
  return TXLIST_ERR_OK;
}

/* Unlinks the first element into `*elem`. */
static inline e_txlist_err oneway_list_pop_head(oneway_list_head_s* head,
                                                oneway_list_elem_s** elem) {
  if (head == NULL) return TXLIST_ERR_NULL_HEAD;
  if (elem == NULL) return TXLIST_ERR_NULLELEM;
  if (head->first_elem == NULL) return TXLIST_ERR_LIST_EMPTY;
  *elem = head->first_elem;
  return oneway_list_remove(*elem);
}

TAVRIX_END_DECLS

#endif
