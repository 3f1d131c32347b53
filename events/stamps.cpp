// SPDX-License-Identifier: LGPL-3.0-or-later
// Stamps: extended attributes that say something about a file or a folder. The fixed-folder stamp
// is set by others and read here; the user stamp names the last user who changed the object.

#include <sys/xattr.h>
#include <cerrno>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "tavrix_utils.h"
#include "utils/root_scope.hpp"
#include "vfs_common.h"

extern "C" {
const char XATTR_FIXED_FOLDER[] = "user.tavrix.fixed_folder";
const char XATTR_MODIFYING_USER[] = "user.tavrix.last_smb_accessed_by";
}

namespace tavrix {
namespace {

// One byte is enough to tell an empty value from any other.
fixed_folder_res read_fixed_folder_stamp(const char* full_path, const char* function) {
  char value = 0;
  const ssize_t size = getxattr(full_path, XATTR_FIXED_FOLDER, &value, sizeof value);
  if (size == 0) {
    TAVRIX_LOG(1, "%s : %s is a Fixed Folder", function, full_path);
    return FIXED_FOLDER;
  }
  if (size == -1 && errno == ENODATA) {
    TAVRIX_LOG(1, "%s : %s is NOT a Fixed Folder", function, full_path);
    return NOT_FIXED_FOLDER;
  }
  // Only an empty value is a stamp. Nobody writes another one, so nothing is known.
  TAVRIX_LOG(0, "%s : failed to get xattr %s of %s folder errno %d", function, XATTR_FIXED_FOLDER,
             full_path, errno);
  return FOLDER_EACCES;
}

// Replacing comes first: most files were modified before.
int write_user(const char* file_path, const char* user_name) {
  const std::size_t size = std::strlen(user_name);
  const int result = setxattr(file_path, XATTR_MODIFYING_USER, user_name, size, XATTR_REPLACE);
  if (result == 0 || errno != ENODATA) return result;
  return setxattr(file_path, XATTR_MODIFYING_USER, user_name, size, XATTR_CREATE);
}

}  // namespace
}  // namespace tavrix

fixed_folder_res is_fixed_folder(const char* full_path) {
  TAVRIX_LOG(1, "%s : checking %s for FF", __func__, full_path);
  const tavrix::RootScope root;
  if (!root) {
    TAVRIX_LOG(0, "%s : failed to allocate perm_ctx", __func__);
    return FOLDER_EACCES;
  }
  return tavrix::read_fixed_folder_stamp(full_path, __func__);
}

int set_xattr_modifying_user(const char* file_path, const char* user_name) {
  TAVRIX_LOG(1, "%s username = [%s], path = [%s]", __func__, user_name, file_path);
  int result = 0;
  {
    const tavrix::RootScope root;
    if (!root) {
      TAVRIX_LOG(0, "%s failed to allocate perm_ctx", __func__);
      return -1;
    }
    result = tavrix::write_user(file_path, user_name);
  }
  if (result != 0) {
    const tavrix::ErrnoKeeper keep;
    TAVRIX_LOG(0, "%s username = [%s], path = [%s], res=[%d], errno=[%d]", __func__, user_name,
               file_path, result, errno);
  }
  return result;
}
