// SPDX-License-Identifier: LGPL-3.0-or-later
// Names that differ, for files that several processes make at once.

#include <cstdlib>

#include "eventstore.h"

namespace tavrix {
namespace {

// Sixty-four characters, so that six random bits choose one. The last one has always been a
// semicolon; names that hold one exist.
constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+;";
static_assert(sizeof kAlphabet == 64 + 1);

}  // namespace
}  // namespace tavrix

char* rand_string(char* s, size_t size) {
  if (size == 0) return s;
  for (size_t i = 0; i + 1 < size; ++i) s[i] = tavrix::kAlphabet[std::rand() & 63];
  s[size - 1] = '\0';
  return s;
}
