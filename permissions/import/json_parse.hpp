// SPDX-License-Identifier: LGPL-3.0-or-later
// One run of the JSON parser over a file that arrives in chunks, and the numbers in its tokens.
#pragma once

#include <yajl/yajl_gen.h>
#include <yajl/yajl_parse.h>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tavrix {

// Comments are accepted. A parse error is printed to standard error and reported nowhere else; the
// callbacks judge the document themselves.
class JsonParse {
 public:
  explicit JsonParse(const yajl_callbacks& callbacks) noexcept;
  ~JsonParse();
  JsonParse(const JsonParse&) = delete;
  JsonParse& operator=(const JsonParse&) = delete;

  // A message shows that many bytes before the place of the error, and as many from it on.
  static constexpr std::size_t kShown = 30;

  // false when the parser does not accept the chunk: a syntax error, or a callback that cancelled.
  [[nodiscard]] bool feed(const char* chunk, std::size_t length) noexcept;
  // Prints the error in the chunk that feed() has just refused. `text` is a part of the document
  // that holds this chunk, from `chunk_at` on, and as much beside it as the message is to show.
  void print_error(std::string_view text, std::size_t chunk_at) noexcept;
  // Call this at the end of the document, also after an error. Prints the error when the document
  // ends too early.
  void finish() noexcept;

 private:
  void write_generated() noexcept;

  yajl_handle parser_;
  yajl_gen generator_;
  bool is_accepted_ = true;
};

// Does what strtoull() does in base 10, for a token without a NUL.
[[nodiscard]] uint64_t decimal_of(const char* token, std::size_t length) noexcept;

}  // namespace tavrix
