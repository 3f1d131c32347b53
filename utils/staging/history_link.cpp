// SPDX-License-Identifier: LGPL-3.0-or-later
#include "utils/staging/history_link.hpp"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "logging.h"

namespace tavrix {
namespace {

constexpr int kNamesToTry = 1000;
constexpr int kLongestFolder = 64;  // as long as the name of a node may be

bool is_same_file(const char* one, const char* other) noexcept {
  struct stat first {};
  struct stat second {};
  return lstat(one, &first) == 0 && lstat(other, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

// The end of a path, and the name of the folder that it lies in.
struct DumpName {
  const char* base;
  const char* folder;
  int folder_length;  // 0 where there is no such name, or too long a one
};

DumpName parts_of(const char* path) noexcept {
  const char* slash = std::strrchr(path, '/');
  if (slash == nullptr) return {path, path, 0};
  const char* folder = slash;
  while (folder != path && folder[-1] != '/') --folder;
  const auto length = slash - folder;
  return {slash + 1, folder, length <= kLongestFolder ? static_cast<int>(length) : 0};
}

}  // namespace

void link_for_history(const char* file, HistoryKind kind, const char* dump_name) noexcept {
  const ErrnoKeeper keep;
  const DumpName dump = parts_of(dump_name);
  const char* prefix = kind == HistoryKind::kEvents ? "events" : "audit";
  char name[512];
  for (int number = 0; number < kNamesToTry; ++number) {
    // A name that is taken is another file's, which nothing may replace.
    char suffix[16] = "";
    if (number > 0) std::snprintf(suffix, sizeof suffix, ".%d", number);
    std::snprintf(name, sizeof name, "%s/%s.%.*s%s%s%s", TAVRIX_HISTORY_FOLDER, prefix,
                  dump.folder_length, dump.folder, dump.folder_length > 0 ? "." : "", dump.base,
                  suffix);
    if (link(file, name) == 0 || errno == ENOENT) return;
    if (errno != EEXIST) break;
    if (is_same_file(file, name)) return;
    errno = EEXIST;
  }
  TAVRIX_LOG(0, "cannot link %s to %s for the history. errno = %d(%s)", file, name, errno,
             strerror(errno));
}

}  // namespace tavrix
