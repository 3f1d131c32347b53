// SPDX-License-Identifier: LGPL-3.0-or-later
// Output for people and for programs.
#pragma once

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tools/mapcheck/findings.hpp"

namespace tavrix::ctl {

using Json = nlohmann::ordered_json;

// These print one line on standard error: an error, because of which the command did not do its
// work, or a warning about something that it did all the same.
void complain(std::string_view text);
void warn(std::string_view text);

template <typename... Arguments>
void complain(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  complain(std::string_view(fmt::format(format, std::forward<Arguments>(arguments)...)));
}

// Prints on standard output, with replacement characters for bytes that are not UTF-8.
void print(const Json& json);

// Sets `key` to a text of any bytes. If the text is not UTF-8, its exact bytes go under
// `key` + "_base64" too.
void set_bytes(Json& object, const std::string& key, std::string_view bytes);

// The text for a terminal, with escapes for control characters.
std::string shown(std::string_view bytes);

// A size such as "1.2 MiB".
std::string human_bytes(uint64_t bytes);

std::string user_name(uint32_t uid);  // empty for an unknown id
std::string group_name(uint32_t gid);

// The names of the rights, such as "read write"; "-" for none.
std::string rights(uint32_t mask);

void print_findings(const mapcheck::Findings& findings);
Json json_of(const mapcheck::Findings& findings);

}  // namespace tavrix::ctl
