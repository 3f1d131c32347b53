// SPDX-License-Identifier: LGPL-3.0-or-later
// Series of Samba: versions that keep the interface of modules.
#pragma once

#include <string>
#include <string_view>

namespace tavrix::status {

// True if a version such as "4.17.12" is of a series such as "4.17".
inline bool is_of_series(std::string_view version, std::string_view series) {
  return !series.empty() && version.starts_with(series) &&
         (version.size() == series.size() || version[series.size()] == '.');
}

// The sentence about a module that the installed server does not take.
inline std::string sentence_about_module(const std::string& series, const std::string& version) {
  return "the module is built for Samba " + (series.empty() ? "of an unknown series" : series) +
         ", and " + version + " is installed: no client can connect";
}

}  // namespace tavrix::status
