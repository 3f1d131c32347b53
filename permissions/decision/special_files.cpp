// SPDX-License-Identifier: LGPL-3.0-or-later
// Bookkeeping files of desktop clients.

#include <cstring>

#include "logging.h"
#include "perm_enforcer.h"
#include "tavrix_utils.h"

namespace tavrix {
namespace {

// Compared with the start of a path relative to the share root, without case. So ".Trash" covers
// ".Trash-1000" too. Of the folders below, only the two top-level ones have entries.
constexpr const char* SPECIAL_FOLDER_FILE_PATHS[] = {
    ".TemporaryItems", ".DS_Store",        "._.DS_Store",       "._.TemporaryItems",
    ".Trash",          "Shared/.DS_Store", "Private/.DS_Store",
};

// Searched anywhere in a path, with case.
constexpr const char* WILD_CARD_SEARCHES = ".sb-";

bool begins_with_special_path(const char* path, const char* function) {
  const std::size_t length = std::strlen(path);
  for (const char* entry : SPECIAL_FOLDER_FILE_PATHS) {
    const std::size_t entry_length = std::strlen(entry);
    if (length < entry_length) {
      TAVRIX_LOG(2, "\n%s: NOT comparing SPECIAL_FOLDER_FILE_PATH=%s with path=%s", function, entry,
                 path);
      continue;
    }
    TAVRIX_LOG(2, "\n%s: comparing SPECIAL_FOLDER_FILE_PATH=%s with path=%s", function, entry,
               path);
    if (__tavrix_strncasecmp(entry, path, entry_length) == 0) {
      TAVRIX_LOG(2, "\n%s: FOUND SPECIAL_FOLDER_FILE_PATH=%s with path=%s", function, entry, path);
      return true;
    }
    TAVRIX_LOG(2, "\n%s: NOT FOUND SPECIAL_FOLDER_FILE_PATH=%s with path=%s", function, entry,
               path);
  }
  return false;
}

bool contains_wild_card(const char* path, const char* function) {
  TAVRIX_LOG(2, "\nWILD_CARD_SEARCH path=%s", path);
  if (std::strlen(path) < std::strlen(WILD_CARD_SEARCHES)) {
    TAVRIX_LOG(2, "\n%s: NOT comparing WILD_CARD_SEARCHES=%s with path=%s", function,
               WILD_CARD_SEARCHES, path);
    return false;
  }
  if (std::strstr(path, WILD_CARD_SEARCHES) != nullptr) {
    TAVRIX_LOG(4, "ENFORCE_PERMS \n%s: FOUND WILD_CARD=%s with path=%s", function,
               WILD_CARD_SEARCHES, path);
    return true;
  }
  TAVRIX_LOG(2, "\n%s: NOT FOUND WILD_CARD_SEARCHES=%s with path=%s", function, WILD_CARD_SEARCHES,
             path);
  return false;
}

}  // namespace
}  // namespace tavrix

int is_special_folder_file(const char* path) {
  if (tavrix::begins_with_special_path(path, __func__)) return 1;
  const int is_special = tavrix::contains_wild_card(path, __func__) ? 1 : 0;
  TAVRIX_LOG(2, "%s: path=%s is_special=%d", __func__, path, is_special);
  return is_special;
}
