// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/status/samba.hpp"

#include <glob.h>
#include <fstream>
#include <iterator>
#include <string_view>

namespace tavrix::status {
namespace {

constexpr const char* kSambaFolder = "/usr/lib/x86_64-linux-gnu/samba";

// The first file of Samba's folder that a pattern matches; empty when there is none. Series of
// Samba give their private libraries different endings.
std::string file_like(const std::string& pattern) {
  glob_t found{};
  std::string file;
  if (glob((std::string(kSambaFolder) + "/" + pattern).c_str(), 0, nullptr, &found) == 0) {
    file = found.gl_pathv[0];
  }
  globfree(&found);
  return file;
}

std::string content_of(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// The number of the form "4.17.12" behind the first mark that one follows.
std::string number_behind(const std::string& content, std::string_view mark) {
  for (auto at = content.find(mark); at != std::string::npos;
       at = content.find(mark, at + mark.size())) {
    const auto begin = at + mark.size();
    const auto end = content.find_first_not_of("0123456789.", begin);
    if (end != std::string::npos && end > begin) return content.substr(begin, end - begin);
  }
  return {};
}

}  // namespace

std::string samba_module() { return std::string(kSambaFolder) + "/vfs/tavrix.so"; }

std::string samba_library() { return file_like("libsmbd-base-*.so.0"); }

std::string samba_comparison_library() {
  return std::string(kSambaFolder) + "/libsamdb-common.so.0";
}

std::string samba_name_of_comparison_library() {
  const std::string file = file_like("libsamdb-common-*.so.0");
  return file.substr(file.rfind('/') + 1);
}

std::string samba_version_in(const std::string& file) {
  constexpr std::string_view kMark("\0SAMBA_", 7);  // a name of its own in the table of strings
  return number_behind(content_of(file), kMark);
}

std::string samba_series_of_module(const std::string& file) {
  return number_behind(content_of(file), "TAVRIX_MODULE_FOR=Samba ");
}

}  // namespace tavrix::status
