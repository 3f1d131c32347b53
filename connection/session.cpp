// SPDX-License-Identifier: LGPL-3.0-or-later
// Sessions and scopes of a thread.

#include "tavrix_session.h"

int tavrix_session_begin(void) { return 0; }
void tavrix_session_idle(void) {}
void tavrix_session_end(void) {}
int tavrix_session_is_holding(void) { return 0; }
void tavrix_scope_begin(void) {}
void tavrix_scope_end(void) {}
