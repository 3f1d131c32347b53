// SPDX-License-Identifier: LGPL-3.0-or-later
// Users and groups by name. Each is looked up once: an output may name the same group a million
// times.
#pragma once

#include <string>

#include "tools/explain/facts.hpp"

namespace tavrix::ctl {

// "user bin", or "user 70001" for an id without a name. For a terminal, with escapes.
const std::string& label_of(const explain::Trustee& trustee);
// An object with the keys type, id and, if there is one, name.
const std::string& json_text_of(const explain::Trustee& trustee);

}  // namespace tavrix::ctl
