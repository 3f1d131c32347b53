// SPDX-License-Identifier: LGPL-3.0-or-later
// Names and reasons for a terminal or the journal: they come from clients and files.
#pragma once

#include <fmt/format.h>
#include <iterator>
#include <string>
#include <string_view>

namespace tavrix::text {

// The bytes with escapes for control characters, so that they neither steer a terminal nor begin a
// line of their own.
inline std::string shown(std::string_view bytes) {
  std::string safe;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      fmt::format_to(std::back_inserter(safe), "\\x{:02x}", byte);
    } else {
      safe += c;
    }
  }
  return safe;
}

}  // namespace tavrix::text
