// SPDX-License-Identifier: GPL-3.0-or-later
/* The library's session: a process that works keeps the map table and the staging buffer attached
 * between its requests, and a process that waits keeps nothing, because an old table stays in
 * memory as long as one process has it attached.
 *
 * Each connection has a timer of its own, which ends with the connection. A request that leaves
 * something attached sets it, and it is set again only while decisions are made. So a process that
 * waits wakes up once and then has no timer. */
#include "tavrix_module.h"

#define IDLE_MICROSECONDS 250000

/* Decisions of this process, on any of its connections. A request without a decision does not
 * count: it does not look whether the table is current, so it must not prolong its life. */
static unsigned decisions;

void tavrix_note_decisions(void) { ++decisions; }

static void on_timer(struct tevent_context* events, struct tevent_timer* timer, struct timeval now,
                     void* data);

static void set_timer(struct tavrix_connection* tavrix) {
  tavrix->decisions_before = decisions;
  if (tavrix->events != NULL) {
    const struct timeval when = timeval_current_ofs_usec(IDLE_MICROSECONDS);
    tavrix->idle_timer = tevent_add_timer(tavrix->events, tavrix, when, on_timer, tavrix);
  }
  /* Without a timer nothing would detach it later. */
  if (tavrix->idle_timer == NULL) tavrix_session_idle();
}

/* Runs between requests. tevent frees the timer after it has fired. */
static void on_timer(struct tevent_context* events, struct tevent_timer* timer, struct timeval now,
                     void* data) {
  struct tavrix_connection* tavrix = data;
  tavrix->idle_timer = NULL;
  if (tavrix_session_is_holding() == 0) return;
  if (tavrix->decisions_before != decisions) {
    set_timer(tavrix);
  } else {
    tavrix_session_idle();
  }
}

void tavrix_open_session(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix) {
  const struct smbd_server_connection* sconn = handle->conn->sconn;
  tavrix->events = sconn != NULL ? sconn->ev_ctx : NULL;
  tavrix->has_session = tavrix_session_begin() == 0;
  if (!tavrix->has_session) DBG_WARNING("no memory for a session; requests are slower\n");
}

void tavrix_watch_session(struct tavrix_connection* tavrix) {
  if (tavrix->idle_timer == NULL && tavrix_session_is_holding() != 0) set_timer(tavrix);
}

/* Another connection of the process may have no timer now, so nothing stays attached for it. */
void tavrix_close_session(struct tavrix_connection* tavrix) {
  TALLOC_FREE(tavrix->idle_timer);
  if (!tavrix->has_session) return;
  tavrix_session_idle();
  tavrix_session_end();
  tavrix->has_session = false;
}
