// SPDX-License-Identifier: LGPL-3.0-or-later
// A report as a page that needs nothing but itself: pictures are drawn in it, there is no script,
// and it is light or dark as the reader likes it.
#pragma once

#include <string>

#include "tools/events/people.hpp"
#include "tools/history/report.hpp"

namespace tavrix::history {

[[nodiscard]] std::string report_page(const Report& report, events::People& people);

}  // namespace tavrix::history
