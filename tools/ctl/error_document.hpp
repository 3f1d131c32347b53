// SPDX-License-Identifier: LGPL-3.0-or-later
// With --json, a command that fails prints an error document in place of its answer.
#pragma once

#include <string>

#include "tools/json/document.hpp"

namespace tavrix::ctl {

// The words by which programs tell errors apart; docs/json/README.md lists them.
namespace code {
inline constexpr char kFailed[] = "failed";  // anything that has no word of its own
inline constexpr char kWrongUsage[] = "wrong-usage";
inline constexpr char kNotRoot[] = "not-root";
inline constexpr char kNoMap[] = "no-map";
inline constexpr char kMapBroken[] = "map-broken";
inline constexpr char kNotInMap[] = "not-in-map";
inline constexpr char kNoSettings[] = "no-settings";
inline constexpr char kNoGroupMap[] = "no-group-map";
inline constexpr char kNoUser[] = "no-user";
inline constexpr char kNoGroup[] = "no-group";
inline constexpr char kNoOperation[] = "no-operation";
inline constexpr char kEnded[] = "ended";  // the work ended without an answer
}  // namespace code

// Called once, when the command line asks for JSON.
void answer_errors_in_json();

// Takes note of an error for the document. Several become the lines of one message; the first
// names the code.
void note_error(const char* code, const std::string& message);
// Takes note of a printed document, after which no error document follows, or of a printed line,
// after which it is a line too.
void note_document();
void note_line();

// Prints the document if the command failed and has printed none; the exit code says whether it
// did. Each process of a command calls this at its end.
void print_error_document(int exit_code);

}  // namespace tavrix::ctl
