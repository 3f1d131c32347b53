// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapload/mark.hpp"

#include <fmt/format.h>
#include <cstring>
#include <sstream>
#include <tuple>

#include "mkperms_shm.h"
#include "tools/files/boot.hpp"
#include "tools/files/durable.hpp"
#include "tools/mapload/paths.hpp"

namespace tavrix::mapload {
bool Mark::is(int index, const Segment& other) const {
  return table == index && other.id != -1 && segment == other && boot == files::this_boot();
}

bool Mark::is_newer_than(uint32_t other_generation, int64_t other_timestamp) const {
  return std::tie(generation, timestamp) > std::tie(other_generation, other_timestamp);
}

Mark mark_of(int table, const Segment& segment, std::span<const std::byte> image,
             files::Digest digest) {
  tavrix_be_header header{};
  std::memcpy(&header, image.data(), std::min(image.size(), sizeof header));
  return {table,
          segment,
          files::this_boot(),
          header.generationnum,
          header.timestamp,
          std::move(digest)};
}

std::optional<Mark> read_mark() {
  const std::string text = files::read_whole(kMark).value_or("");
  const auto end = text.find("check ");
  if (end == std::string::npos) return std::nullopt;
  if (text.substr(end) != "check " + files::digest_of(text.substr(0, end)) + "\n") {
    return std::nullopt;
  }
  Mark mark;
  std::istringstream in(text);
  std::string word;
  in >> word >> mark.table >> word >> mark.segment.id >> word >> mark.segment.created >> word >>
      mark.segment.creator >> word >> mark.segment.bytes >> word >> mark.boot >> word >>
      mark.generation >> word >> mark.timestamp >> word >> mark.digest;
  if (!in || (mark.table != 0 && mark.table != 1)) return std::nullopt;
  return mark;
}

bool write_mark(const Mark& mark) {
  std::string text = fmt::format(
      "table {}\nsegment {}\ncreated {}\ncreator {}\nbytes {}\nboot {}\ngeneration {}\n"
      "timestamp {}\nsha256 {}\n",
      mark.table, mark.segment.id, mark.segment.created, mark.segment.creator, mark.segment.bytes,
      mark.boot, mark.generation, mark.timestamp, mark.digest);
  text += "check " + files::digest_of(text) + "\n";
  return files::replace(kMark, text, kPrivate);
}

}  // namespace tavrix::mapload
