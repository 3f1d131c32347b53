// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sweeper/connections.hpp"

#include <filesystem>
#include <fstream>
#include <string>

namespace tavrix::sweeper {
namespace {

namespace fs = std::filesystem;

constexpr const char* kLibrary = "/libtavrix.so";
constexpr const char* kOwnPrograms = "tavrix";

// Returns the target of a link, or an empty text when the process is gone or cannot be looked at.
std::string target(const fs::path& link) {
  std::error_code none;
  return fs::read_symlink(link, none).string();
}

bool maps_library(const fs::path& process) {
  std::ifstream maps(process / "maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(kLibrary) != std::string::npos) return true;
  }
  return false;
}

bool is_connection(const fs::path& process) {
  return target(process / "ns/ipc") == target("/proc/self/ns/ipc") &&
         !fs::path(target(process / "exe")).filename().string().starts_with(kOwnPrograms) &&
         maps_library(process);
}

}  // namespace

int live_connections() {
  int count = 0;
  std::error_code none;
  for (const auto& entry : fs::directory_iterator("/proc", none)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos && is_connection(entry.path())) {
      ++count;
    }
  }
  return count;
}

}  // namespace tavrix::sweeper
