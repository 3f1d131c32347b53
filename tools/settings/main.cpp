// SPDX-License-Identifier: LGPL-3.0-or-later
// Prints the table of settings as a document: "file" for packaging/tavrix.conf, "manual" for the
// list in tavrixctl(1), "page" for the one in tavrix.conf(5). scripts/generate.sh compiles and runs
// it; it is not installed.

#include <cstdio>
#include <string_view>

#include "tools/settings/texts.hpp"

int main(int argc, char** argv) {
  const std::string_view document = argc == 2 ? argv[1] : "";
  std::string text;
  if (document == "file") {
    text = tavrix::settings_text::shipped_file();
  } else if (document == "manual") {
    text = tavrix::settings_text::manual_items();
  } else if (document == "page") {
    text = tavrix::settings_text::page_items();
  } else {
    std::fputs("usage: settings-text file|manual|page\n", stderr);
    return 2;
  }
  return std::fputs(text.c_str(), stdout) < 0 ? 1 : 0;
}
