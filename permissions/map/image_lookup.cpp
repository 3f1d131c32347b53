// SPDX-License-Identifier: LGPL-3.0-or-later
// Finds the folder that a path reaches in the map, and the ACL that governs it.

#include "permissions/map/image_lookup.hpp"

#include <cstring>
#include <utility>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "perm_utils.h"
#include "permissions/map/attached_table.hpp"
#include "permissions/map/child_absences.hpp"
#include "permissions/map/child_hints.hpp"
#include "permissions/map/image.hpp"
#include "permissions/map/name_equality.hpp"
#include "permissions/map/path_elements.hpp"
#include "permissions/map/recent_folder.hpp"
#include "tavrix_utils.h"

namespace tavrix {
namespace {

constexpr int kNotLookedUp = 3;  // result of get_tavrix_acl() without a map or a path
constexpr uint32_t kNoChild = 0xFFFFFFFFU;

// The state of memory that a walk expects. A walk over a warm image loads records ahead to hide
// cache misses; a walk over a cold image touches no page that the answer does not need.
enum class Access { kWarm, kCold };

// Lookups may run in any number of threads, so each has its own.
PerThread<ChildHints> child_hints;
PerThread<ChildAbsences> child_absences;
PerThread<RecentFolder> recent_folder;

ImageView view_of(const void* map) {
  const AttachedTable* table = attached_table_at(map);
  return ImageView(map, table != nullptr ? table->size : ImageView::kUnknownSize);
}

// An image as a lookup sees it. For the attached table that includes its size and the caches of
// earlier lookups; any other image is bytes of unknown size.
struct Sight {
  explicit Sight(const void* map) noexcept : image(view_of(map)) {
    const AttachedTable* table = attached_table_at(map);
    if (table == nullptr) return;
    hints = child_hints.get();
    absences = child_absences.get();
    if (hints != nullptr) hints->use(table->identity);
    if (absences != nullptr) absences->use(table->identity);
  }

  ImageView image;
  ChildHints* hints = nullptr;
  ChildAbsences* absences = nullptr;
  int debug_level = tavrix_debug_level();
};

// A scan waits for two records of each child: its folder, and the name that the folder points to.
// So folders are loaded this many children ahead of the comparison, and names that many.
constexpr uint32_t kFoldersAhead = 16;
constexpr uint32_t kNamesAhead = 8;

void load_ahead(const ImageView& image, const child_list_s& list, uint32_t children) {
  for (uint32_t slot = 0; slot < children && slot < kFoldersAhead; ++slot) {
    image.prefetch_fselem(ImageView::child_at(list, slot));
  }
  for (uint32_t slot = 0; slot < children && slot < kNamesAhead; ++slot) {
    image.prefetch_name(ImageView::child_at(list, slot));
  }
}

bool bears_name(const ImageView& image, const fs_elem_s& folder, const PathComponent& wanted,
                int debug_level) {
  const name_elem_s& name = image.name_of(folder);
  // Two integers tell most names apart.
  if (name.hashval != wanted.hash || name.name_len != wanted.len) return false;
  image.require_text_of(folder, name);
  const char* stored = ImageView::bytes_of(name);
  if (!names_equal(stored, wanted, debug_level)) return false;
  TAVRIX_LOG_IF(debug_level, kComparisonTrace, "Found match cnelem %.*s and pelem %.*s",
                static_cast<int>(name.name_len), stored, static_cast<int>(wanted.len), wanted.name);
  return true;
}

// The offset of the first child with the wanted name, or kNoChild.
template <Access kAccess>
uint32_t find_child(const ImageView& image, const child_list_s& list, const PathComponent& wanted,
                    int debug_level) {
  const uint32_t children = list.num_children;
  if constexpr (kAccess == Access::kWarm) load_ahead(image, list, children);
  for (uint32_t slot = 0; slot < children; ++slot) {
    if constexpr (kAccess == Access::kWarm) {
      if (slot + kFoldersAhead < children) {
        image.prefetch_fselem(ImageView::child_at(list, slot + kFoldersAhead));
      }
      if (slot + kNamesAhead < children) {
        image.prefetch_name(ImageView::child_at(list, slot + kNamesAhead));
      }
    }
    const uint32_t offset = ImageView::child_at(list, slot);
    if (bears_name(image, image.fselem(offset), wanted, debug_level)) return offset;
  }
  return kNoChild;
}

// Remembers the hashes of all children, after a scan that found no child of the wanted name.
void remember_absences(const ImageView& image, uint32_t parent, const child_list_s& list,
                       ChildAbsences& absences) {
  if (list.num_children > ChildAbsences::kMostChildren) return;
  ChildAbsences::Summary hashes;
  for (uint32_t slot = 0; slot < list.num_children; ++slot) {
    hashes.add(image.name_of(image.fselem(ImageView::child_at(list, slot))).hashval);
  }
  absences.remember(parent, hashes);
}

// The offset at which an earlier lookup found the child, or kNoChild.
uint32_t hinted_child(const Sight& sight, uint32_t parent, const PathComponent& wanted) {
  if (sight.hints == nullptr) return kNoChild;
  const uint32_t hint = sight.hints->find(parent, wanted.hash);
  if (hint == ChildHints::kNone) return kNoChild;
  const fs_elem_s& child = sight.image.fselem(hint);
  const bool is_right =
      child.parent_offset == parent && bears_name(sight.image, child, wanted, sight.debug_level);
  return is_right ? hint : kNoChild;
}

// The offset of a folder's child with the wanted name: from a hint, else from a scan.
template <Access kAccess>
uint32_t find_child_of(const Sight& sight, uint32_t parent, const fs_elem_s& folder,
                       const PathComponent& wanted) {
  if ((folder.flags & FSELEM_FLAG_NO_CHILD_LIST) != 0) return kNoChild;
  // A level that traces comparisons wants each one made, so absences are not used.
  ChildAbsences* absences = sight.debug_level < kComparisonTrace ? sight.absences : nullptr;
  if (absences != nullptr && absences->is_nobodys(parent, wanted.hash)) return kNoChild;
  if (const uint32_t hint = hinted_child(sight, parent, wanted); hint != kNoChild) return hint;
  const child_list_s& list = sight.image.children_of(folder);
  const uint32_t child = find_child<kAccess>(sight.image, list, wanted, sight.debug_level);
  if (child != kNoChild) {
    if (sight.hints != nullptr) sight.hints->remember(parent, wanted.hash, child);
  } else if (absences != nullptr) {
    remember_absences(sight.image, parent, list, *absences);
  }
  return child;
}

const fs_elem_s& require_root(const ImageView& image) {
  const fs_elem_s& root = image.fselem(0);
  TAVRIX_REQUIRE(root.parent_offset == FSELEM_ROOT_OFFSET2,
                 "fselem->parent_offset == FSELEM_ROOT_OFFSET2");
  const name_elem_s& name = image.name_of(root);
  image.require_text_of(root, name);
  TAVRIX_REQUIRE(ImageView::text_of(name) == "/", "strcmp(nelem->name, \"/\") == 0");
  static_cast<void>(image.children_of(root));
  return root;
}

void trace_matched_name(const ImageView& image, uint32_t offset, int debug_level) {
  if (__builtin_expect(debug_level < kComparisonTrace, 1)) return;
  const std::string_view name = ImageView::text_of(image.name_of(image.fselem(offset)));
  TAVRIX_LOG_IF(debug_level, kComparisonTrace, "Matched name %.*s", static_cast<int>(name.size()),
                name.data());
}

// Descends from the root, one component per level, as far as the names match. `next` yields the
// components without the leading "/".
template <Access kAccess, typename NextComponent>
PathMatch walk(const Sight& sight, NextComponent next) {
  const fs_elem_s* folder = &require_root(sight.image);
  PathMatch match;
  PathComponent wanted{};
  while (next(wanted)) {
    match.parent = match.self;  // the parent's match, if this component is the last
    const uint32_t child = find_child_of<kAccess>(sight, match.self.offset, *folder, wanted);
    if (child == kNoChild) {
      match.self.code = SHM_MEMBE_OK_NAMEREMAPPED;
      const bool parent_is_missing_too = next(wanted);
      if (parent_is_missing_too) match.parent.code = SHM_MEMBE_OK_NAMEREMAPPED;
      break;
    }
    match.self = {child, SHM_MEMBE_OK};
    folder = &sight.image.fselem(child);
  }
  trace_matched_name(sight.image, match.self.offset, sight.debug_level);
  return match;
}

// Checks the header without aborting, because a lookup reports a bad one. All later checks abort.
bool has_sound_header(const void* map) {
  return static_cast<const tavrix_be_header*>(map)->signature == TAVRIX_BE_HEADER_SIGNATURE;
}

// The folder's own ACL if it has entries, else the ACL of the nearest ancestor that has entries, or
// the root's, even when that is empty. `holder` becomes the offset of the folder whose ACL it is.
membe_shm_err governing_acl(const ImageView& image, uint32_t fselem_offset, tavrix_acl_t** acl,
                            uint32_t& holder) {
  holder = fselem_offset;
  const fs_elem_s* folder = &image.fselem(fselem_offset);
  uint32_t inherited = TAVRIX_ACE_EXPLICIT;
  uint32_t folders_left = image.header().total_fselems;
  while (true) {
    if ((folder->flags & FSELEM_FLAG_ROOT) != 0) {
      TAVRIX_LOG(2, "%s(%d) : reached root", __func__, __LINE__);
      break;
    }
    if (image.acl_of(*folder).num_aces > 0) break;
    // More steps than folders mean that the parents of a damaged image form a circle.
    TAVRIX_REQUIRE(folders_left-- > 0, "parents end at the root");
    holder = folder->parent_offset;
    folder = &image.fselem(holder);
    inherited = TAVRIX_ACE_INHERITED;
  }
  return membuf_2_ACL(&image.acl_of(*folder), TAVRIX_ACL_VERSION, inherited, acl);
}

// The ACL for a lookup's result. All entries count as inherited when the path goes on below the
// folder that was found.
void acl_of_match(const ImageView& image, const FolderMatch& match, tavrix_acl_t** acl,
                  uint32_t& holder) {
  const membe_shm_err result = governing_acl(image, match.offset, acl, holder);
  if (result != SHM_MEMBE_OK) {
    TAVRIX_LOG(0, "ENFORCE_PERMS Cannot get Tavrix ACL %d", static_cast<int>(result));
    TAVRIX_REQUIRE(result == SHM_MEMBE_OK, "ret == SHM_MEMBE_OK");
  }
  if (match.code != SHM_MEMBE_OK_NAMEREMAPPED) return;
  TAVRIX_LOG(4, "setting inherited as ret is SHM_MEMBE_OK_NAMEREMAPPED");
  TAVRIX_LOG(4, "Setting INHERITED flag %s(%d)", __func__, __LINE__);
  set_inheritance_flag(*acl, TAVRIX_ACE_INHERITED);
}

// Splits the first components of a path before the walk and loads the records that hints name, all
// at once. Without this each record would wait for its parent's.
class HintedPath {
 public:
  HintedPath(const Sight& sight, std::string_view path) noexcept : cursor_(path) {
    const ImageView& image = sight.image;
    uint32_t offsets[kMost];
    uint32_t hinted = 0;
    uint32_t at = 0;
    bool follows = sight.hints != nullptr;
    while (count_ < kMost && cursor_.next(components_[count_])) {
      const uint32_t child = follows ? sight.hints->find(at, components_[count_].hash) : 0;
      ++count_;
      follows = follows && child != ChildHints::kNone;
      if (!follows) continue;
      image.prefetch_fselem(child);
      offsets[hinted++] = child;
      at = child;
    }
    for (uint32_t level = 0; level < hinted; ++level) image.prefetch_name(offsets[level]);
    if (hinted > 0) image.prefetch_acl(offsets[hinted - 1]);
  }
  [[nodiscard]] bool next(PathComponent& component) noexcept {
    if (taken_ == count_) return count_ == kMost && cursor_.next(component);
    component = components_[taken_++];
    return true;
  }

 private:
  static constexpr uint32_t kMost = 16;  // deeper components are split one by one
  PathCursor cursor_;
  PathComponent components_[kMost];
  uint32_t count_ = 0;
  uint32_t taken_ = 0;
};

template <Access kAccess>
PathMatch walk_path(const Sight& sight, std::string_view path) {
  HintedPath hinted(sight, path);
  return walk<kAccess>(sight,
                       [&hinted](PathComponent& component) { return hinted.next(component); });
}

// The recent folder of this thread, for a table that is known. A level that traces comparisons
// wants each one made.
RecentFolder* recent_folder_in(const Sight& sight, const void* map) {
  const AttachedTable* table = attached_table_at(map);
  if (table == nullptr || sight.debug_level >= kComparisonTrace) return nullptr;
  RecentFolder* recent = recent_folder.get();
  if (recent != nullptr) recent->use(table->identity);
  return recent;
}

// The last step of a walk, from the folder where the others ended.
PathMatch step_from(const Sight& sight, const FolderMatch& parent, std::string_view name) {
  PathMatch match{.self = parent, .parent = parent};
  if (parent.code != SHM_MEMBE_OK) return match;
  const PathComponent wanted{name.data(), static_cast<uint32_t>(name.size()), hash_name(name)};
  const fs_elem_s& folder = sight.image.fselem(parent.offset);
  const uint32_t child = find_child_of<Access::kCold>(sight, parent.offset, folder, wanted);
  if (child == kNoChild) {
    match.self.code = SHM_MEMBE_OK_NAMEREMAPPED;
  } else {
    match.self.offset = child;
  }
  return match;
}

// Walks to a path of a table, from the recent folder when the path is in it.
PathMatch match_of(const Sight& sight, const void* map, std::string_view path) {
  const std::size_t slash = path.rfind('/');
  const bool is_in_folder = slash != std::string_view::npos && slash > 0 && slash + 1 < path.size();
  RecentFolder* recent = is_in_folder ? recent_folder_in(sight, map) : nullptr;
  if (recent == nullptr) return walk_path<Access::kCold>(sight, path);
  const std::string_view folder = path.substr(0, slash);
  if (const FolderMatch* known = recent->find(folder); known != nullptr) {
    return step_from(sight, *known, path.substr(slash + 1));
  }
  const PathMatch match = walk_path<Access::kCold>(sight, path);
  recent->remember(folder, match.parent);
  return match;
}

// 0 when the map and the path can be used. A map with a foreign header ends the process: a verdict
// from it could be anything.
int require_lookup(const void* map, std::string_view path) {
  if (map == nullptr) {
    TAVRIX_LOG(0, "ENFORCE_PERMS Null membuf");
    return kNotLookedUp;
  }
  if (path.empty()) {
    TAVRIX_LOG(0, "ENFORCE_PERMS Empty path");
    return kNotLookedUp;
  }
  if (!has_sound_header(map)) {
    TAVRIX_LOG(0, "Corrupted map ");
    TAVRIX_LOG(0, "ENFORCE_PERMS Cannot find path in permission map %d",
               static_cast<int>(SHM_MEMBE_ERR_BADARGS));
    TAVRIX_REQUIRE(has_sound_header(map), "ret == SHM_MEMBE_OK");
  }
  return 0;
}

}  // namespace

int governing_acls(const void* map, std::string_view path, AclPtr& self, AclPtr& parent,
                   AclSources* sources) {
  if (const int refused = require_lookup(map, path); refused != 0) return refused;
  const Sight sight(map);
  const PathMatch match = match_of(sight, map, path);
  tavrix_acl_t* acl = nullptr;
  uint32_t holder = 0;
  uint32_t parent_holder = 0;
  acl_of_match(sight.image, match.self, &acl, holder);
  self.reset(std::exchange(acl, nullptr));
  acl_of_match(sight.image, match.parent, &acl, parent_holder);
  parent.reset(acl);
  if (sources != nullptr) *sources = {{match.self, holder}, {match.parent, parent_holder}};
  return 0;
}

}  // namespace tavrix

using tavrix::ImageView;

membe_shm_err find_fselem_fromname(void* map, path_array* parr, uint32_t* offset) {
  if (map == nullptr) {
    TAVRIX_LOG(0, "NULL perm map");
    return SHM_MEMBE_ERR_MAP_CORRUPTION;
  }
  if (parr == nullptr) {
    TAVRIX_LOG(0, "Null file path ");
    return SHM_MEMBE_ERR_BADARGS;
  }
  if (!tavrix::has_sound_header(map)) {
    TAVRIX_LOG(0, "Corrupted map ");
    return SHM_MEMBE_ERR_BADARGS;
  }
  TAVRIX_REQUIRE(offset != nullptr && *offset == 0, "*offset == 0");

  const auto is_root = [](const path_elems& elem) {
    return elem.len == 1 && elem.name_elem[0] == '/';
  };
  uint32_t index = parr->num_elems > 0 && is_root(*parr->elems[0]) ? 1 : 0;
  const auto next = [parr, &index](tavrix::PathComponent& component) {
    if (index >= parr->num_elems) return false;
    const path_elems& elem = *parr->elems[index++];
    component = {elem.name_elem, elem.len, elem.hashval};
    return true;
  };
  const tavrix::FolderMatch match =
      tavrix::walk<tavrix::Access::kWarm>(tavrix::Sight(map), next).self;
  *offset = match.offset;
  return match.code;
}

membe_shm_err get_tavrixacl_fromfselemoffset(void* map, uint32_t fselem_offset,
                                             tavrix_acl_t** acl) {
  if (map == nullptr) {
    TAVRIX_LOG(0, "Invalid perm map");
    return SHM_MEMBE_ERR_BADARGS;
  }
  const ImageView image = tavrix::view_of(map);
  return membuf_2_ACL(&image.acl_of(image.fselem(fselem_offset)), TAVRIX_ACL_VERSION,
                      TAVRIX_ACE_EXPLICIT, acl);
}

membe_shm_err get_nonempty_tavrixacl_fromfselemoffset(void* map, uint32_t fselem_offset,
                                                      tavrix_acl_t** acl) {
  if (map == nullptr) {
    TAVRIX_LOG(0, "Invalid perm map");
    return SHM_MEMBE_ERR_BADARGS;
  }
  uint32_t holder = 0;
  return tavrix::governing_acl(tavrix::view_of(map), fselem_offset, acl, holder);
}

int get_tavrix_acl(void* map, const char* path, tavrix_acl_t** acl) {
  // A missing map is reported before a missing path.
  if (map != nullptr && path == nullptr) {
    TAVRIX_LOG(0, "ENFORCE_PERMS Null path");
    TAVRIX_REQUIRE(path != nullptr, "path != NULL");
  }
  const std::string_view text(path != nullptr ? path : "");
  if (const int refused = tavrix::require_lookup(map, text); refused != 0) return refused;
  const tavrix::Sight sight(map);
  uint32_t holder = 0;
  tavrix::acl_of_match(sight.image, tavrix::walk_path<tavrix::Access::kWarm>(sight, text).self, acl,
                       holder);
  return 0;
}
