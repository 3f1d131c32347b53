// SPDX-License-Identifier: LGPL-3.0-or-later
// Writes the table of settings as documents: the shipped settings file and the lists in the
// manual pages. scripts/generate.sh writes them; a test compares them with the files in the tree.
#pragma once

#include <string>

namespace tavrix::settings_text {

// packaging/tavrix.conf: every setting with its shipped value, under a comment.
std::string shipped_file();

// The items of the list of settings in tavrixctl(1), in mdoc.
std::string manual_items();

// The sections of tavrix.conf(5), in mdoc: each setting with its values, its readers, and when a
// change counts.
std::string page_items();

}  // namespace tavrix::settings_text
