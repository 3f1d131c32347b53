// SPDX-License-Identifier: LGPL-3.0-or-later
// Random requests that a client may send, and the verdict of the policy on them.
#pragma once

#include <random>
#include <string>

#include "tests/samba/matrix/judge.hpp"
#include "tests/samba/matrix/robot.hpp"

namespace tavrix::test {

// A create request for the path with random disposition, mask and options, and two uses of the
// handle.
Json random_steps(const std::string& path, std::mt19937& random);

enum class Expected {
  kRefuses,    // whatever the error is
  kLikePlain,  // the caller may: what the server says without the module
  kEither,     // the policy decides later, or the request is no longer about the path
};
Expected expected_of(const Json& create, const Judge& judge, const Disk& disk);

// A path of the share as clients write it.
std::string with_backslashes(std::string path);

}  // namespace tavrix::test
