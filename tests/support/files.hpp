// SPDX-License-Identifier: LGPL-3.0-or-later
// Small files of tests.
#pragma once

#include <string>
#include <vector>

namespace tavrix::test {

void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);
std::vector<std::string> lines_of(const std::string& path);
bool exists(const std::string& path);
// Entries of a folder, sorted.
std::vector<std::string> list(const std::string& folder);
void make_dirs(const std::string& path);
void remove_all(const std::string& path);
// A mount of that many bytes: a disk that fills.
void mount_small_disk(const std::string& path, unsigned long bytes);

}  // namespace tavrix::test
