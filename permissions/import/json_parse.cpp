// SPDX-License-Identifier: LGPL-3.0-or-later
#include "permissions/import/json_parse.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"

namespace tavrix {
namespace {

// Ends the process without memory: the parser does not check its allocator's results.
void* checked(void* block) noexcept {
  TAVRIX_REQUIRE(block != nullptr, "memory for the JSON parser");
  return block;
}
void* allocate(void* /*context*/, std::size_t size) { return checked(std::malloc(size)); }
void* reallocate(void* /*context*/, void* block, std::size_t size) {
  return checked(std::realloc(block, size));
}
void release(void* /*context*/, void* block) { std::free(block); }

yajl_alloc_funcs allocator{
    .malloc = allocate, .realloc = reallocate, .free = release, .ctx = nullptr};

}  // namespace

JsonParse::JsonParse(const yajl_callbacks& callbacks) noexcept
    : parser_(yajl_alloc(&callbacks, &allocator, nullptr)), generator_(yajl_gen_alloc(&allocator)) {
  yajl_gen_config(generator_, yajl_gen_beautify, 1);
  yajl_gen_config(generator_, yajl_gen_validate_utf8, 1);
  yajl_config(parser_, yajl_allow_comments, 1);
}

JsonParse::~JsonParse() {
  yajl_gen_free(generator_);
  yajl_free(parser_);
}

bool JsonParse::feed(const char* chunk, std::size_t length) noexcept {
  const auto* bytes = reinterpret_cast<const unsigned char*>(chunk);
  is_accepted_ = yajl_parse(parser_, bytes, length) == yajl_status_ok;
  if (is_accepted_) {
    write_generated();
  } else {
    report_error(bytes, length);  // now, because finishing loses the place of the error
  }
  return is_accepted_;
}

void JsonParse::finish() noexcept {
  if (yajl_complete_parse(parser_) != yajl_status_ok && is_accepted_) {
    report_error(reinterpret_cast<const unsigned char*>(""), 0);
  }
}

void JsonParse::report_error(const unsigned char* chunk, std::size_t length) noexcept {
  unsigned char* text = yajl_get_error(parser_, 1, chunk, length);
  std::fprintf(stderr, "%s", reinterpret_cast<const char*>(text));
  yajl_free_error(parser_, text);
}

// Writes what the generator holds, which is nothing: the callbacks do not use it.
void JsonParse::write_generated() noexcept {
  const unsigned char* text = nullptr;
  std::size_t length = 0;
  yajl_gen_get_buf(generator_, &text, &length);
  if (length > 0) std::fwrite(text, 1, length, stdout);
  yajl_gen_clear(generator_);
}

uint64_t decimal_of(const char* token, std::size_t length) noexcept {
  constexpr std::size_t kNeverOverflows = 19;
  uint64_t value = 0;
  std::size_t digits = 0;
  for (; digits < length && digits < kNeverOverflows; ++digits) {
    const char digit = token[digits];
    if (digit < '0' || digit > '9') break;
    value = value * 10 + static_cast<uint64_t>(digit - '0');
  }
  const bool is_plain = digits > 0 && (digits == length || digits < kNeverOverflows);
  if (is_plain || length == 0) return value;

  // A token with a sign, a blank or many digits goes to the C library, as a copy with a NUL.
  const CString copy(strndup(token, length));
  TAVRIX_REQUIRE(copy != nullptr, "memory for the JSON parser");
  return std::strtoull(copy.get(), nullptr, 10);
}

}  // namespace tavrix
