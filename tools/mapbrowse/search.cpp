// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapbrowse/search.hpp"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cwchar>
#include <cwctype>
#include <functional>
#include <future>
#include <thread>

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

namespace {

// So many names take a thread about five milliseconds: its start does not count beside them.
constexpr uint64_t kNamesOfAThread = 50000;
constexpr uint64_t kMostThreads = 8;

uint64_t threads_for(uint64_t names) {
  const uint64_t processors =
      std::clamp<uint64_t>(std::thread::hardware_concurrency(), 1, kMostThreads);
  return std::clamp<uint64_t>(names / kNamesOfAThread, 1, processors);
}

// Looks at the folders from number `first` to before `end`.
Matches search_part(const Walk& walk, const Wanted& wanted, std::size_t limit, uint64_t first,
                    uint64_t end) {
  const Utf8Letters letters;  // those of the thread that made the text are not this thread's
  Matches matches;
  for (uint64_t number = first; number < end; ++number) {
    const Walk::Folder folder = walk.numbered(number);
    if (!wanted.is_in(walk.name_to_scan(folder))) continue;
    if (matches.total++ < limit) matches.folders.push_back(folder);
  }
  return matches;
}

}  // namespace

Matches search(const Walk& walk, const Wanted& wanted, std::size_t limit, uint64_t threads) {
  const uint64_t names = walk.folders() - 1;
  if (threads == 0) threads = threads_for(names);
  std::vector<std::future<Matches>> parts;
  for (uint64_t part = 0; part < threads; ++part) {
    // When no thread can be started, get() searches the part in this one.
    parts.push_back(std::async(search_part, std::cref(walk), std::cref(wanted), limit,
                               1 + names * part / threads, 1 + names * (part + 1) / threads));
  }
  Matches all;
  for (auto& part : parts) {
    const Matches matches = part.get();
    const std::size_t room = std::min(limit - all.folders.size(), matches.folders.size());
    all.folders.insert(all.folders.end(), matches.folders.begin(),
                       matches.folders.begin() + static_cast<std::ptrdiff_t>(room));
    all.total += matches.total;
  }
  return all;
}

}  // namespace tavrix::mapbrowse
