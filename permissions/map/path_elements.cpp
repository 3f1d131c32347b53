// SPDX-License-Identifier: LGPL-3.0-or-later
// Splits paths into names, and hashes names for lookups.

#include "permissions/map/path_elements.hpp"

#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "perm_utils.h"

namespace tavrix {
namespace {

// Programs of any locale share an image, so only ASCII letters are folded.
constexpr std::array<uint8_t, 128> kUpper = [] {
  std::array<uint8_t, 128> table{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    table[i] = static_cast<uint8_t>(i >= 'a' && i <= 'z' ? i - 'a' + 'A' : i);
  }
  return table;
}();

constexpr uint32_t kRootElements = 1;
constexpr uint32_t kFirstCapacity = 8;

// A path array under construction. Unless released, it is freed with all its elements.
class ArrayBuilder {
 public:
  explicit ArrayBuilder(uint32_t path_size) noexcept
      : array_(malloc_zeroed<path_array>()), path_size_(path_size) {}
  ~ArrayBuilder() { cleanup_path_array_smb4(&array_); }
  ArrayBuilder(const ArrayBuilder&) = delete;
  ArrayBuilder& operator=(const ArrayBuilder&) = delete;

  [[nodiscard]] bool ok() const noexcept { return array_ != nullptr; }
  [[nodiscard]] path_array* release() noexcept { return std::exchange(array_, nullptr); }

  // Appends a component; false when out of memory.
  [[nodiscard]] bool add(std::string_view name, uint32_t index) noexcept {
    TAVRIX_REQUIRE(!name.empty(), "len > 0");
    if (!grow()) return false;
    Malloced<path_elems> elem(malloc_zeroed<path_elems>());
    if (elem == nullptr) return false;
    elem->name_elem = static_cast<char*>(std::malloc(path_size_));
    if (elem->name_elem == nullptr) return false;
    std::memcpy(elem->name_elem, name.data(), name.size());
    elem->name_elem[name.size()] = '\0';
    elem->len = static_cast<uint32_t>(name.size());
    elem->index = index;
    elem->hashval = hash_name(name);
    array_->elems[array_->num_elems++] = elem.release();
    return true;
  }

 private:
  [[nodiscard]] bool grow() noexcept {
    if (array_->num_elems < capacity_) return true;
    const uint32_t wanted = capacity_ == 0 ? kFirstCapacity : capacity_ * 2;
    void* grown = std::realloc(array_->elems, wanted * sizeof(path_elems*));
    if (grown == nullptr) return false;
    array_->elems = static_cast<path_elems**>(grown);
    capacity_ = wanted;
    return true;
  }

  path_array* array_;
  uint32_t path_size_;
  uint32_t capacity_ = 0;
};

bool add_all(ArrayBuilder& builder, std::string_view path) {
  PathCursor cursor(path);
  uint32_t index = 0;
  if (cursor.is_absolute()) {
    if (!builder.add("/", 0)) return false;
    index = kRootElements;
  }
  std::string_view name;
  while (cursor.next(name)) {
    if (!builder.add(name, index++)) return false;
  }
  return true;
}

}  // namespace

uint32_t hash_name(std::string_view name) noexcept {
  uint32_t h = 0;
  for (const char byte : name) {
    const auto c = static_cast<uint8_t>(byte);
    if (c >= kUpper.size()) continue;
    h += kUpper[c];
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

bool PathCursor::next(std::string_view& name) noexcept {
  const std::size_t first = rest_.find_first_not_of('/');
  if (first == std::string_view::npos) {
    rest_ = {};
    return false;
  }
  rest_.remove_prefix(first);
  const void* slash = std::memchr(rest_.data(), '/', rest_.size());
  const std::size_t length =
      slash == nullptr ? rest_.size()
                       : static_cast<std::size_t>(static_cast<const char*>(slash) - rest_.data());
  name = rest_.substr(0, length);
  rest_.remove_prefix(length);
  return true;
}

bool PathCursor::next(PathComponent& component) noexcept {
  std::string_view name;
  if (!next(name)) return false;
  component = {name.data(), static_cast<uint32_t>(name.size()), hash_name(name)};
  return true;
}

}  // namespace tavrix

uint32_t process_namecomponent_4hash(const char* name, uint32_t len) {
  return name == nullptr ? 0 : tavrix::hash_name({name, len});
}

void get_path_elem_smb4(const char* path, uint32_t count, path_array** out) {
  if (path == nullptr || count == 0 || out == nullptr) return;
  *out = nullptr;
  uint32_t length = count;
  while (length > 0 && path[length - 1] == '\0') --length;

  // Each name gets a block of the path's size, with a byte for the NUL that `count` may not
  // include.
  tavrix::ArrayBuilder builder(length + 1 > count ? length + 1 : count);
  if (!builder.ok() || !tavrix::add_all(builder, {path, length})) {
    TAVRIX_LOG(0, "Could not allocate memory for path array ");
    return;
  }
  *out = builder.release();
}

void cleanup_path_array_smb4(path_array** parr) {
  if (parr == nullptr || *parr == nullptr) return;
  path_array* array = *parr;
  for (uint32_t i = 0; i < array->num_elems; ++i) {
    std::free(array->elems[i]->name_elem);
    std::free(array->elems[i]);
    array->elems[i] = nullptr;
  }
  std::free(array->elems);
  std::free(array);
  *parr = nullptr;
}
