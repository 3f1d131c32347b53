// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/error_document.hpp"

namespace tavrix::ctl {
namespace {

struct State {
  bool is_wanted = false;
  bool is_document_printed = false;
  bool is_line_printed = false;
  std::string code;
  std::string message;
};
State& state() {
  static State state;
  return state;
}

}  // namespace

void answer_errors_in_json() { state().is_wanted = true; }

void note_error(const char* code, const std::string& message) {
  State& now = state();
  if (now.code.empty()) now.code = code;
  now.message += (now.message.empty() ? "" : "\n") + message;
}

void note_document() { state().is_document_printed = true; }
void note_line() { state().is_line_printed = true; }

void print_error_document(int exit_code) {
  State& now = state();
  if (!now.is_wanted || now.is_document_printed || now.code.empty() || exit_code == 0) return;
  now.is_document_printed = true;
  json::Json json = json::document("error");
  json["error"]["code"] = now.code;
  json::set_bytes(json["error"], "message", now.message);
  if (now.is_line_printed) {
    json::print_line(json);
  } else {
    json::print(json);
  }
}

}  // namespace tavrix::ctl
