// SPDX-License-Identifier: LGPL-3.0-or-later
// Writes the table of settings as documents: the shipped settings file and the list in the manual
// page. scripts/generate.sh writes both; a test compares them with the files in the tree.
#pragma once

#include <string>

namespace tavrix::settings_text {

// packaging/tavrix.conf: every setting with its shipped value, under a comment.
std::string shipped_file();

// The items of the list of settings in tavrixctl(8), in mdoc.
std::string manual_items();

}  // namespace tavrix::settings_text
