// SPDX-License-Identifier: LGPL-3.0-or-later
// ASCII letters without regard to case, whatever the locale is.
#pragma once

namespace tavrix::mapbrowse {

[[nodiscard]] constexpr unsigned char upper(char letter) {
  const auto byte = static_cast<unsigned char>(letter);
  return byte >= 'a' && byte <= 'z' ? static_cast<unsigned char>(byte - 'a' + 'A') : byte;
}

}  // namespace tavrix::mapbrowse
