// SPDX-License-Identifier: LGPL-3.0-or-later
// A decision in sentences.
#pragma once

#include <string>

#include "tools/explain/words.hpp"

namespace tavrix::explain {

// One sentence without a full stop: why the verdict is as it is.
[[nodiscard]] std::string reason(const Question& question, const Facts& facts);

// The source of a grant: "administrator", "group Readers", "own entry", or a reason.
[[nodiscard]] std::string through(const Question& question, const Facts& facts);

// "administrator", "power user", "standard user" or "reserved"; empty when the decision ended
// before it looked at the caller.
[[nodiscard]] std::string class_of(const Question& question, const Facts& facts);

// The part of the share that ruled: "root", "private", "shared", "top", "special" or "climbs";
// empty when the verdict does not depend on it.
[[nodiscard]] std::string area_of(const Facts& facts);

// The row of the rules: "needs read and write on the parent folder"; empty when none was asked.
[[nodiscard]] std::string rule_text(const Facts& facts);

// "file", "folder" or "missing"; empty when the decision ended before it looked.
[[nodiscard]] std::string type_of(const Facts& facts);

// "give Ben read and write on Shared/Design"
[[nodiscard]] std::string text_of(const std::vector<Gift>& gifts);
// "take the entry of group Readers (read) from Shared/Design"
[[nodiscard]] std::string text_of(const std::vector<Removal>& removals);

}  // namespace tavrix::explain
