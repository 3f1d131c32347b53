// SPDX-License-Identifier: LGPL-3.0-or-later
// The loader's messages: lines of the journal, and the status of the service.
#pragma once

#include <string>

#include "tools/mapload/report.hpp"
#include "tools/service/service.hpp"

namespace tavrix::loader {

using service::Tone;

// Prints to the journal. The same warning or error is printed at most once a minute.
void tell(Tone tone, const std::string& text);
void tell(const mapload::Report& report);
// Sets the status of the service to the first line of the text. An empty text changes nothing.
void set_status(const std::string& text);
// Appends a warning about a topic to every status until it is set to an empty text. A line in the
// journal alone would soon be forgotten.
void set_standing_warning(const std::string& topic, const std::string& text);

}  // namespace tavrix::loader
