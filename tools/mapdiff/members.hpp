// SPDX-License-Identifier: LGPL-3.0-or-later
// A set of people, one bit for each of a crowd.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace tavrix::mapdiff {

// People are numbers below the size of the crowd. Sets that meet are of one crowd.
class Members {
 public:
  Members() = default;
  explicit Members(std::size_t people) : words_((people + kBits - 1) / kBits) {}

  void add(uint32_t person) { words_[person / kBits] |= bit_of(person); }
  void remove(uint32_t person) { words_[person / kBits] &= ~bit_of(person); }
  void clear() { std::ranges::fill(words_, 0); }
  [[nodiscard]] bool has(uint32_t person) const {
    return (words_[person / kBits] & bit_of(person)) != 0;
  }
  [[nodiscard]] bool is_empty() const {
    return std::ranges::all_of(words_, [](uint64_t word) { return word == 0; });
  }
  // The set must not be empty.
  [[nodiscard]] uint32_t first() const {
    std::size_t at = 0;
    while (words_[at] == 0) ++at;
    return person_at(at, words_[at]);
  }
  template <typename Visit>
  void each(Visit visit) const {
    for (std::size_t at = 0; at < words_.size(); ++at) {
      for (uint64_t left = words_[at]; left != 0; left &= left - 1) visit(person_at(at, left));
    }
  }

  Members& operator|=(const Members& other) {
    return combine(other, [](uint64_t mine, uint64_t theirs) { return mine | theirs; });
  }
  Members& operator&=(const Members& other) {
    return combine(other, [](uint64_t mine, uint64_t theirs) { return mine & theirs; });
  }
  Members& operator-=(const Members& other) {
    return combine(other, [](uint64_t mine, uint64_t theirs) { return mine & ~theirs; });
  }
  bool operator==(const Members&) const = default;

  struct Hash {
    std::size_t operator()(const Members& members) const {
      const auto* bytes = reinterpret_cast<const char*>(members.words_.data());
      return std::hash<std::string_view>{}({bytes, members.words_.size() * sizeof(uint64_t)});
    }
  };

 private:
  static constexpr uint32_t kBits = 64;
  static uint64_t bit_of(uint32_t person) { return uint64_t{1} << person % kBits; }
  static uint32_t person_at(std::size_t at, uint64_t word) {
    return static_cast<uint32_t>(at * kBits) + static_cast<uint32_t>(std::countr_zero(word));
  }
  template <typename Combine>
  Members& combine(const Members& other, Combine combined) {
    std::ranges::transform(words_, other.words_, words_.begin(), combined);
    return *this;
  }

  std::vector<uint64_t> words_;
};

}  // namespace tavrix::mapdiff
