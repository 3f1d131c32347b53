// SPDX-License-Identifier: LGPL-3.0-or-later
// The last step of a child that runs a program.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tavrix::test {

// Turns this process into a program of the path; returns only if there is none.
void become_program(const std::vector<std::string>& argv,
                    const std::vector<std::pair<std::string, std::string>>& environment);

}  // namespace tavrix::test
