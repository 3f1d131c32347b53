// SPDX-License-Identifier: LGPL-3.0-or-later
/* Everything that libtavrix offers. */
#ifndef TAVRIX_H
#define TAVRIX_H

#include "eventstore.h"
#include "logging.h"
#include "mkperms_shm.h"
#include "parameter_block.h"
#include "perm_enforcer.h"
#include "perm_map.h"
#include "perm_utils.h"
#include "processing_functions.h"
#include "read_perms.h"
#include "regex_parser.h"
#include "sweeper_log.h"
#include "tavrix_getgrouplist.h"
#include "tavrix_lists.h"
#include "tavrix_perms.h"
#include "tavrix_session.h"
#include "tavrix_stack.h"
#include "tavrix_structs.h"
#include "tavrix_utils.h"
#include "tavrix_vfs_utils.h"
#include "vfs_common.h"

#endif
