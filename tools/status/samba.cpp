// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/status/samba.hpp"

#include <fstream>
#include <iterator>
#include <string_view>

namespace tavrix::status {
namespace {

constexpr const char* kSambaFolder = "/usr/lib/x86_64-linux-gnu/samba";

}  // namespace

std::string samba_module() { return std::string(kSambaFolder) + "/vfs/tavrix.so"; }

std::string samba_library() { return std::string(kSambaFolder) + "/libsmbd-base-samba4.so.0"; }

std::string samba_comparison_library() {
  return std::string(kSambaFolder) + "/libsamdb-common.so.0";
}

std::string samba_version_in(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(in), {}};
  constexpr std::string_view kBefore("\0SAMBA_", 7);  // a name of its own in the table of strings
  for (auto at = content.find(kBefore); at != std::string::npos;
       at = content.find(kBefore, at + kBefore.size())) {
    const auto begin = at + kBefore.size();
    const auto end = content.find_first_not_of("0123456789.", begin);
    if (end != std::string::npos && end > begin) return content.substr(begin, end - begin);
  }
  return {};
}

}  // namespace tavrix::status
