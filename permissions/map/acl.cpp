// SPDX-License-Identifier: LGPL-3.0-or-later
// In-memory ACLs, and their stored form.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "mkperms_shm.h"
#include "perm_utils.h"
#include "permissions/map/ace_list.hpp"
#include "permissions/map/stored_acl.hpp"

namespace tavrix {
namespace {

// A new entry at the head of the list; null when out of memory.
tavrix_ace_s* insert_new_ace(tavrix_acl_t& acl) {
  auto* ace = malloc_zeroed<tavrix_ace_s>();
  if (ace != nullptr) oneway_list_insert_head(&acl.ace_list_head, &ace->ace_list);
  return ace;
}

const beace_s* stored_aces(const beacl_s& bacl) {
  return reinterpret_cast<const beace_s*>(&bacl + 1);
}

uint32_t stored_idtype(const tavrix_ace_s& ace) {
  switch (ace.trustee_type) {
    case ACE_TYPE_USER:
      return IDTYPE_UID;
    case ACE_TYPE_GROUP:
      return IDTYPE_GID;
    default:  // "all" has no stored form
      TAVRIX_LOG(0, "Invalid trustee type %d", static_cast<int>(ace.trustee_type));
      TAVRIX_REQUIRE(false, "0");
      return 0;
  }
}

e_ace_type_t trustee_type_of(uint32_t idtype) {
  switch (idtype) {
    case IDTYPE_UID:
      return ACE_TYPE_USER;
    case IDTYPE_GID:
      return ACE_TYPE_GROUP;
    default:
      return ACE_TYPE_UNDEF;
  }
}

const char* trustee_text(const tavrix_ace_s& ace) {
  switch (ace.trustee_type) {
    case ACE_TYPE_GROUP:
      return "GROUP";
    case ACE_TYPE_ALL:
      return "ALL";
    default:
      return "USER";
  }
}

void print_mask(uint32_t mask) {
  const auto has = [mask](uint32_t bits) { return (mask & bits) == bits; };
  const auto print_name = [](const char* name) { std::printf("ACE perm mask: %s\n", name); };
  if (has(TAVRIX_PERM_MASK_RDWRDEL)) {
    print_name("RDWRDEL");
  } else if (has(TAVRIX_PERM_MASK_RDWR)) {
    print_name("RDWR");
  } else if (has(TAVRIX_PERM_MASK_RDONLY)) {
    print_name("RDONLY");
  } else if (has(TAVRIX_PERM_MASK_VIEWER_ONLY)) {
    print_name("VIEWER_ONLY");
  }
  if (has(TAVRIX_PERM_MASK_NAVIGATE)) print_name("NAVIGATE");
  if (mask == 0) print_name("NOPERM");
}

void print_ace(const tavrix_ace_s& ace, uint32_t number) {
  std::printf("ACE Number: %u\n", number);
  std::printf("ACE version: %u\n", ace.version);
  std::printf("ACE Type: %s\n", ace.ace_type == TAVRIX_ACE_INHERITED ? "Inherited" : "Explicit");
  std::printf("ACE trustee_type: %s\n", trustee_text(ace));
  if (ace.trustee_type == ACE_TYPE_GROUP) {
    std::printf("ACE gid: %u\n", ace.trustee.gid);
  } else {
    std::printf("ACE uid: %u\n", ace.trustee.uid);
  }
  print_mask(ace.perm_mask);
  std::printf("ACE Container ACL %p:\n", static_cast<const void*>(ace.acl));
  std::printf("ACE next %p:\n\n", static_cast<const void*>(ace.ace_list.next_elem));
}

}  // namespace

void write_stored_acl(const tavrix_acl_t& acl, std::byte* place) noexcept {
  TAVRIX_REQUIRE(acl.version == TAVRIX_ACL_VERSION, "acl->version == TAVRIX_ACL_VERSION");
  auto* stored = reinterpret_cast<beacl_s*>(place);
  *stored = {.signature = ACLSIG, .num_aces = acl.num_aces};
  auto* next = reinterpret_cast<beace_s*>(stored + 1);
  uint32_t left = acl.num_aces;
  for (const tavrix_ace_s& ace : aces_of(acl)) {
    TAVRIX_REQUIRE(left-- > 0, "index < acl->num_aces");
    *next++ = beace_s{.idtype = stored_idtype(ace),
                      .id = ace.trustee.uid,
                      .perm_mask = static_cast<uint16_t>(ace.perm_mask),
                      .padding = 0};
  }
}

}  // namespace tavrix

using tavrix::aces_of;

membe_shm_err create_empty_acl(tavrix_acl_t** acl) {
  TAVRIX_REQUIRE(acl != nullptr && *acl == nullptr, "*acl == NULL");
  *acl = tavrix::malloc_zeroed<tavrix_acl_t>();
  if (*acl == nullptr) {
    TAVRIX_LOG(0, "malloc failure ");
    TAVRIX_REQUIRE(*acl != nullptr, "*acl != NULL");
  }
  (*acl)->version = TAVRIX_ACL_VERSION;
  return SHM_MEMBE_OK;
}

membe_shm_err add_ace_to_acl(tavrix_acl_t* acl, e_ace_type_t trustee_type, uint32_t id) {
  if (acl == nullptr) {
    TAVRIX_LOG(0, "Null ACL ");
    TAVRIX_REQUIRE(acl != nullptr, "acl != NULL");
  }
  tavrix_ace_s* ace = tavrix::insert_new_ace(*acl);
  if (ace == nullptr) {
    TAVRIX_LOG(0, "malloc failure ");
    TAVRIX_REQUIRE(ace != nullptr, "ace != NULL");
  }
  ace->trustee_type = trustee_type;
  ace->trustee.uid = id;
  acl->num_aces += 1;
  return SHM_MEMBE_OK;
}

membe_shm_err add_ace_mask(tavrix_acl_t* acl, e_ace_type_t trustee_type, uint32_t id,
                           uint32_t mask) {
  if (acl == nullptr) {
    TAVRIX_LOG(0, "Null ACL ");
    TAVRIX_REQUIRE(acl != nullptr, "acl != NULL");
  }
  bool found = false;
  for (tavrix_ace_s& ace : aces_of(*acl)) {
    if (ace.trustee_type == trustee_type && ace.trustee.uid == id) {
      ace.perm_mask = mask;
      found = true;
      break;
    }
  }
  TAVRIX_REQUIRE(found, "found == 1");
  return SHM_MEMBE_OK;
}

membe_shm_err set_inheritance_flag(tavrix_acl_t* acl, uint32_t inherited) {
  if (inherited > TAVRIX_ACE_INHERITED) return SHM_MEMBE_ERR_BADARGS;
  if (acl == nullptr) return SHM_MEMBE_ERR_LISTERR;
  for (tavrix_ace_s& ace : aces_of(*acl)) ace.ace_type = inherited;
  return SHM_MEMBE_OK;
}

membe_shm_err ACL_2_membuf(tavrix_acl_t* acl, beacl_s** out, uint32_t* size) {
  if (acl == nullptr) {
    *out = nullptr;
    return SHM_MEMBE_OK;
  }
  TAVRIX_REQUIRE(acl->version == TAVRIX_ACL_VERSION, "acl->version == TAVRIX_ACL_VERSION");

  const std::size_t bytes = tavrix::stored_size_of(*acl);
  void* stored = std::calloc(1, bytes);
  if (stored == nullptr) {
    TAVRIX_LOG(0, "malloc failure ");
    TAVRIX_REQUIRE(stored != nullptr, "bacl != NULL");
  }
  tavrix::write_stored_acl(*acl, static_cast<std::byte*>(stored));
  *out = static_cast<beacl_s*>(stored);
  *size = static_cast<uint32_t>(bytes);
  return SHM_MEMBE_OK;
}

membe_shm_err membuf_2_ACL(const beacl_s* bacl, uint32_t version, uint32_t inherited,
                           tavrix_acl_t** acl) {
  if (acl == nullptr) {
    TAVRIX_LOG(0, "Empty tavrix_acl container");
    TAVRIX_REQUIRE(acl != nullptr, "acl != NULL");
  }
  if (*acl != nullptr) {
    TAVRIX_LOG(0, "non empty tavrix_acl_t ");
    TAVRIX_REQUIRE(*acl == nullptr, "*acl == NULL");
  }
  // An invalid value is written into every entry all the same.
  if (inherited > TAVRIX_ACE_INHERITED) {
    TAVRIX_LOG(0, "Invalid inheritance type %d", static_cast<int>(inherited));
  }
  if (version != TAVRIX_ACL_VERSION) return SHM_MEMBE_ERR_VERSION_MISMATCH;
  TAVRIX_REQUIRE(bacl != nullptr, "bacl != NULL");

  tavrix::Malloced<tavrix_acl_t> made(tavrix::malloc_zeroed<tavrix_acl_t>());
  TAVRIX_REQUIRE(made != nullptr, "acl != NULL");
  made->version = version;
  made->num_aces = bacl->num_aces;
  const beace_s* stored = tavrix::stored_aces(*bacl);
  for (uint32_t i = 0; i < bacl->num_aces; ++i, ++stored) {
    const e_ace_type_t trustee_type = tavrix::trustee_type_of(stored->idtype);
    if (trustee_type == ACE_TYPE_UNDEF) {
      TAVRIX_LOG(0, "Invalid trustee type %d", static_cast<int>(stored->idtype));
      free_tavrix_acl(made.get());
      made.reset();
      TAVRIX_REQUIRE(false, "0");
    }
    tavrix_ace_s* ace = tavrix::insert_new_ace(*made);
    TAVRIX_REQUIRE(ace != nullptr, "ace != NULL");
    ace->ace_type = inherited;
    ace->trustee_type = trustee_type;
    ace->trustee.uid = stored->id;
    ace->perm_mask = stored->perm_mask;
  }
  *acl = made.release();
  return SHM_MEMBE_OK;
}

void free_tavrix_acl(tavrix_acl_t* acl) {
  if (acl == nullptr) return;
  oneway_list_elem_s* elem = nullptr;
  while (oneway_list_pop_head(&acl->ace_list_head, &elem) == TXLIST_ERR_OK) std::free(elem);
  acl->num_aces = 0;
}

void free_ACL(tavrix_acl_t* acl) {
  TAVRIX_LOG(4, "Before ACL  traversal");
  free_tavrix_acl(acl);
  TAVRIX_LOG(4, "After ACL  traversal");
}

void print_acl(tavrix_acl_t* acl) {
  if (acl == nullptr) return;
  std::printf("ACL Version %d Num ACES %d\n", static_cast<int>(acl->version),
              static_cast<int>(acl->num_aces));
  uint32_t number = 0;
  for (const tavrix_ace_s& ace : aces_of(*acl)) tavrix::print_ace(ace, number++);
}

void print_bacl(const beacl_s* bacl) {
  if (bacl == nullptr) {
    std::printf("Null ACL\n");
    return;
  }
  std::printf("Acl numaces %d\n", static_cast<int>(bacl->num_aces));
  const beace_s* stored = tavrix::stored_aces(*bacl);
  for (uint32_t i = 0; i < bacl->num_aces; ++i, ++stored) {
    const beace_s ace = *stored;
    std::printf("Ace Type: %d id %d maks %0x\n", static_cast<int>(ace.idtype),
                static_cast<int>(ace.id), static_cast<unsigned int>(ace.perm_mask));
  }
}
