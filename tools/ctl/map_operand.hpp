// SPDX-License-Identifier: LGPL-3.0-or-later
// A map as an operator names one on the command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/cli/progress.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/mapkeep/kept.hpp"

namespace tavrix::ctl {

// "current", "held", "kept-N" for a kept map, the two files of a map as SIZE,DATA, or the file of
// an image. A further kind of name has its place here. The image is sound; complains and returns
// nothing when there is none.
std::optional<Image> map_named(const std::string& word, cli::ProgressBar& bar);

// The words for maps that are there, and a mark by which shells complete files too.
std::vector<std::string> known_operands();

// The kept map of that number; complains and returns nothing when there is none.
std::optional<mapkeep::KeptMap> kept_map(uint32_t number);
// Its image, once its checksum is found to be the one that was noted.
std::optional<Image> image_of(const mapkeep::KeptMap& map);

}  // namespace tavrix::ctl
