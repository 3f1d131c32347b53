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

bool is_same_file(const char* one, const char* other) noexcept {
  struct stat first {};
  struct stat second {};
  return lstat(one, &first) == 0 && lstat(other, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

}  // namespace

void link_for_history(const char* file, HistoryKind kind, const char* dump_name) noexcept {
  const ErrnoKeeper keep;
  const char* slash = std::strrchr(dump_name, '/');
  const char* base = slash == nullptr ? dump_name : slash + 1;
  const char* prefix = kind == HistoryKind::kEvents ? "events" : "audit";
  char name[512];
  for (int number = 0; number < kNamesToTry; ++number) {
    // A name that is taken is another file's, which nothing may replace.
    char suffix[16] = "";
    if (number > 0) std::snprintf(suffix, sizeof suffix, ".%d", number);
    std::snprintf(name, sizeof name, "%s/%s.%s%s", TAVRIX_HISTORY_FOLDER, prefix, base, suffix);
    if (link(file, name) == 0 || errno == ENOENT) return;
    if (errno != EEXIST) break;
    if (is_same_file(file, name)) return;
    errno = EEXIST;
  }
  TAVRIX_LOG(0, "cannot link %s to %s for the history. errno = %d(%s)", file, name, errno,
             strerror(errno));
}

}  // namespace tavrix
