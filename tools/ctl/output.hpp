// SPDX-License-Identifier: LGPL-3.0-or-later
// Output for people and for programs.
#pragma once

#include <fmt/format.h>
#include <string>
#include <string_view>

#include "tools/ctl/error_document.hpp"
#include "tools/json/document.hpp"
#include "tools/mapcheck/findings.hpp"

namespace tavrix::ctl {

using json::document;
using json::Json;
using json::set_bytes;

// Print the answer of a command, or a line of one that answers in lines.
void print(const Json& json);
void print_line(const Json& json);

// These print one line on standard error: an error, because of which the command did not do its
// work, or a warning about something that it did all the same. The error is the one of the error
// document, under its code.
void complain_as(const char* code, std::string_view text);
void complain(std::string_view text);
void warn(std::string_view text);

template <typename... Arguments>
void complain(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  complain(std::string_view(fmt::format(format, std::forward<Arguments>(arguments)...)));
}

template <typename... Arguments>
void complain_as(const char* code, fmt::format_string<Arguments...> format,
                 Arguments&&... arguments) {
  complain_as(code, std::string_view(fmt::format(format, std::forward<Arguments>(arguments)...)));
}

// The text for a terminal, with escapes for control characters.
std::string shown(std::string_view bytes);

// A size such as "1.2 MiB".
std::string human_bytes(uint64_t bytes);

std::string user_name(uint32_t uid);  // empty for an unknown id
std::string group_name(uint32_t gid);

// The names of the rights, such as "read write"; "-" for none.
std::string rights(uint32_t mask);

void print_findings(const mapcheck::Findings& findings);
// "1 error, 2 warnings"
std::string counts(const mapcheck::Findings& findings);
// Adds the counts of the findings and the findings themselves.
void set_findings(Json& object, const mapcheck::Findings& findings);

}  // namespace tavrix::ctl
