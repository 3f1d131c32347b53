// SPDX-License-Identifier: LGPL-3.0-or-later
// Printing for people and for programs.
#pragma once

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tools/mapcheck/findings.hpp"

namespace tavrix::ctl {

using Json = nlohmann::ordered_json;

// One line on standard error: why nothing was done, or what to look at although it was.
void complain(std::string_view text);
void warn(std::string_view text);

template <typename... Arguments>
void complain(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  complain(std::string_view(fmt::format(format, std::forward<Arguments>(arguments)...)));
}

// Standard output; bytes that are no UTF-8 come out as replacement characters.
void print(const Json& json);

// Sets `key` to a text of any bytes: with replacement characters where it is no UTF-8, and then its
// exact bytes under `key` + "_base64" too.
void set_bytes(Json& object, const std::string& key, std::string_view bytes);

// The text for a terminal: control characters as escapes.
std::string shown(std::string_view bytes);

// "1.2 MiB"
std::string human_bytes(uint64_t bytes);

std::string user_name(uint32_t uid);  // empty when nobody knows it
std::string group_name(uint32_t gid);

// "read write delete navigate view", "-" for none
std::string rights(uint32_t mask);

void print_findings(const mapcheck::Findings& findings);
Json json_of(const mapcheck::Findings& findings);

}  // namespace tavrix::ctl
