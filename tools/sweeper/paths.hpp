// SPDX-License-Identifier: LGPL-3.0-or-later
// Files in which the sweeper remembers things beyond its own end and a stop of the machine.
#pragma once

#include "tavrix_api.h"

namespace tavrix::sweeper {

constexpr const char* kConfFolder = TAVRIX_CONF_FOLDER;
constexpr const char* kRunningMark = TAVRIX_CONF_FOLDER "/sweeper.running";

}  // namespace tavrix::sweeper
