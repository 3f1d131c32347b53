// SPDX-License-Identifier: LGPL-3.0-or-later
// The rules of the hooks about fixed folders.

#include "hooks/fixed_folders.hpp"

#include <string_view>

#include "logging.h"
#include "tavrix_api.h"
#include "vfs_common.h"

namespace tavrix {
namespace {

bool is_administrator(const connection_private_data_s& connection) {
  return connection.groupmap.admin != 0;
}

bool is_shared_name(const char* name) { return std::string_view(name).starts_with("Shared"); }

bool is_shared_path(const char* full_path) {
  return std::string_view(full_path).starts_with(TAVRIX_TREE "/Shared");
}

}  // namespace

bool is_known_fixed_for_open(const connection_private_data_s& connection, const char* base_name,
                             const char* full_path) {
  if (is_administrator(connection) || !is_shared_name(base_name)) return false;
  if (is_fixed_folder(full_path) != FIXED_FOLDER) return false;
  TAVRIX_LOG(0, "Fixed folder : delete not allowed for %s for non-admin users.\n", full_path);
  return true;
}

bool is_fixed_or_unknown_for_listing(const connection_private_data_s& connection, const char* name,
                                     const char* full_path, const char* function) {
  if (is_administrator(connection)) {
    TAVRIX_LOG(2, "%s Allowing delete for admin, bypassing the fixed-folder check for %s", function,
               full_path);
    return false;
  }
  if (!is_shared_name(name)) return false;
  const fixed_folder_res answer = is_fixed_folder(full_path);
  if (answer == FIXED_FOLDER) {
    TAVRIX_LOG(0, "%s: Fixed Folder, non admin user for folder %s Deny Delete\n", function,
               full_path);
  }
  return answer != NOT_FIXED_FOLDER;
}

bool is_known_fixed_for_rename(const connection_private_data_s& connection, const char* source,
                               const char* function) {
  if (is_fixed_folder(source) != FIXED_FOLDER) return false;
  if (is_administrator(connection) || !is_shared_path(source)) return false;
  TAVRIX_LOG(0, "%s %d: Denying attempt to rename a fixed folder for a non-admin user for path %s",
             function, __LINE__, source);
  return true;
}

}  // namespace tavrix
