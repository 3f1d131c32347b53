// SPDX-License-Identifier: LGPL-3.0-or-later
// Work on a map that takes its time. The daemon does it in a child (job.hpp).
#pragma once

#include <string>

#include "tools/clusterd/own_map.hpp"

namespace tavrix::clusterd {

struct Outcome {
  enum class Kind {
    kDone,
    kFailed,  // for a reason of this node
    kRefused  // the files are broken, and are so on every node
  } kind = Kind::kFailed;
  std::string text;  // why not
};

// Makes a finished image of a pair. `prepared` is set when it is done.
[[nodiscard]] Outcome prepare(const cluster::Proposal& proposal, Prepared& prepared);
// Prepares a pair and writes this node's answer into its folder. A failure is no answer.
[[nodiscard]] Outcome prepare_and_answer(const cluster::Proposal& proposal,
                                         const std::string& node);

}  // namespace tavrix::clusterd
