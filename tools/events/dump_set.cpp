// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/events/dump_set.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "tools/events/dump_reader.hpp"

namespace tavrix::events {

DumpSet::Result DumpSet::add(const DumpName& file) {
  const std::string& path = file.path;
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    trouble_ = fmt::format("{}: {}", path, std::strerror(errno));
    return Result::kUnreadable;
  }
  const File& kept = files_.emplace_back(
      File{std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()),
           file.node});
  DumpReader reader(kept.bytes);
  uint64_t start = 0;
  while (const auto payload = reader.next()) {
    const auto time = time_of_(*payload);
    if (!time) {
      trouble_ = fmt::format("{}: byte {}: the record is not a message of this kind", path, start);
      return Result::kDamaged;
    }
    records_.push_back({*time, {*payload, &kept.node}});
    start = reader.offset();
  }
  if (reader.damage().empty()) return Result::kWhole;
  trouble_ = fmt::format("{}: {}", path, reader.damage());
  return Result::kDamaged;
}

std::vector<DumpSet::Record> DumpSet::records() {
  if (files_.size() > 1) std::ranges::stable_sort(records_, {}, &Timed::time);
  std::vector<Record> records;
  records.reserve(records_.size());
  for (const Timed& timed : records_) records.push_back(timed.record);
  return records;
}

}  // namespace tavrix::events
