// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/events/dump_set.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tools/events/dump_reader.hpp"

namespace tavrix::events {

DumpSet::Result DumpSet::add(const std::string& path) {
  std::error_code none;
  if (std::filesystem::is_directory(path, none)) {
    trouble_ = fmt::format("{} is a directory; give its dump files, or --follow {}", path, path);
    return Result::kUnreadable;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    trouble_ = fmt::format("{}: {}", path, std::strerror(errno));
    return Result::kUnreadable;
  }
  const std::string& bytes =
      files_.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  DumpReader reader(bytes);
  uint64_t start = 0;
  while (const auto payload = reader.next()) {
    const auto time = time_of_(*payload);
    if (!time) {
      trouble_ = fmt::format("{}: byte {}: the record is not a message of this kind", path, start);
      return Result::kDamaged;
    }
    records_.push_back({*time, *payload});
    start = reader.offset();
  }
  if (reader.damage().empty()) return Result::kWhole;
  trouble_ = fmt::format("{}: {}", path, reader.damage());
  return Result::kDamaged;
}

std::vector<std::string_view> DumpSet::payloads() {
  if (files_.size() > 1) std::ranges::stable_sort(records_, {}, &Timed::time);
  std::vector<std::string_view> payloads;
  payloads.reserve(records_.size());
  for (const Timed& record : records_) payloads.push_back(record.payload);
  return payloads;
}

}  // namespace tavrix::events
