// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapcheck/verify.hpp"

#include <fmt/format.h>
#include <string>
#include <utility>
#include <vector>

#include "tools/mapcheck/records.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::mapcheck {
namespace {

constexpr uint64_t kFoldersInAStep = 4096;  // between two reports of progress

class Verifier {
 public:
  Verifier(std::span<const std::byte> image, const Progress& progress)
      : progress_(progress),
        records_(image, [this](Severity severity, uint64_t at, std::string text) {
          findings_.add({severity, "", "", at, std::move(text)});
        }) {}

  Findings run() {
    if (!records_.open()) return findings_;
    const uint64_t folders = records_.folders();
    listed_.assign(folders, 0);
    for (uint64_t index = 0; index < folders; ++index) {
      if (progress_ && index % kFoldersInAStep == 0) progress_(index, folders);
      check_folder(index * Records::kFolder);
    }
    check_links(folders);
    check_totals(folders);
    return findings_;
  }

 private:
  void check_folder(uint64_t offset) {
    const auto folder = records_.folder(offset);
    if (!folder) return;
    const uint64_t at = records_.place_of(offset);
    static_cast<void>(records_.name(*folder, offset));
    if (const auto entries = records_.entries(*folder, at)) aces_ += entries->size;
    if (const auto children = records_.children(*folder, at)) check_children(*children, offset, at);
  }

  void check_children(const Records::Children& children, uint64_t offset, uint64_t at) {
    // Lists may overlap in a damaged image. This limit bounds the work: without overlaps there are
    // fewer slots than the region has bytes.
    slots_seen_ += children.size;
    if (slots_seen_ > records_.lists_size()) {
      if (!std::exchange(overlap_told_, true)) error(at, "child lists overlap");
      return;
    }
    for (uint32_t slot = 0; slot < children.size; ++slot) {
      const uint32_t child = children[slot];
      if (!records_.child(child, offset, at)) continue;
      if (listed_[child / Records::kFolder]++ > 0) {
        error(at, fmt::format("the child at {} is listed twice", child));
      }
    }
  }

  void check_links(uint64_t folders) {
    for (uint64_t index = 1; index < folders; ++index) {
      if (listed_[index] == 0) {
        error(records_.place_of(index * Records::kFolder), "a folder is in no child list");
      }
    }
  }

  void check_totals(uint64_t folders) {
    const tavrix_be_header& header = records_.header();
    if (header.total_fselems != folders) {
      error(112, fmt::format("the header counts {}, {} {} there",
                             text::counted(uint32_t{header.total_fselems}, "folder"), folders,
                             text::verb(folders, "is", "are")));
    }
    if (header.total_aces < aces_) {
      error(116, fmt::format("the header counts {}, {} {} there",
                             text::counted(uint32_t{header.total_aces}, "entry"), aces_,
                             text::verb(aces_, "is", "are")));
    }
  }

  void error(uint64_t at, std::string text) {
    findings_.add({Severity::kError, "", "", at, std::move(text)});
  }

  const Progress& progress_;
  Findings findings_;
  Records records_;
  std::vector<uint8_t> listed_;
  uint64_t aces_ = 0;
  uint64_t slots_seen_ = 0;
  bool overlap_told_ = false;
};

}  // namespace

Findings verify(std::span<const std::byte> image, const Progress& progress) {
  return Verifier(image, progress).run();
}

}  // namespace tavrix::mapcheck
