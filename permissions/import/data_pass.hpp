// SPDX-License-Identifier: LGPL-3.0-or-later
// The data pass, for the import driver.
#pragma once

#include <yajl/yajl_parse.h>

namespace tavrix {

extern const yajl_callbacks data_pass_callbacks;

}  // namespace tavrix
