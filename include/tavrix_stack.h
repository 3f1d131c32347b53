// SPDX-License-Identifier: LGPL-3.0-or-later
/* The head of the import's parse stack; its elements are `jsonstack` records (mkperms_shm.h). */
#ifndef TAVRIX_STACK_H
#define TAVRIX_STACK_H

#include "tavrix_api.h"
#include "tavrix_lists.h"

TAVRIX_BEGIN_DECLS

struct tavrix_stack_head_s {
  unsigned int totalelems;          /* elements on the stack */
  struct oneway_list_head_s sthead; /* its first element is the top */
};
typedef struct tavrix_stack_head_s tavrix_stack_head_s;
typedef struct tavrix_stack_head_s tavrix_stack_head_t;

TAVRIX_END_DECLS

#endif
