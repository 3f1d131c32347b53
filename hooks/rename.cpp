// SPDX-License-Identifier: LGPL-3.0-or-later
// The hook around renaming and moving.

#include <sys/stat.h>
#include <cstring>
#include <optional>

#include "hooks/fixed_folders.hpp"
#include "hooks/frame.hpp"
#include "logging.h"
#include "processing_functions.h"
#include "tavrix_session.h"

namespace tavrix {
namespace {

struct RenameOperations {
  e_fsop_type source;
  e_fsop_type destination;
};

// Renaming or moving a file needs the right to write it: the client could as well write a copy
// elsewhere and delete this one.
constexpr RenameOperations kInPlace{FSOP_OPEN_WRITE, FSOP_RENAME_DEST};
constexpr RenameOperations kMove{FSOP_MOVE_SRC, FSOP_MOVE_DEST};

// The two operations to decide about for a folder; none when it must not be renamed at all.
std::optional<RenameOperations> folder_operations(const char* source, const char* destination,
                                                  const connection_private_data_s& connection,
                                                  const char* function) {
  if (is_known_fixed_for_rename(connection, source, function)) return std::nullopt;
  TAVRIX_LOG(10, "Checking whether a move\n");
  const int moves = is_amove(source, destination);
  if (moves == -1) {
    TAVRIX_LOG(0, "Could not tell whether move or rename %s -> %s , denying...\n", source,
               destination);
    return std::nullopt;
  }
  if (moves == 1) {
    TAVRIX_LOG(10, "This is a move folder src %s dst %s\n", source, destination);
  } else {
    TAVRIX_LOG(10, "This is not a move folder src %s dst %s\n", source, destination);
  }
  TAVRIX_LOG(10, "mvret is %d\n", moves);
  return moves == 1 ? kMove : kInPlace;
}

}  // namespace
}  // namespace tavrix

int rename_preprocess(const char* connectpath, const char* sfull_path, const char* dfull_path,
                      tx_perm_ctx_t** perm_ctx, int* isdir, connection_private_data_s* private_data,
                      int* is_nav) {
  if (sfull_path == nullptr || dfull_path == nullptr) return tavrix::refuse();
  {
    const tavrix::RootInHook root(perm_ctx);
    if (!root) {
      TAVRIX_LOG(0, "Could not become root in rename op to call stat, old_name=%s, new_name=%s\n",
                 sfull_path, dfull_path);
      return tavrix::refuse();
    }
    TAVRIX_LOG(8, "Calling stat\n");
    struct stat st {};
    if (stat(sfull_path, &st) != 0) {
      TAVRIX_LOG(0, "Rename source %s does not exist err %s\n", sfull_path, strerror(errno));
      return tavrix::refuse(ENOENT);
    }
    *isdir = S_ISDIR(st.st_mode) ? 1 : 0;
  }
  if (*isdir == 1) {
    TAVRIX_LOG(10, "%s: path %s is a dir\n", __func__, sfull_path);
  } else {
    TAVRIX_LOG(10, "%s: path %s is not a dir\n", __func__, sfull_path);
  }
  const auto operations =
      *isdir == 1 ? tavrix::folder_operations(sfull_path, dfull_path, *private_data, __func__)
                  : tavrix::kInPlace;
  if (!operations) return tavrix::refuse();
  if (private_data->reserved_user == 0) {
    TAVRIX_LOG(10, "Checking source perms for %s, op %d\n", sfull_path, operations->source);
  }
  tavrix_scope_begin();  // both answers come from one map
  const bool may_leave =
      tavrix::is_allowed(connectpath, sfull_path, operations->source, *private_data, is_nav);
  const bool may_come =
      may_leave &&
      tavrix::is_allowed(connectpath, dfull_path, operations->destination, *private_data, is_nav);
  tavrix_scope_end();
  if (!may_leave) TAVRIX_LOG(8, "Permission denied for source %s\n", sfull_path);
  if (!may_come) return tavrix::refuse();
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Could not switch to root for rename operations %s -> %s\n", sfull_path,
               dfull_path);
    return tavrix::refuse();
  }
  return tavrix::kProceed;
}

void rename_postprocess(const char* new_full_path, const char* old_full_path, int isdir,
                        connection_private_data_s* private_data) {
  tavrix::record_change(
      *private_data, old_full_path, VFSEVENT__OP_TYPE__OPTYPE_RENAME,
      isdir != 0 ? VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR : VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
      tavrix::Stamp::kYes, new_full_path);
  TAVRIX_LOG(5, "%s(%d):wrote VFS event rename %s\n", __func__, __LINE__, old_full_path);
}
