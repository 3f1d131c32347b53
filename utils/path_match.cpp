// SPDX-License-Identifier: LGPL-3.0-or-later
// Equality of paths without case, with Samba's help where ASCII rules cannot judge.

#include "logging.h"
#include "perm_enforcer.h"
#include "tavrix_utils.h"

namespace tavrix {
namespace {

constexpr int kUndecidable = 2;  // both names hold an extended byte where they differ

}  // namespace
}  // namespace tavrix

int _paths_match(const char* a, const char* b) {
  TAVRIX_LOG(4, "compare path '%s' to '%s'", a, b);
  const int difference = __tavrix_strcasecmp(a, b);
  if (difference == 0) return 1;
  if (difference == tavrix::kUndecidable && strcasecmp_m_wrapper(a, b) == 0) {
    TAVRIX_LOG(4, "strcasecmp_m_wrapper match");
    return 1;
  }
  TAVRIX_LOG(4, "Paths do not match");
  return 0;
}

int _paths_match_len(const char* a, const char* b, size_t n) {
  TAVRIX_LOG(4, "compare path '%s' to '%s' for len %d", a, b, static_cast<int>(n));
  const int difference = __tavrix_strncasecmp(a, b, n);
  if (difference == 0) return 1;
  if (difference == tavrix::kUndecidable && strncasecmp_m_wrapper(a, b, n) == 0) {
    TAVRIX_LOG(4, "strncasecmp_m_wrapper match");
    return 1;
  }
  TAVRIX_LOG(4, "Paths do not match");
  return 0;
}
