// SPDX-License-Identifier: LGPL-3.0-or-later
// The files that belong to the map. They lie in one folder and are changed under one lock.
#pragma once

#include "read_perms.h"

namespace tavrix::mapload {

constexpr const char* kFolder = "/etc/tavrix";
// The current image. Readers use no table when this file is missing, and a restart reads it. Its
// checksum is in ".permbe_map.sha256".
constexpr const char* kLocalCopy = TAVRIX_PERMBE_MAP_PATH;
// A second name of the current copy, while a map is imported.
constexpr const char* kCopyBefore = TAVRIX_PERMBE_MAP_PATH ".before";
// The empty file that takes the copy's name for the import to fill.
constexpr const char* kCopyToFill = TAVRIX_PERMBE_MAP_PATH ".fill";
// The map that was published last; see mark.hpp.
constexpr const char* kMark = TAVRIX_PERMBE_MAP_PATH ".mark";
// Holds links to the two files while a map is imported; the import may remove them.
constexpr const char* kImportFolder = "/etc/tavrix/.import";
// The maps that are kept, and one that waits for approval; see tools/mapkeep.
constexpr const char* kKeptFolder = "/etc/tavrix/maps";
constexpr const char* kLock = "/etc/tavrix/.map.lock";
// The mode of these files: the copy holds every folder name and every permission.
constexpr unsigned kPrivate = 0600;

}  // namespace tavrix::mapload
