// SPDX-License-Identifier: LGPL-3.0-or-later
// The settings of this process. Before a block is attached they are zero.
#pragma once

#include "parameter_block.h"

namespace tavrix {

inline int parameter(e_tavrix_global_index index) noexcept {
  return global_params == nullptr ? 0 : global_params[index].value.intval;
}

inline const char* parameter_text(e_tavrix_global_index index) noexcept {
  return global_params == nullptr ? "" : global_params[index].value.strval;
}

}  // namespace tavrix
