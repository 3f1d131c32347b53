// SPDX-License-Identifier: GPL-3.0-or-later
/* A name that no server has, for tests of a module that is built for another one. */
#include "samba/tavrix_module.h"

void smbd_name_that_no_server_has(void);
void tavrix_use_missing_name(void);
void tavrix_use_missing_name(void) { smbd_name_that_no_server_has(); }
