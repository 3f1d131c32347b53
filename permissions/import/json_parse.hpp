// SPDX-License-Identifier: LGPL-3.0-or-later
// One run of the JSON parser over a file that arrives in chunks, and the numbers in its tokens.
#pragma once

#include <yajl/yajl_gen.h>
#include <yajl/yajl_parse.h>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace tavrix {

// Comments are accepted. A parse error is printed to standard error and reported nowhere else; the
// callbacks judge the document themselves.
class JsonParse {
 public:
  explicit JsonParse(const yajl_callbacks& callbacks) noexcept;
  ~JsonParse();
  JsonParse(const JsonParse&) = delete;
  JsonParse& operator=(const JsonParse&) = delete;

  // false when the parser does not accept the chunk: a syntax error, or a callback that cancelled.
  [[nodiscard]] bool feed(const char* chunk, std::size_t length) noexcept;
  // Call this at the end of the document.
  void finish() noexcept;

 private:
  void report_error(const unsigned char* chunk, std::size_t length) noexcept;
  void write_generated() noexcept;

  yajl_handle parser_;
  yajl_gen generator_;
  bool is_accepted_ = true;
};

// Does what strtoull() does in base 10, for a token without a NUL.
[[nodiscard]] uint64_t decimal_of(const char* token, std::size_t length) noexcept;

}  // namespace tavrix
