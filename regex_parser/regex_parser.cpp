// SPDX-License-Identifier: LGPL-3.0-or-later
// Matches file names against POSIX extended regular expressions.

#include "regex_parser.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"

namespace tavrix {
namespace {

void report_compile_error(int error, const regex_t& compiled, const char* pattern) {
  char reason[1024];
  regerror(error, &compiled, reason, sizeof reason);
  TAVRIX_LOG(0, "Cannot compile pattern %s due to %s", pattern, reason);
}

bool compile(const char* pattern, regex_t& compiled) {
  const int error = regcomp(&compiled, pattern, TAVRIX_REGEX_FLAGS);
  if (error == 0) return true;
  report_compile_error(error, compiled, pattern);
  return false;
}

e_regex_matchres match(const regex_t& compiled, const char* text) {
  return regexec(&compiled, text, 0, nullptr, 0) == 0 ? REGEX_TRUE : REGEX_FALSE;
}

}  // namespace
}  // namespace tavrix

e_regex_matchres match_regex_string(const char* pattern, const char* strng) {
  if (pattern == nullptr) TAVRIX_LOG(0, "Pattern is null");
  if (strng == nullptr) TAVRIX_LOG(0, "String is null");
  if (pattern == nullptr || strng == nullptr) return REGEX_ERROR;
  // The block is never freed, on purpose; regfree() frees what it refers to.
  auto* compiled = tavrix::malloc_zeroed<regex_t>();
  if (compiled == nullptr) return REGEX_ERROR;
  const e_regex_matchres result =
      tavrix::compile(pattern, *compiled) ? tavrix::match(*compiled, strng) : REGEX_ERROR;
  regfree(compiled);
  return result;
}

int get_regex_matchbuf(const char* pattern, regex_t** reg_buf) {
  if (pattern == nullptr || reg_buf == nullptr) {
    TAVRIX_LOG(0, "Bad arguments");
    return -1;
  }
  if (*reg_buf == nullptr) *reg_buf = static_cast<regex_t*>(std::malloc(sizeof(regex_t)));
  if (*reg_buf == nullptr) return -1;
  std::memset(*reg_buf, 0, sizeof(regex_t));
  return tavrix::compile(pattern, **reg_buf) ? 1 : -1;
}

e_regex_matchres match_string_with_regex_buf(const char* strng, const regex_t* regbuf) {
  if (strng != nullptr && regbuf != nullptr) return tavrix::match(*regbuf, strng);
  TAVRIX_LOG(0, "Bad arguments");
  if (regbuf == nullptr) TAVRIX_LOG(0, "Bad regbuf");
  if (strng == nullptr) TAVRIX_LOG(0, "Bad file name");
  return REGEX_ERROR;
}
