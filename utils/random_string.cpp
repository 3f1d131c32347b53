// SPDX-License-Identifier: LGPL-3.0-or-later
// Random texts for the names of files that several processes make at once.

#include <cstdlib>

#include "eventstore.h"

namespace tavrix {
namespace {

// Sixty-four characters, so that six random bits choose one. Names with the semicolon exist on
// appliances, so it stays.
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
