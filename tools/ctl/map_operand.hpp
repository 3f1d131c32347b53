// SPDX-License-Identifier: LGPL-3.0-or-later
// A map as an operator names one on the command line.
#pragma once

#include <optional>
#include <string>

#include "tools/cli/progress.hpp"
#include "tools/ctl/map_view.hpp"

namespace tavrix::ctl {

// "current", the two files of a map as SIZE,DATA, or the file of an image. A further kind of name
// has its place here. The image is sound; complains and returns nothing when there is none.
std::optional<Image> map_named(const std::string& word, cli::ProgressBar& bar);

}  // namespace tavrix::ctl
