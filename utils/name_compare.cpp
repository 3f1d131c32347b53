// SPDX-License-Identifier: LGPL-3.0-or-later
// Case-insensitive comparison of names, byte by byte, in the C library's locale.
//
// A place where both names have a byte above 0x7f cannot be judged by bytes: it is reported as
// such, and the caller goes on to Samba's comparison.
#include <cctype>

#include "logging.h"
#include "tavrix_utils.h"

namespace tavrix {
namespace {

constexpr int kSortsFirst = -1;
constexpr int kEqual = 0;
constexpr int kSortsLast = 1;
constexpr int kUndecidable = 2;

constexpr int kTraceLevel = 4;

bool is_extended(char byte) noexcept { return static_cast<signed char>(byte) < 0; }

// Expects at least one extended byte.
int compare_extended(char a, char b) noexcept {
  if (!is_extended(a)) return kSortsFirst;
  return is_extended(b) ? kUndecidable : kSortsLast;
}

int compare_ascii(char a, char b) noexcept {
  if (a == b) return kEqual;
  // Reads the table behind toupper(), to save a call for each byte.
  const auto* upper = *__ctype_toupper_loc();
  const auto fold = [upper](char byte) {
    return static_cast<signed char>(upper[static_cast<unsigned char>(byte)]);
  };
  const signed char folded_a = fold(a);
  const signed char folded_b = fold(b);
  if (folded_a == folded_b) return kEqual;
  return folded_a > folded_b ? kSortsLast : kSortsFirst;
}

// The traces of the comparisons below; the first comparison writes none.
struct Silent {
  static void extended() noexcept {}
  static void differ(int /*order*/, char /*a*/, char /*b*/) noexcept {}
};

struct TracedBounded {
  static void extended() { TAVRIX_LOG(kTraceLevel, "Extended character detected"); }
  static void differ(int order, char a, char b) {
    if (order == kSortsLast) {
      TAVRIX_LOG(kTraceLevel, "+ Mismatched p1 %c p2 %c", a, b);
    } else {
      TAVRIX_LOG(kTraceLevel, "- Mismatched p1 %c p2 %c", a, b);
    }
  }
};

// The unbounded comparison misspells its texts; log filters expect that.
struct TracedWhole {
  static void extended() { TAVRIX_LOG(kTraceLevel, "Extended character detected"); }
  static void differ(int order, char a, char b) {
    if (order == kSortsLast) {
      TAVRIX_LOG(kTraceLevel, "+ Misatched p1 %c p2 %c", a, b);
    } else {
      TAVRIX_LOG(kTraceLevel, "- Misatched p1 %c p2 %c", a, b);
    }
  }
};

// Compares two bytes at the same place; neither is the end of a name.
template <typename Trace>
int compare_place(char a, char b) {
  if (is_extended(a) || is_extended(b)) {
    Trace::extended();
    return compare_extended(a, b);
  }
  const int order = compare_ascii(a, b);
  if (order != kEqual) Trace::differ(order, a, b);
  return order;
}

// Compares both names to their ends.
template <typename Trace>
int compare_whole(const char* a, const char* b) {
  for (; *a != '\0' && *b != '\0'; ++a, ++b) {
    if (const int order = compare_place<Trace>(*a, *b); order != kEqual) return order;
  }
  if (*a == '\0') return *b == '\0' ? kEqual : kSortsFirst;
  return kSortsLast;
}

}  // namespace
}  // namespace tavrix

using tavrix::compare_place;
using tavrix::compare_whole;

int tavrix_strncasecmp(const char* a, const char* b, int n) {
  for (int i = 0; i < n; ++i) {
    if (a[i] == '\0') return b[i] == '\0' ? tavrix::kEqual : tavrix::kSortsFirst;
    if (b[i] == '\0') return tavrix::kSortsLast;
    if (const int order = compare_place<tavrix::Silent>(a[i], b[i]); order != tavrix::kEqual) {
      return order;
    }
  }
  return tavrix::kEqual;
}

// Skips the first byte of both names: programs outside the library keep a mark there. They also
// rely on 0 for a missing b. Do not pass an empty `a`; an empty `b` is never read beyond its end.
int tavrix_strcasecmp(const char* a, const char* b) {
  if (b == nullptr) return tavrix::kEqual;
  const char* rest_of_b = *b == '\0' ? b : b + 1;
  const char* rest_of_a = *a == '\0' ? a : a + 1;
  return compare_whole<tavrix::Silent>(rest_of_a, rest_of_b);
}

int __tavrix_strcasecmp(const char* a, const char* b) {
  const int order = compare_whole<tavrix::TracedWhole>(a, b);
  if (order == tavrix::kEqual) TAVRIX_LOG(tavrix::kTraceLevel, "Matched");
  return order;
}

int __tavrix_strncasecmp(const char* a, const char* b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (a[i] == '\0') return tavrix::kSortsFirst;
    if (b[i] == '\0') return tavrix::kSortsLast;
    const int order = compare_place<tavrix::TracedBounded>(a[i], b[i]);
    if (order != tavrix::kEqual) return order;
  }
  TAVRIX_LOG(tavrix::kTraceLevel, "end of input length, match, char #%u",
             static_cast<unsigned int>(n));
  return tavrix::kEqual;
}
