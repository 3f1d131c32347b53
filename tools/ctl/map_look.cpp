// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/map_look.hpp"

#include "tools/ctl/commands.hpp"
#include "tools/ctl/survive.hpp"

namespace tavrix::ctl {

int look(const std::string& name, const std::string& file,
         const std::function<int(const Image&, const mapcheck::Walk&)>& work) {
  return survive(name, [&] {
    const auto image = Image::to_walk(file);
    if (!image) return kFailure;
    return walk_through(*image, [&](const mapcheck::Walk& walk) { return work(*image, walk); });
  });
}

}  // namespace tavrix::ctl
