// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapbrowse/search.hpp"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cwchar>
#include <cwctype>

#include "tools/mapbrowse/letters.hpp"

namespace tavrix::mapbrowse {
namespace {

using mapcheck::Walk;

bool is_ascii(std::string_view text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return static_cast<unsigned char>(c) > 0x7f; });
}

// The text in capitals. Bytes that are not UTF-8 stay.
std::string folded(std::string_view text) {
  std::string result;
  std::mbstate_t state{};
  while (!text.empty()) {
    wchar_t letter = 0;
    const std::size_t length = std::mbrtowc(&letter, text.data(), text.size(), &state);
    char bytes[MB_LEN_MAX];
    std::mbstate_t out{};
    const bool is_letter = length != 0 && length <= text.size();
    const std::size_t size =
        is_letter
            ? std::wcrtomb(bytes, static_cast<wchar_t>(std::towupper(static_cast<wint_t>(letter))),
                           &out)
            : SIZE_MAX;
    if (size == SIZE_MAX) {
      state = {};
      result += static_cast<char>(upper(text.front()));
      text.remove_prefix(1);
      continue;
    }
    result.append(bytes, size);
    text.remove_prefix(length);
  }
  return result;
}

}  // namespace

Utf8Letters::Utf8Letters() : letters_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {
  if (letters_ != nullptr) before_ = uselocale(letters_);
}

Utf8Letters::~Utf8Letters() {
  if (letters_ == nullptr) return;
  uselocale(before_);
  freelocale(letters_);
}

Wanted::Wanted(std::string_view text) : folded_(folded(text)), is_ascii_(is_ascii(text)) {
  if (folded_.empty()) return;
  upper_ = folded_.front();
  lower_ = upper_ >= 'A' && upper_ <= 'Z' ? static_cast<char>(upper_ - 'A' + 'a') : upper_;
}

bool Wanted::is_at(const char* place) const {
  for (const char wanted : folded_) {
    if (upper(*place++) != static_cast<unsigned char>(wanted)) return false;
  }
  return true;
}

bool Wanted::is_in(std::string_view name) const {
  if (!is_ascii_) {
    if (is_ascii(name)) return false;
    return folded(name).find(folded_) != std::string::npos;
  }
  if (name.size() < folded_.size()) return false;
  if (folded_.empty()) return true;
  const char* const last = name.data() + (name.size() - folded_.size());
  for (const char* place = name.data(); place <= last; ++place) {
    if ((*place == upper_ || *place == lower_) && is_at(place)) return true;
  }
  return false;
}

Matches search(const Walk& walk, const Wanted& wanted, std::size_t limit) {
  Matches matches;
  for (uint64_t number = 1; number < walk.folders(); ++number) {
    const Walk::Folder folder = walk.numbered(number);
    if (!wanted.is_in(walk.name_to_scan(folder))) continue;
    if (matches.total++ < limit) matches.folders.push_back(folder);
  }
  return matches;
}

}  // namespace tavrix::mapbrowse
