// SPDX-License-Identifier: LGPL-3.0-or-later
// JSON for programs that read the output of a command. docs/json/README.md has the conventions, and
// docs/json/NAME.schema.json the schema of each document.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace tavrix::json {

using Json = nlohmann::ordered_json;

// An object with the name of its schema, "tavrix.NAME/1". NAME is the command with its words joined
// by "-".
Json document(std::string_view name);

// The text of a document, with replacement characters for bytes that are not UTF-8: one line, or
// indented by that many blanks.
std::string text_of(const Json& json, int indent = -1);
// Both print on standard output: the first indented, the second as one line.
void print(const Json& json);
void print_line(const Json& json);

// Sets `key` to a text of any bytes. If the text is not UTF-8, its exact bytes go under
// `key` + "_base64" too.
void set_bytes(Json& object, const std::string& key, std::string_view bytes);

// A time in UTC as RFC 3339 has it, such as "2026-11-22T05:17:24Z", with microseconds if given.
// Nothing for a year that has not four digits.
std::optional<std::string> rfc3339(int64_t seconds, std::optional<int> microseconds = {});

// Sets `key` to the time if RFC 3339 can express it.
void set_time(Json& object, const std::string& key, int64_t seconds);

}  // namespace tavrix::json
