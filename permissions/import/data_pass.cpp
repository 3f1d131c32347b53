// SPDX-License-Identifier: LGPL-3.0-or-later
// The second pass of an import: turns the JSON parser's events into image records.
//
// The place in the document is a stack of states, each with the folder that it concerns. From the
// bottom to the top, the states of an open folder with an open ACL are:
//
//   parent   STCHILDMAP, CHILDREN, STCHILDARRAY, ENDNUMCHILDRENMAP
//   folder   STCHILDMAP
//   its ACL  ACL, STACLARRAY, STNUMUSERMAP, ENDNUMUSERMAP, STNUMGROUPMAP, ENDNUMGROUPMAP,
//            STUSERMAP, and the states of an open id map
//
// A document that breaks the grammar aborts the loader; the assertion names the expected state. An
// unknown key cancels the parse, and the image keeps the records that it has.

#include "permissions/import/data_pass.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "perm_utils.h"
#include "permissions/import/json_parse.hpp"
#include "permissions/import/parse_stack.hpp"
#include "permissions/map/image.hpp"
#include "permissions/map/stored_acl.hpp"
#include "read_perms.h"

namespace tavrix {
namespace {

constexpr int kGoOn = 1;
constexpr int kCancel = 0;

memsummary_s& running_import() {
  TAVRIX_REQUIRE(memsummary != nullptr, "memsummary != NULL");
  return *memsummary;
}

// --- the stack ------------------------------------------------------------------------------
//
// An import of a million folders makes these calls forty million times. Inline, each costs about
// ten instructions.

[[gnu::always_inline]] inline jsonstack& top_in(const memsummary_s& import) {
  jsonstack* top = top_of(import.sth);
  TAVRIX_REQUIRE(top != nullptr, "stelem != NULL");
  return *top;
}

// Pops the top element, for the primitives that read and fill it. It is given back with the scope,
// in which nothing may be pushed.
[[gnu::always_inline]] inline Element take_top(memsummary_s& import) {
  Element elem(pop(import.sth));
  TAVRIX_REQUIRE(elem != nullptr, "stelem != NULL");
  return elem;
}

[[gnu::cold]] int push_failed(jsonstack* elem) {
  TAVRIX_LOG(0, "List error ");
  TAVRIX_LOG(0, "Push failure %d", SHM_MEMBE_ERR_LISTERR);
  give_back(elem);
  return kCancel;
}

[[gnu::always_inline]] inline int push_state(memsummary_s& import, int state, uint32_t offset,
                                             void* data, stelem_type type) {
  jsonstack* elem = new_element();
  TAVRIX_REQUIRE(elem != nullptr, "err == 0");
  elem->state = state;
  elem->stetype = type;
  elem->jsonoffset = offset;
  elem->data = data;
  const e_txlist_err err = push(import.sth, elem);
  return __builtin_expect(err == TXLIST_ERR_OK, 1) ? kGoOn : push_failed(elem);
}

// Pushes a state for the same folder.
[[gnu::always_inline]] inline int push_copy(memsummary_s& import, const jsonstack& elem,
                                            int state) {
  return push_state(import, state, elem.jsonoffset, elem.data, elem.stetype);
}

// Pops the top element if it has that state; else pop_if_state() reports the mismatch.
[[gnu::always_inline]] inline membe_shm_err pop_state(memsummary_s& import, int state) {
  const jsonstack* top = top_of(import.sth);
  if (__builtin_expect(top == nullptr || top->state != state, 0)) return pop_if_state(state);
  give_back(pop(import.sth));
  return SHM_MEMBE_OK;
}

void require_top(memsummary_s& import, int state, const char* text) {
  TAVRIX_REQUIRE(get_cur_state(&import.sth) == state, text);
}

// The pops at the end of an object and of an array. Their failures have different texts.
[[gnu::always_inline]] inline void pop_at_end_of_map(memsummary_s& import, int state) {
  if (const membe_shm_err err = pop_state(import, state); err != SHM_MEMBE_OK) {
    TAVRIX_LOG(0, "pop error %d ", err);
    TAVRIX_REQUIRE(err == SHM_MEMBE_OK, "err == SHM_MEMBE_OK");
  }
}

[[gnu::always_inline]] inline void pop_at_end_of_array(memsummary_s& import, int state) {
  if (const membe_shm_err err = pop_state(import, state); err != SHM_MEMBE_OK) {
    TAVRIX_LOG(0, "State mismatch ");
    TAVRIX_REQUIRE(err == SHM_MEMBE_OK, "err == SHM_MEMBE_OK");
  }
}

// --- a table of transitions -----------------------------------------------------------------

constexpr std::size_t kStates = PERMDATA_STATE_INVAL + 1;

using Action = int (*)(memsummary_s& import, jsonstack& top);

// A row: when `state` is on top, push `next` for the same folder, or run the action.
struct Transition {
  int state;
  int next;
  Action action = nullptr;
};

// The rows, indexed by state.
class TransitionTable {
 public:
  template <std::size_t N>
  constexpr explicit TransitionTable(const Transition (&rows)[N]) {
    for (const Transition& row : rows) by_state_[static_cast<std::size_t>(row.state)] = row;
  }
  // Null for a state that the table does not list.
  [[nodiscard]] const Transition* find(int state) const noexcept {
    if (state < 0 || static_cast<std::size_t>(state) >= kStates) return nullptr;
    const Transition& row = by_state_[static_cast<std::size_t>(state)];
    return row.next == kNone && row.action == nullptr ? nullptr : &row;
  }
  static constexpr int kNone = -1;

 private:
  static constexpr std::array<Transition, kStates> unlisted() {
    std::array<Transition, kStates> rows{};
    for (Transition& row : rows) row = {.state = kNone, .next = kNone};
    return rows;
  }
  std::array<Transition, kStates> by_state_ = unlisted();
};

constexpr int kOwnAction = TransitionTable::kNone;

int take(const Transition& row, memsummary_s& import, jsonstack& top) {
  return row.action != nullptr ? row.action(import, top) : push_copy(import, top, row.next);
}

// --- the start of an object -----------------------------------------------------------------

int begin_acl(memsummary_s& import, jsonstack& /*top*/) {
  tavrix_acl_t* acl = nullptr;
  create_empty_acl(&acl);
  return push_state(import, PERMDATA_STATE_STUSERMAP, 0, acl, STELEM_TYPE_ACLELEM);
}

// Creates a folder in the image. Returns the element for it, or null when out of memory.
Element new_folder(memsummary_s& import, int state, uint32_t parent) {
  Element elem(new_element());
  if (elem == nullptr) {
    TAVRIX_LOG(0, "No memory %s", strerror(errno));
    TAVRIX_LOG(0, "Error creating fselem ");
    return nullptr;
  }
  *elem = jsonstack{};
  elem->state = state;
  elem->stetype = STELEM_TYPE_INVALID;
  if (create_fselem(&import, elem.get(), parent) != SHM_MEMBE_OK) {
    TAVRIX_LOG(0, "Error creating fselem ");
    return nullptr;
  }
  return elem;
}

int push_element(memsummary_s& import, Element elem) {
  const e_txlist_err err = push(import.sth, elem.get());
  if (err != TXLIST_ERR_OK) {
    TAVRIX_LOG(0, "Push failure %d", err);
    return kCancel;
  }
  static_cast<void>(elem.release());  // the stack owns it now
  return kGoOn;
}

int begin_folder(memsummary_s& import, jsonstack& top) {
  const ImageWriter image(import);
  static_cast<void>(image.checked_header());
  fs_elem_s& parent = image.fselem(top.jsonoffset);
  if (top.jsonoffset == 0 && parent.parent_offset == FSELEM_ROOT_OFFSET) {
    // The start of the document has created the root. This is the root's own object.
    parent.flags |= FSELEM_FLAG_ROOT;
    parent.parent_offset = FSELEM_ROOT_OFFSET2;
    return push_state(import, PERMDATA_STATE_STCHILDMAP, 0, nullptr, STELEM_TYPE_FSELEM);
  }
  if ((parent.flags & FSELEM_FLAG_NO_CHILD_LIST) != 0) {
    // The parent was declared without children. The element gets no folder, and the child's name
    // will abort for want of one.
    return push_state(import, PERMDATA_STATE_STCHILDMAP, 0, nullptr, STELEM_TYPE_INVALID);
  }
  Element child = new_folder(import, PERMDATA_STATE_STCHILDMAP, top.jsonoffset);
  if (child == nullptr) return kCancel;
  add_to_parentlist(&import, child.get(), top.jsonoffset);
  return push_element(import, std::move(child));
}

// An object under any other state changes nothing; its contents will break the grammar.
constexpr TransitionTable start_of_object({
    {PERMDATA_STATE_STCHILDARRAY, PERMDATA_STATE_STNUMCHILDRENMAP},
    {PERMDATA_STATE_STACLARRAY, PERMDATA_STATE_STNUMUSERMAP},
    {PERMDATA_STATE_ENDUSERMAP, PERMDATA_STATE_STGROUPMAP},
    {PERMDATA_STATE_ENDNUMUSERMAP, PERMDATA_STATE_STNUMGROUPMAP},
    {PERMDATA_STATE_ENDNUMGROUPMAP, kOwnAction, begin_acl},
    {PERMDATA_STATE_ENDNUMCHILDRENMAP, kOwnAction, begin_folder},
    {PERMDATA_STATE_USERS, PERMDATA_STATE_STUSERACLMAP},
    {PERMDATA_STATE_GROUPS, PERMDATA_STATE_STGROUPACLMAP},
});

// --- the start of an array ------------------------------------------------------------------

constexpr TransitionTable start_of_array({
    {PERMDATA_STATE_CHILDREN, PERMDATA_STATE_STCHILDARRAY},
    {PERMDATA_STATE_ACL, PERMDATA_STATE_STACLARRAY},
});

int begin_document(memsummary_s& import) {
  Element root = new_folder(import, PERMDATA_STATE_STCHILDARRAY, FSELEM_ROOT_OFFSET);
  return root == nullptr ? kCancel : push_element(import, std::move(root));
}

// --- keys -----------------------------------------------------------------------------------

struct Key {
  std::string_view text;
  int state;              // the state to push
  int under;              // the state that must be on top
  const char* condition;  // the text of the abort when it is not
};

constexpr Key kChildren{"CHILDREN", PERMDATA_STATE_CHILDREN, PERMDATA_STATE_STCHILDMAP,
                        "curstate == PERMDATA_STATE_STCHILDMAP"};
constexpr Key kNumChildren{"NUMCHILDREN", PERMDATA_STATE_NUMCHILDREN,
                           PERMDATA_STATE_STNUMCHILDRENMAP,
                           "curstate == PERMDATA_STATE_STNUMCHILDRENMAP"};
constexpr Key kNumUsers{"NUMUSERS", PERMDATA_STATE_NUMUSERS, PERMDATA_STATE_STNUMUSERMAP,
                        "curstate == PERMDATA_STATE_STNUMUSERMAP"};
constexpr Key kNumGroups{"NUMGROUPS", PERMDATA_STATE_NUMGROUPS, PERMDATA_STATE_STNUMGROUPMAP,
                         "curstate == PERMDATA_STATE_STNUMGROUPMAP"};
constexpr Key kDir{"DIR", PERMDATA_STATE_NAME, PERMDATA_STATE_STCHILDMAP,
                   "curstate == PERMDATA_STATE_STCHILDMAP"};
constexpr Key kUsers{"USERS", PERMDATA_STATE_USERS, PERMDATA_STATE_STUSERMAP,
                     "curstate == PERMDATA_STATE_STUSERMAP"};
constexpr Key kAcl{"ACL", PERMDATA_STATE_ACL, PERMDATA_STATE_STCHILDMAP,
                   "curstate == PERMDATA_STATE_STCHILDMAP"};
constexpr Key kGroups{"GROUPS", PERMDATA_STATE_GROUPS, PERMDATA_STATE_STGROUPMAP,
                      "curstate == PERMDATA_STATE_STGROUPMAP"};

// The key, if the text is its own. The lengths are equal and known to the compiler, which compares
// with one or two instructions.
template <const Key& kKey>
const Key* if_same(const char* text) {
  return std::memcmp(text, kKey.text.data(), kKey.text.size()) == 0 ? &kKey : nullptr;
}

const Key* find_key(std::string_view key) {
  const char* text = key.data();
  switch (key.size()) {
    case 3:
      return text[0] == 'D' ? if_same<kDir>(text) : if_same<kAcl>(text);
    case 5:
      return if_same<kUsers>(text);
    case 6:
      return if_same<kGroups>(text);
    case 8:
      return text[0] == 'C' ? if_same<kChildren>(text) : if_same<kNumUsers>(text);
    case 9:
      return if_same<kNumGroups>(text);
    case 11:
      return if_same<kNumChildren>(text);
    default:
      return nullptr;
  }
}

tavrix_acl_t* acl_of(const jsonstack& elem) { return static_cast<tavrix_acl_t*>(elem.data); }

int begin_ace(memsummary_s& import, const jsonstack& top, e_ace_type_t trustee, std::string_view id,
              int next) {
  add_ace_to_acl(acl_of(top), trustee, static_cast<uint32_t>(decimal_of(id.data(), id.size())));
  return push_copy(import, top, next);
}

// --- numbers --------------------------------------------------------------------------------

void declare_children(memsummary_s& import, jsonstack& elem, uint32_t count) {
  TAVRIX_REQUIRE(elem.stetype == STELEM_TYPE_FSELEM, "stelem->stetype == STELEM_TYPE_FSELEM");
  const ImageWriter image(import);
  static_cast<void>(image.checked_header());
  fs_elem_s& folder = image.fselem(elem.jsonoffset);
  if (count > 0) {
    create_child_list(&import, count, &elem);
  } else {
    folder.flags |= FSELEM_FLAG_NO_CHILD_LIST;
  }
}

void set_mask(const jsonstack& elem, e_ace_type_t trustee, uint32_t mask) {
  auto* acl = static_cast<tavrix_acl_t*>(elem.data);
  TAVRIX_REQUIRE(acl != nullptr && acl->ace_list_head.first_elem != nullptr, "ace != NULL");
  // New entries go to the head, so the first entry is that of the last key.
  const auto* last = reinterpret_cast<const tavrix_ace_s*>(acl->ace_list_head.first_elem);
  add_ace_mask(acl, trustee, last->trustee.uid, mask);
}

// --- the end of an object -------------------------------------------------------------------

int end_folder(memsummary_s& import, jsonstack& /*top*/) {
  pop_at_end_of_map(import, PERMDATA_STATE_STCHILDMAP);
  require_top(import, PERMDATA_STATE_ENDNUMCHILDRENMAP,
              "curstate == PERMDATA_STATE_ENDNUMCHILDRENMAP");
  return kGoOn;
}

template <int kFirst, int kSecond>
int pop_two(memsummary_s& import, jsonstack& /*top*/) {
  pop_at_end_of_map(import, kFirst);
  pop_at_end_of_map(import, kSecond);
  return kGoOn;
}

// The element stays: its next state is that of a new element for the same folder.
int end_child_count(memsummary_s& /*import*/, jsonstack& top) {
  TAVRIX_REQUIRE(top.stetype == STELEM_TYPE_FSELEM, "stetype == STELEM_TYPE_FSELEM");
  top.state = PERMDATA_STATE_ENDNUMCHILDRENMAP;
  return kGoOn;
}

int tolerate(memsummary_s& /*import*/, jsonstack& top) {
  TAVRIX_LOG(0, "Invalid state state %d", top.state);
  return kGoOn;
}

// The end of an object under any other state aborts.
constexpr TransitionTable end_of_object({
    {PERMDATA_STATE_STCHILDMAP, kOwnAction, end_folder},
    {PERMDATA_STATE_STUSERMAP, PERMDATA_STATE_ENDUSERMAP},
    {PERMDATA_STATE_STGROUPMAP, kOwnAction,
     pop_two<PERMDATA_STATE_STGROUPMAP, PERMDATA_STATE_ENDUSERMAP>},
    {PERMDATA_STATE_STNUMUSERMAP, PERMDATA_STATE_ENDNUMUSERMAP},
    {PERMDATA_STATE_STNUMGROUPMAP, PERMDATA_STATE_ENDNUMGROUPMAP},
    {PERMDATA_STATE_STUSERACLMAP, kOwnAction,
     pop_two<PERMDATA_STATE_STUSERACLMAP, PERMDATA_STATE_USERS>},
    {PERMDATA_STATE_STGROUPACLMAP, kOwnAction,
     pop_two<PERMDATA_STATE_STGROUPACLMAP, PERMDATA_STATE_GROUPS>},
    {PERMDATA_STATE_STNUMCHILDRENMAP, kOwnAction, end_child_count},
    {PERMDATA_STATE_STCHILDARRAY, kOwnAction, tolerate},
    {PERMDATA_STATE_STACLARRAY, kOwnAction, tolerate},
    {PERMDATA_STATE_ENDUSERMAP, kOwnAction, tolerate},
    {PERMDATA_STATE_ENDGROUPMAP, kOwnAction, tolerate},
    {PERMDATA_STATE_ENDNUMUSERMAP, kOwnAction, tolerate},
    {PERMDATA_STATE_ENDNUMGROUPMAP, kOwnAction, tolerate},
    {PERMDATA_STATE_ENDUSERACLMAP, kOwnAction, tolerate},
    {PERMDATA_STATE_ENDGROUPACLMAP, kOwnAction, tolerate},
});

// --- the end of an array --------------------------------------------------------------------

// Stores the folder's ACL at the next free place of the ACL region.
void store_acl(memsummary_s& import, uint32_t folder_offset, const tavrix_acl_t& acl) {
  const ImageWriter image(import);
  tavrix_be_header& header = image.checked_header();
  image.fselem(folder_offset).acl_offset = header.next_free_acl;
  const std::size_t size = stored_size_of(acl);
  write_stored_acl(acl, image.bytes(header.acl_offset, header.next_free_acl, size));
  header.next_free_acl += static_cast<uint32_t>(size);
}

// Pops the element below the one with the ACL and returns its folder, to which the ACL belongs.
uint32_t take_folder_of_acl(memsummary_s& import) {
  const Element elem = take_top(import);
  if (elem->state != PERMDATA_STATE_ENDNUMGROUPMAP) {
    TAVRIX_LOG(0, "state mismatch asked %d given %d", PERMDATA_STATE_ENDNUMGROUPMAP, elem->state);
    TAVRIX_REQUIRE(elem->state == PERMDATA_STATE_ENDNUMGROUPMAP, "err == SHM_MEMBE_OK");
  }
  return elem->jsonoffset;
}

int end_acl(memsummary_s& import) {
  tavrix_acl_t* acl = acl_of(*take_top(import));
  TAVRIX_REQUIRE(acl != nullptr, "acl != NULL");
  store_acl(import, take_folder_of_acl(import), *acl);
  free_tavrix_acl(acl);
  std::free(acl);
  pop_at_end_of_array(import, PERMDATA_STATE_STNUMGROUPMAP);
  pop_at_end_of_array(import, PERMDATA_STATE_ENDNUMUSERMAP);
  pop_at_end_of_array(import, PERMDATA_STATE_STNUMUSERMAP);
  pop_at_end_of_array(import, PERMDATA_STATE_STACLARRAY);
  pop_at_end_of_array(import, PERMDATA_STATE_ACL);
  require_top(import, PERMDATA_STATE_STCHILDMAP, "curstate == PERMDATA_STATE_STCHILDMAP");
  return kGoOn;
}

int end_children(memsummary_s& import) {
  pop_at_end_of_array(import, PERMDATA_STATE_ENDNUMCHILDRENMAP);
  pop_at_end_of_array(import, PERMDATA_STATE_STCHILDARRAY);
  if (import.sth.totalelems == 0) return kGoOn;  // the document is complete
  pop_at_end_of_array(import, PERMDATA_STATE_CHILDREN);
  require_top(import, PERMDATA_STATE_STCHILDMAP, "curstate == PERMDATA_STATE_STCHILDMAP");
  return kGoOn;
}

}  // namespace

const yajl_callbacks data_pass_callbacks{.yajl_null = nullptr,
                                         .yajl_boolean = nullptr,
                                         .yajl_integer = nullptr,
                                         .yajl_double = nullptr,
                                         .yajl_number = readperm_number,
                                         .yajl_string = readperm_string,
                                         .yajl_start_map = readperm_start_map,
                                         .yajl_map_key = readperm_map_key,
                                         .yajl_end_map = readperm_end_map,
                                         .yajl_start_array = readperm_start_array,
                                         .yajl_end_array = readperm_end_array};

}  // namespace tavrix

int readperm_start_array(void* /*ctx*/) {
  memsummary_s& import = tavrix::running_import();
  if (import.sth.totalelems == 0) return tavrix::begin_document(import);
  jsonstack& top = tavrix::top_in(import);
  if (const auto* row = tavrix::start_of_array.find(top.state)) {
    return tavrix::take(*row, import, top);
  }
  // The contents of this array have no place. The image built so far is judged as it is.
  TAVRIX_LOG(0, "Invalid state %d", top.state);
  return tavrix::kCancel;
}

int readperm_start_map(void* /*ctx*/) {
  memsummary_s& import = tavrix::running_import();
  jsonstack& top = tavrix::top_in(import);
  const auto* row = tavrix::start_of_object.find(top.state);
  return row == nullptr ? tavrix::kGoOn : tavrix::take(*row, import, top);
}

int readperm_map_key(void* /*ctx*/, const unsigned char* key, size_t len) {
  const std::string_view text(reinterpret_cast<const char*>(key), len);
  memsummary_s& import = tavrix::running_import();
  const jsonstack& top = tavrix::top_in(import);
  if (const tavrix::Key* row = tavrix::find_key(text)) {
    TAVRIX_REQUIRE(top.state == row->under, row->condition);
    return tavrix::push_copy(import, top, row->state);
  }
  if (top.state == PERMDATA_STATE_STUSERACLMAP) {
    return tavrix::begin_ace(import, top, ACE_TYPE_USER, text, PERMDATA_STATE_USERID);
  }
  if (top.state == PERMDATA_STATE_STGROUPACLMAP) {
    return tavrix::begin_ace(import, top, ACE_TYPE_GROUP, text, PERMDATA_STATE_GROUPID);
  }
  const tavrix::CString copy(strndup(text.data(), text.size()));
  TAVRIX_LOG(0, "Invalid state %s state %d curst %d", copy == nullptr ? "" : copy.get(),
             PERMDATA_STATE_INVAL, top.state);
  return tavrix::kCancel;
}

int readperm_string(void* /*ctx*/, const unsigned char* string, size_t len) {
  memsummary_s& import = tavrix::running_import();
  const auto elem = tavrix::take_top(import);
  if (elem->state != PERMDATA_STATE_NAME) {
    TAVRIX_LOG(0, "Invalid state %d", elem->state);
    TAVRIX_REQUIRE(elem->state == PERMDATA_STATE_NAME, "stelem->state == PERMDATA_STATE_NAME");
  }
  TAVRIX_REQUIRE(elem->stetype == STELEM_TYPE_FSELEM, "stelem->stetype == STELEM_TYPE_FSELEM");
  // The primitive aborts on a length that a record cannot hold, so a longer one may be cut here.
  const auto length = static_cast<uint32_t>(std::min<size_t>(len, UINT32_MAX));
  const membe_shm_err err =
      create_nameelem(&import, length, reinterpret_cast<const char*>(string), elem.get());
  TAVRIX_REQUIRE(err == SHM_MEMBE_OK, "err == SHM_MEMBE_OK");
  return tavrix::kGoOn;
}

int readperm_number(void* /*ctx*/, const char* number, size_t len) {
  memsummary_s& import = tavrix::running_import();
  const auto elem = tavrix::take_top(import);
  const auto value = [number, len] {
    return static_cast<uint32_t>(tavrix::decimal_of(number, len));
  };
  switch (elem->state) {
    case PERMDATA_STATE_NUMCHILDREN:
      tavrix::declare_children(import, *elem, value());
      break;
    case PERMDATA_STATE_NUMUSERS:
    case PERMDATA_STATE_NUMGROUPS:
      break;  // not needed: the ACL counts its entries
    case PERMDATA_STATE_USERID:
      tavrix::set_mask(*elem, ACE_TYPE_USER, value());
      break;
    case PERMDATA_STATE_GROUPID:
      tavrix::set_mask(*elem, ACE_TYPE_GROUP, value());
      break;
    default:
      TAVRIX_REQUIRE(false, "0");
  }
  return tavrix::kGoOn;
}

int readperm_end_map(void* /*ctx*/) {
  memsummary_s& import = tavrix::running_import();
  jsonstack& top = tavrix::top_in(import);
  const auto* row = tavrix::end_of_object.find(top.state);
  TAVRIX_REQUIRE(row != nullptr, "0");
  return tavrix::take(*row, import, top);
}

int readperm_end_array(void* /*ctx*/) {
  memsummary_s& import = tavrix::running_import();
  const int state = tavrix::top_in(import).state;
  if (state == PERMDATA_STATE_STUSERMAP) return tavrix::end_acl(import);
  if (state == PERMDATA_STATE_ENDNUMCHILDRENMAP) return tavrix::end_children(import);
  TAVRIX_LOG(0, "Invalid state %d", state);
  TAVRIX_REQUIRE(false, "0");
  return tavrix::kCancel;
}
