// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapcheck/json_stream.hpp"

#include <array>

namespace tavrix::mapcheck {
namespace {

JsonEvents& events_of(void* context) { return *static_cast<JsonEvents*>(context); }
std::string_view text_of(const unsigned char* text, std::size_t length) {
  return {reinterpret_cast<const char*>(text), length};
}

const yajl_callbacks kCallbacks{
    .yajl_null = [](void* context) -> int { return events_of(context).other("null"); },
    .yajl_boolean = [](void* context, int value) -> int {
      return events_of(context).other(value != 0 ? "true" : "false");
    },
    .yajl_integer = nullptr,
    .yajl_double = nullptr,
    .yajl_number = [](void* context, const char* token, std::size_t length) -> int {
      return events_of(context).number({token, length});
    },
    .yajl_string = [](void* context, const unsigned char* text, std::size_t length) -> int {
      return events_of(context).text(text_of(text, length));
    },
    .yajl_start_map = [](void* context) -> int { return events_of(context).start_object(); },
    .yajl_map_key = [](void* context, const unsigned char* text, std::size_t length) -> int {
      return events_of(context).key(text_of(text, length));
    },
    .yajl_end_map = [](void* context) -> int { return events_of(context).end_object(); },
    .yajl_start_array = [](void* context) -> int { return events_of(context).start_array(); },
    .yajl_end_array = [](void* context) -> int { return events_of(context).end_array(); }};

int hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

}  // namespace

JsonStream::JsonStream(JsonEvents& events)
    : events_(events), parser_(yajl_alloc(&kCallbacks, nullptr, &events_)) {
  yajl_config(parser_, yajl_allow_comments, 1);
}

JsonStream::~JsonStream() { yajl_free(parser_); }

bool JsonStream::run(Source& source) {
  std::array<char, 65536> chunk;
  while (const std::size_t length = source.read(chunk.data(), chunk.size())) {
    scan_escapes(chunk.data(), length);
    const auto* bytes = reinterpret_cast<const unsigned char*>(chunk.data());
    const yajl_status status = yajl_parse(parser_, bytes, length);
    if (status == yajl_status_client_canceled) return false;
    if (status != yajl_status_ok) {
      unsigned char* text = yajl_get_error(parser_, 0, bytes, length);
      error_ = reinterpret_cast<const char*>(text);
      yajl_free_error(parser_, text);
      while (!error_.empty() && error_.back() == '\n') error_.pop_back();
      return false;
    }
    chunk_start_ += length;
  }
  is_at_end_ = true;
  const yajl_status status = yajl_complete_parse(parser_);
  if (status == yajl_status_error) error_ = "the file ends in the middle of the document";
  return status == yajl_status_ok;
}

// At its end the parser feeds itself a blank, which is not a byte of the file and is not counted.
uint64_t JsonStream::offset() const {
  return is_at_end_ ? chunk_start_ : chunk_start_ + yajl_get_bytes_consumed(parser_);
}

// Looks for escapes without parsing: a backslash stands only in strings, and in comments, where
// this may report something that does not matter.
void JsonStream::scan_escapes(const char* chunk, std::size_t length) {
  for (std::size_t i = 0; i < length && lone_surrogate_ < 0; ++i) {
    const auto at = static_cast<int64_t>(chunk_start_ + i);
    const char byte = chunk[i];
    switch (escape_) {
      case Escape::kNone:
        if (byte == '\\') {
          escape_ = Escape::kBackslash;
        } else if (high_at_ >= 0) {
          lone_surrogate_ = high_at_;
        }
        break;
      case Escape::kBackslash:
        escape_ = byte == 'u' ? Escape::kHex : Escape::kNone;
        hex_digits_ = 0;
        hex_value_ = 0;
        if (byte != 'u' && high_at_ >= 0) lone_surrogate_ = high_at_;
        break;
      case Escape::kHex: {
        const int value = hex_value(byte);
        if (value < 0) {
          escape_ = Escape::kNone;  // the parser will refuse it
          break;
        }
        hex_value_ = hex_value_ * 16 + static_cast<unsigned>(value);
        if (++hex_digits_ < 4) break;
        escape_ = Escape::kNone;
        const bool is_low = hex_value_ >= 0xDC00 && hex_value_ <= 0xDFFF;
        const bool is_high = hex_value_ >= 0xD800 && hex_value_ <= 0xDBFF;
        if (is_low != (high_at_ >= 0)) {
          lone_surrogate_ = high_at_ >= 0 ? high_at_ : at;
          break;
        }
        high_at_ = is_high ? at : -1;
        break;
      }
    }
  }
}

}  // namespace tavrix::mapcheck
