// SPDX-License-Identifier: LGPL-3.0-or-later
// Reads a JSON file as a stream of events with byte offsets. Uses the parser of the import.
#pragma once

#include <yajl/yajl_parse.h>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/mapcheck/lint.hpp"

namespace tavrix::mapcheck {

// Implementations return false to stop.
class JsonEvents {
 public:
  virtual ~JsonEvents() = default;
  virtual bool start_object() = 0;
  virtual bool end_object() = 0;
  virtual bool start_array() = 0;
  virtual bool end_array() = 0;
  virtual bool key(std::string_view text) = 0;
  virtual bool text(std::string_view text) = 0;
  virtual bool number(std::string_view token) = 0;
  virtual bool other(std::string_view what) = 0;  // true, false, null
};

class JsonStream {
 public:
  explicit JsonStream(JsonEvents& events);
  ~JsonStream();
  JsonStream(const JsonStream&) = delete;
  JsonStream& operator=(const JsonStream&) = delete;

  // Returns false when the file does not parse or when an event handler stopped; in the second case
  // error() is empty.
  bool run(Source& source);
  [[nodiscard]] const std::string& error() const { return error_; }
  // The offset of the byte behind the current event.
  [[nodiscard]] uint64_t offset() const;
  // The offset of the first escape that is half of a surrogate pair, or -1. The parser turns such
  // an escape into "?".
  [[nodiscard]] int64_t lone_surrogate() const { return lone_surrogate_; }

 private:
  void scan_escapes(const char* chunk, std::size_t length);

  JsonEvents& events_;
  yajl_handle parser_;
  std::string error_;
  uint64_t chunk_start_ = 0;
  bool is_at_end_ = false;
  int64_t lone_surrogate_ = -1;
  // State of the scanner of escapes, kept from one chunk to the next.
  enum class Escape { kNone, kBackslash, kHex } escape_ = Escape::kNone;
  int hex_digits_ = 0;
  unsigned hex_value_ = 0;
  int64_t high_at_ = -1;  // offset of a first half that waits for its second; -1: none
};

}  // namespace tavrix::mapcheck
