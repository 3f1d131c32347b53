// SPDX-License-Identifier: LGPL-3.0-or-later
// The loader's words: to the journal, and the last one as the status of the service.
#pragma once

#include <string>

#include "tools/mapload/report.hpp"
#include "tools/service/service.hpp"

namespace tavrix::loader {

using service::Tone;

// To the journal. The same text is not repeated within a minute.
void tell(Tone tone, const std::string& text);
void tell(const mapload::Report& report);
// To whoever asks for the service's status: its first line.
void set_status(const std::string& text);
// Goes with every status, for as long as it is true: nobody reads the line of long ago.
void set_standing_warning(const std::string& text);

}  // namespace tavrix::loader
