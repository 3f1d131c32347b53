// SPDX-License-Identifier: LGPL-3.0-or-later
// A look into the current map, or into a file, by a walk.
#pragma once

#include <functional>
#include <string>

#include "tools/ctl/map_view.hpp"

namespace tavrix::ctl {

// Walks through the file, or the current table when the path is empty. Names beyond ASCII need the
// server's comparison, without which the process ends; `name` is the work in the sentence about it.
int look(const std::string& name, const std::string& file,
         const std::function<int(const Image&, const mapcheck::Walk&)>& work);

}  // namespace tavrix::ctl
