// SPDX-License-Identifier: LGPL-3.0-or-later
// Folders that no client may delete.

#include <string_view>

#include "logging.h"
#include "tavrix_vfs_utils.h"

namespace tavrix {
namespace {

constexpr std::string_view kPrivate = "Private";
constexpr std::string_view kPrivatePrefix = "Private/";

}  // namespace
}  // namespace tavrix

// The private area and the users' folders in it belong to the appliance.
int is_deleteable(const char* path_to_delete) {
  if (path_to_delete == nullptr) return 1;
  const std::string_view path(path_to_delete);
  if (path == tavrix::kPrivate) return 0;
  if (!path.starts_with(tavrix::kPrivatePrefix) || path == tavrix::kPrivatePrefix) return 1;
  if (path.find('/', tavrix::kPrivatePrefix.size()) != std::string_view::npos) return 1;
  TAVRIX_LOG(0, "%s:  path_to_delete=%s not allowed\n", __func__, path_to_delete);
  return 0;
}
