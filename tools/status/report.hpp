// SPDX-License-Identifier: LGPL-3.0-or-later
// The facts and their judgement, for people, for programs, and for a monitoring system.
#pragma once

#include <string>
#include <vector>

#include "tools/json/document.hpp"
#include "tools/status/facts.hpp"
#include "tools/status/judge.hpp"

namespace tavrix::status {

// A screen. The first line is what a monitoring plugin says.
std::string screen_of(const Facts& facts, const std::vector<Finding>& findings);
json::Json json_of(const Facts& facts, const std::vector<Finding>& findings);
// The text format of Prometheus, for the textfile collector of node_exporter.
std::string metrics_of(const Facts& facts, const std::vector<Finding>& findings);

// The findings alone, as both commands list them.
json::Json json_of(const std::vector<Finding>& findings);

}  // namespace tavrix::status
