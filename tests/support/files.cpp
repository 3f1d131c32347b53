// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/files.hpp"

#include <sys/mount.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace tavrix::test {

namespace fs = std::filesystem;

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> lines_of(const std::string& path) {
  std::istringstream in(read_file(path));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool exists(const std::string& path) { return fs::exists(fs::symlink_status(path)); }

std::vector<std::string> list(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void make_dirs(const std::string& path) { fs::create_directories(path); }

void remove_all(const std::string& path) { fs::remove_all(path); }

void mount_small_disk(const std::string& path, unsigned long bytes) {
  fs::create_directories(path);
  const std::string options = "size=" + std::to_string(bytes);
  if (mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    throw std::system_error(errno, std::generic_category(), "small disk on " + path);
  }
}

}  // namespace tavrix::test
