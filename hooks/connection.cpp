// SPDX-License-Identifier: LGPL-3.0-or-later
// The hooks around a client's connection.

#include <unistd.h>

#include "hooks/frame.hpp"
#include "logging.h"
#include "perm_map.h"
#include "processing_functions.h"

int connect_preprocess(const char* /*user*/, connection_private_data_s* private_data,
                       int audit_enabled, int* number_of_connected_users) {
  TAVRIX_LOG(10, "Calling init_tlb \n");
  destroy_tlb(&private_data->vfs_table_cache);
  init_tlb(&private_data->vfs_table_cache);
  TAVRIX_LOG(10, "After calling init_tlb \n");
  if (init_perm_map_semaphore() == -1) {
    TAVRIX_LOG(0, "init_perm_map_semaphore FAILED \n");
    return -1;
  }
  if (audit_enabled != 0) {
    TAVRIX_LOG(0, "audit is enabled\n");
    init_audit_buffer();
  } else {
    TAVRIX_LOG(0, "audit is disabled\n");
  }
  *number_of_connected_users += 1;
  TAVRIX_LOG(4, "%s: Resetting groupmap for uid=%u\n", __func__, private_data->refresh_creds.euid);
  // The decision refuses everything to a connection without an identity, so nothing fails here.
  static_cast<void>(reset_groupmap(private_data));
  return 0;
}

void disconnect_preprocess(connection_private_data_s* private_data, int audit_enabled) {
  destroy_tlb(&private_data->vfs_table_cache);
  const int result = flush_staging_buffer(FB_CTX_DISCON);
  if (result == -1) {
    const char* user = private_data->user_name_as_passed_in;
    TAVRIX_LOG(0, "FSB in Disconnect ctx for pid:(%d), user:(%s), uid:(%d), ret_val:(%d)", getpid(),
               user == nullptr ? "" : user, static_cast<int>(private_data->refresh_creds.tlb_owner),
               result);
  }
  if (audit_enabled != 0) static_cast<void>(flush_audit_buffer());
}
