// SPDX-License-Identifier: LGPL-3.0-or-later
// Is a name of the map the one that a path has? Case makes no difference, by Samba's rules.
#pragma once

#include <cstdint>
#include <cstring>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "permissions/map/path_elements.hpp"
#include "tavrix_utils.h"

namespace tavrix {

constexpr int kComparisonTrace = 10;  // the level that traces every comparison of a lookup

// True if the bytes are equal and all ASCII. That is the usual case, and every comparison below
// answers "equal" to it.
inline bool same_ascii(const char* a, const char* b, uint32_t len) {
  constexpr uint64_t kExtendedBits = 0x8080808080808080U;
  uint64_t seen = 0;
  uint32_t at = 0;
  for (; at + 8 <= len; at += 8) {
    uint64_t x = 0;
    uint64_t y = 0;
    std::memcpy(&x, a + at, 8);
    std::memcpy(&y, b + at, 8);
    if (x != y) return false;
    seen |= x;
  }
  for (; at < len; ++at) {
    if (a[at] != b[at]) return false;
    seen |= static_cast<unsigned char>(a[at]);
  }
  return (seen & kExtendedBits) == 0;
}

// Compares two names of equal hash and length in full. The stored one ends with a NUL.
[[nodiscard]] inline bool names_equal(const char* stored, const PathComponent& wanted,
                                      int debug_level) {
  if (debug_level < kComparisonTrace && same_ascii(stored, wanted.name, wanted.len)) return true;
  int difference = tavrix_strncasecmp(stored, wanted.name, static_cast<int>(wanted.len));
  TAVRIX_LOG_IF(debug_level, kComparisonTrace, "tavrix_strncasecmp strcmpres %d", difference);
  if (difference != 2) return difference == 0;
  // Samba's function counts its bound in characters, not bytes, so the name must be terminated.
  const CString terminated(strndup(wanted.name, wanted.len));
  TAVRIX_REQUIRE(terminated != nullptr, "parr != NULL");
  difference = strncasecmp_m_wrapper(stored, terminated.get(), wanted.len);
  TAVRIX_LOG_IF(debug_level, kComparisonTrace, "StrnCaseCmp strcmpres %d", difference);
  if (difference == 0) return true;
  difference = std::memcmp(stored, wanted.name, wanted.len);
  TAVRIX_LOG_IF(debug_level, kComparisonTrace, "memcmp strcmpres %d", difference);
  return difference == 0;
}

}  // namespace tavrix
