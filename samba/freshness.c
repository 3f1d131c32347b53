// SPDX-License-Identifier: GPL-3.0-or-later
/* Two numbers that say how long a verdict holds: that of the client's request under way, and the
 * generation of the client's identity. Neither costs a system call. */
#include "tavrix_module.h"

/* --- requests --------------------------------------------------------------------------------- */

/* smbd runs a request to its end, or to a wait, before it comes back to its loop, and the loop runs
 * this before it looks for the next request. */
static void next_request(struct tevent_context* ev, struct tevent_immediate* immediate,
                         void* private_data) {
  struct tavrix_connection* tavrix = talloc_get_type_abort(private_data, struct tavrix_connection);
  tavrix->is_request_numbered = false;
}

/* False when nobody would tell of the next request: there is no memory, or smbd made the connection
 * for itself. */
static bool await_next_request(struct vfs_handle_struct* handle) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct smbd_server_connection* sconn = handle->conn->sconn;
  if (sconn == NULL || sconn->ev_ctx == NULL) return false;
  if (tavrix->next_request == NULL) tavrix->next_request = tevent_create_immediate(tavrix);
  if (tavrix->next_request == NULL) return false;
  tevent_schedule_immediate(tavrix->next_request, sconn->ev_ctx, next_request, tavrix);
  return true;
}

uint64_t tavrix_request(struct vfs_handle_struct* handle) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix->is_request_numbered) return tavrix->request;
  tavrix->is_request_numbered = await_next_request(handle);
  tavrix->request += 1;
  return tavrix->request;
}

void tavrix_refresh_identity(struct vfs_handle_struct* handle) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  const uint64_t request = tavrix_request(handle);
  if (tavrix->refreshed == tavrix->record && tavrix->refreshed_in == request) return;
  refresh_credentials(tavrix->record);
  tavrix->refreshed = tavrix->record;
  tavrix->refreshed_in = request;
}

/* --- the identity ----------------------------------------------------------------------------- */

/* A value of the flag that is neither of the library's own. Whoever renews the identity, a hook or
 * a function of the module, sets the flag to a request, and the next lookup sets it to "flushed".
 * The library takes every value but the request for "flushed". */
#define UNCHANGED_SINCE 1

uint64_t tavrix_generation(struct tavrix_connection* tavrix) {
  vfs_table_cache_s* cache = &tavrix->record->vfs_table_cache;
  if (cache->flush_tlb == UNCHANGED_SINCE) return tavrix->generation;
  int unused = 0;
  check_tlb(".", FSOP_STAT, &unused, cache); /* carries out the request */
  cache->flush_tlb = UNCHANGED_SINCE;
  tavrix->generation += 1;
  return tavrix->generation;
}
