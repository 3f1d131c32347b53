// SPDX-License-Identifier: LGPL-3.0-or-later
#include "permissions/import/json_parse.hpp"

#include <algorithm>
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
  if (is_accepted_) write_generated();
  return is_accepted_;
}

void JsonParse::finish() noexcept {
  if (yajl_complete_parse(parser_) != yajl_status_ok && is_accepted_) print_error({}, 0);
}

// The parser's own verbose message shows the text of one chunk only. This is that message as the
// parser makes it when the whole document is one chunk.
void JsonParse::print_error(std::string_view text, std::size_t chunk_at) noexcept {
  constexpr std::size_t kArrow = 40;  // the arrow points at this column
  const std::size_t place = chunk_at + yajl_get_bytes_consumed(parser_);
  const std::size_t start = place - std::min(place, kShown);
  const std::size_t end = std::min(text.size(), place + kShown);

  char shown[kArrow + kShown + 2];
  std::size_t used = kArrow - (place - start);
  std::memset(shown, ' ', used);
  for (std::size_t at = start; at < end; ++at) {
    const bool is_line_end = text[at] == '\n' || text[at] == '\r';
    shown[used++] = is_line_end ? ' ' : text[at];
  }
  shown[used++] = '\n';
  shown[used] = '\0';

  unsigned char* error = yajl_get_error(parser_, 0, nullptr, 0);
  // A NUL in the document cuts the shown text off, with its end of the line.
  std::fprintf(stderr, "%s%s%s", reinterpret_cast<const char*>(error), shown,
               "                     (right here) ------^\n");
  yajl_free_error(parser_, error);
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
  const std::size_t most = std::min(length, kNeverOverflows);
  uint64_t value = 0;
  std::size_t digits = 0;
  for (; digits < most; ++digits) {
    const unsigned digit = static_cast<unsigned char>(token[digits]) - unsigned{'0'};
    if (digit > 9) break;
    value = value * 10 + digit;
  }
  const bool is_plain = digits > 0 && (digits == length || digits < kNeverOverflows);
  if (__builtin_expect(is_plain || length == 0, 1)) return value;

  // A token with a sign, a blank or many digits goes to the C library, as a copy with a NUL.
  const CString copy(strndup(token, length));
  TAVRIX_REQUIRE(copy != nullptr, "memory for the JSON parser");
  return std::strtoull(copy.get(), nullptr, 10);
}

}  // namespace tavrix
