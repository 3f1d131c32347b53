// SPDX-License-Identifier: LGPL-3.0-or-later
// The files of the map beside its tables; all in one folder, changed under one lock.
#pragma once

#include "read_perms.h"

namespace tavrix::mapload {

constexpr const char* kFolder = "/etc/tavrix";
// The image that is current: readers look at no table without it, and a restart reads it. Its
// checksum stands in ".permbe_map.sha256".
constexpr const char* kLocalCopy = TAVRIX_PERMBE_MAP_PATH;
// While a map is imported: a second name of the copy that is current.
constexpr const char* kCopyBefore = TAVRIX_PERMBE_MAP_PATH ".before";
// An empty file that takes the copy's name, for the import to fill.
constexpr const char* kCopyToFill = TAVRIX_PERMBE_MAP_PATH ".fill";
// The map that was published last; see mark.hpp.
constexpr const char* kMark = TAVRIX_PERMBE_MAP_PATH ".mark";
// While a map is imported: names of the two files that the import may remove.
constexpr const char* kImportFolder = "/etc/tavrix/.import";
constexpr const char* kLock = "/etc/tavrix/.map.lock";
// The copy holds every folder name and every permission: for root's eyes only.
constexpr unsigned kPrivate = 0600;

}  // namespace tavrix::mapload
