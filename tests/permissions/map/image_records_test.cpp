// SPDX-License-Identifier: LGPL-3.0-or-later
// The primitives that write an image, record by record, and ACLs in memory.

#include <gtest/gtest.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "perm_utils.h"
#include "permissions/map/ace_list.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class Records : public testing::Test {
 protected:
  Records() {
    summary_.total_fselems = 3;
    summary_.total_aces = 2;
    summary_.total_namelen = 30;
    estimate_shmbe_size(&summary_);
    image_.resize(summary_.memsize);
    summary_.membuf = image_.data();
    init_shmbe(&summary_);
    root_.state = child_.state = 0;
  }
  tavrix_be_header& header() { return *reinterpret_cast<tavrix_be_header*>(image_.data()); }
  uint32_t word(std::size_t at) const {
    uint32_t value = 0;
    std::memcpy(&value, image_.data() + at, sizeof value);
    return value;
  }
  std::size_t names() { return header().nameelem_offset; }
  std::size_t lists() { return header().list_offset; }

  std::vector<std::byte> image_;
  memsummary_s summary_{};
  jsonstack root_{}, child_{};
};

TEST_F(Records, RootIsTheFirstFolder) {
  root_.jsonoffset = 99;
  root_.stetype = STELEM_TYPE_INVALID;
  EXPECT_EQ(SHM_MEMBE_OK, create_fselem(&summary_, &root_, 0xFFFFFFFF));
  EXPECT_EQ(STELEM_TYPE_FSELEM, root_.stetype);
  EXPECT_EQ(0U, root_.jsonoffset);
  EXPECT_EQ(0x67896789U, word(176));
  EXPECT_EQ(0xFFFFFFFFU, word(180));
  for (std::size_t at = 184; at < 200; at += 4) EXPECT_EQ(0U, word(at));
  EXPECT_EQ(24U, header().next_free_fselem);
}

TEST_F(Records, RootMadeAgainTakesItsPlaceAgain) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  create_fselem(&summary_, &child_, 0xFFFFFFFF);
  EXPECT_EQ(24U, child_.jsonoffset);  // the next free place, although the root is at 0
  EXPECT_EQ(48U, header().next_free_fselem);
  EXPECT_TRUE(in_child([this] { create_fselem(&summary_, &root_, 0xFFFFFFFF); })
                  .aborted_with("beheader->next_free_fselem == 0 || beheader->next_free_fselem == "
                                "sizeof(fs_elem_s)"));
}

TEST_F(Records, FoldersFollowOneAnother) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  EXPECT_EQ(SHM_MEMBE_OK, create_fselem(&summary_, &child_, 0));
  EXPECT_EQ(24U, child_.jsonoffset);
  EXPECT_EQ(0U, word(176 + 24 + 4));
  EXPECT_EQ(48U, header().next_free_fselem);
}

TEST_F(Records, NamesFollowOneAnotherUnaligned) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  create_fselem(&summary_, &child_, 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(SHM_MEMBE_OK, create_nameelem(&summary_, 5, "Hello, world", &root_));
  EXPECT_EQ(18U, header().next_free_nameelem);
  EXPECT_EQ(SHM_MEMBE_OK, create_nameelem(&summary_, 1, "/", &child_));
  std::fflush(stdout);
  const std::string hash = std::to_string(process_namecomponent_4hash("Hello", 5));
  const std::string slash = std::to_string(process_namecomponent_4hash("/", 1));
  EXPECT_EQ("--------> Name Hello hahsval " + hash + " \n--------> Name / hahsval " + slash + " \n",
            testing::internal::GetCapturedStdout());
  EXPECT_EQ(18U, word(176 + 24 + 8));
  EXPECT_EQ(5U, word(names()));
  EXPECT_EQ(0xABCDABCDU, word(names() + 4));
  EXPECT_EQ(process_namecomponent_4hash("HELLO", 5), word(names() + 8));
  EXPECT_EQ(0, std::memcmp(image_.data() + names() + 12, "Hello\0", 6));
}

TEST_F(Records, LongNamesArePrintedWhole) {
  summary_.memsize = 0;  // a summary without a size is not checked
  image_.resize(3000);
  summary_.membuf = image_.data();
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  const std::string name(1000, 'n');
  testing::internal::CaptureStdout();
  create_nameelem(&summary_, 1000, name.c_str(), &root_);
  std::fflush(stdout);
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find(name + " hahsval "));
}

TEST_F(Records, ChildListsHoldTheirChildrenInOrder) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  EXPECT_EQ(SHM_MEMBE_OK, create_child_list(&summary_, 1, &root_));
  EXPECT_EQ(SHM_MEMBE_OK, create_child_list(&summary_, 2, &root_));
  EXPECT_EQ(16U, word(176 + 12));
  EXPECT_EQ(16U + 20U, header().next_free_list);
  create_fselem(&summary_, &child_, 0);
  EXPECT_EQ(SHM_MEMBE_OK, add_to_parentlist(&summary_, &child_, 0));
  EXPECT_EQ(0x789A789AU, word(lists() + 16));
  EXPECT_EQ(2U, word(lists() + 20));
  EXPECT_EQ(1U, word(lists() + 24));
  EXPECT_EQ(24U, word(lists() + 28));
  EXPECT_EQ(0U, word(lists() + 32));
}

struct Misuse {
  const char* condition;
  const char* message;  // empty: none
  std::function<void()> call;
};

TEST_F(Records, AbortOnMisuse) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  jsonstack name{};
  name.stetype = STELEM_TYPE_NAMEELEM;
  const Misuse misuses[] = {
      {"stelem != NULL", "Null stelem ", [&] { create_fselem(&summary_, nullptr, 0); }},
      {"memsummary != NULL", "", [&] { create_fselem(nullptr, &child_, 0); }},
      {"fselem->signature == FSELEMSIG", "", [&] { create_fselem(&summary_, &child_, 24); }},
      {"name != NULL && len > 0", "Invalid name parameters",
       [&] { create_nameelem(&summary_, 0, "", &root_); }},
      {"name != NULL && len > 0", "Invalid name parameters",
       [&] { create_nameelem(&summary_, 3, nullptr, &root_); }},
      {"stelem != NULL", "Invalid stelem", [&] { create_nameelem(&summary_, 1, "/", nullptr); }},
      {"memsummary != NULL", "Invalid memsummary",
       [&] { create_nameelem(nullptr, 1, "/", &root_); }},
      {"stelem->stetype == STELEM_TYPE_FSELEM", "",
       [&] { create_nameelem(&summary_, 1, "/", &name); }},
      {"memsummary != NULL", "Invalid memsummary", [&] { create_child_list(nullptr, 1, &root_); }},
      {"stelem != NULL", "Invalid stelem", [&] { create_child_list(&summary_, 1, nullptr); }},
      {"memsummary != NULL", "Invalid memsummary", [&] { add_to_parentlist(nullptr, &root_, 0); }},
      {"stelem != NULL", "Invalid stelem", [&] { add_to_parentlist(&summary_, nullptr, 0); }},
      {"clist->signature == LISTSIG", "", [&] { add_to_parentlist(&summary_, &root_, 0); }},
      {"fselem->name_elem_offset == 0", "",
       [&] {
         // A first name lies at offset 0 and cannot be told from none; a second one can.
         create_nameelem(&summary_, 1, "/", &root_);
         create_nameelem(&summary_, 1, "/", &root_);
         create_nameelem(&summary_, 1, "/", &root_);
       }},
      {"beheader->signature == TAVRIX_BE_HEADER_SIGNATURE", "",
       [&] {
         header().signature = 1;
         create_child_list(&summary_, 1, &root_);
       }},
  };
  for (const Misuse& misuse : misuses) {
    const Outcome outcome = in_child([&] {
      std::signal(SIGABRT, [](int) {
        for (const auto& text : messages()) std::fprintf(stderr, "<%s>\n", text.c_str());
      });
      misuse.call();
    });
    EXPECT_TRUE(outcome.aborted_with(misuse.condition)) << misuse.condition << "\n" << outcome.err;
    EXPECT_NE(std::string::npos, outcome.err.find(misuse.message)) << outcome.err;
  }
}

TEST_F(Records, NeverLeaveTheImage) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  const std::string name(60000, 'x');
  EXPECT_TRUE(in_child([&] {
                create_nameelem(&summary_, 60000, name.c_str(), &root_);
              }).aborted_with("record lies inside the image"));
  EXPECT_TRUE(in_child([&] {
                create_child_list(&summary_, 0xFFFFFFFF, &root_);
              }).aborted_with("record lies inside the image"));
  EXPECT_TRUE(in_child([&] {
                create_nameelem(&summary_, 70000, name.c_str(), &root_);
              }).aborted_with("len <= UINT16_MAX"));
}

// --- ACLs ----------------------------------------------------------------------------------------

class Acl : public testing::Test {
 protected:
  Acl() { create_empty_acl(&acl_); }
  ~Acl() override {
    free_tavrix_acl(acl_);
    std::free(acl_);
  }
  tavrix_acl_t* acl_ = nullptr;
};

TEST_F(Acl, BeginsEmpty) {
  EXPECT_EQ(0U, acl_->version);
  EXPECT_EQ(0U, acl_->num_aces);
  EXPECT_EQ(nullptr, acl_->ace_list_head.first_elem);
}

TEST_F(Acl, TakesNewEntriesAtItsHead) {
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  add_ace_to_acl(acl_, ACE_TYPE_GROUP, 2);
  EXPECT_EQ(2U, acl_->num_aces);
  std::vector<uint32_t> ids;
  for (const tavrix_ace_s& ace : aces_of(*acl_)) {
    ids.push_back(ace.trustee.uid);
    EXPECT_EQ(0U, ace.version);
    EXPECT_EQ(0U, ace.ace_type);
    EXPECT_EQ(0U, ace.perm_mask);
  }
  EXPECT_EQ((std::vector<uint32_t>{2, 1}), ids);
}

TEST_F(Acl, SetsTheMaskOfTheFirstEntryOfATrustee) {
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  add_ace_to_acl(acl_, ACE_TYPE_GROUP, 1);
  EXPECT_EQ(SHM_MEMBE_OK, add_ace_mask(acl_, ACE_TYPE_USER, 1, 7));
  std::vector<uint32_t> masks;
  for (const tavrix_ace_s& ace : aces_of(*acl_)) masks.push_back(ace.perm_mask);
  EXPECT_EQ((std::vector<uint32_t>{0, 7, 0}), masks);
}

TEST_F(Acl, MarksEveryEntry) {
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  add_ace_to_acl(acl_, ACE_TYPE_USER, 2);
  EXPECT_EQ(SHM_MEMBE_OK, set_inheritance_flag(acl_, 1));
  for (const tavrix_ace_s& ace : aces_of(*acl_)) EXPECT_EQ(1U, ace.ace_type);
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, set_inheritance_flag(acl_, 2));
  EXPECT_EQ(SHM_MEMBE_ERR_LISTERR, set_inheritance_flag(nullptr, 1));
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, set_inheritance_flag(nullptr, 2));
}

TEST_F(Acl, IsStoredInListOrder) {
  add_ace_to_acl(acl_, ACE_TYPE_USER, 0x11223344);
  add_ace_mask(acl_, ACE_TYPE_USER, 0x11223344, 0x12345);
  add_ace_to_acl(acl_, ACE_TYPE_GROUP, 2);
  beacl_s* stored = nullptr;
  uint32_t size = 0;
  ASSERT_EQ(SHM_MEMBE_OK, ACL_2_membuf(acl_, &stored, &size));
  ASSERT_EQ(32U, size);
  const uint8_t expected[] = {0xEF, 0xCD, 0xEF, 0xCD, 2,    0,    0,    0,    2, 0, 0,
                              0,    2,    0,    0,    0,    0,    0,    0,    0, 1, 0,
                              0,    0,    0x44, 0x33, 0x22, 0x11, 0x45, 0x23, 0, 0};
  EXPECT_EQ(0, std::memcmp(expected, stored, size));
  std::free(stored);
}

TEST_F(Acl, WithoutEntriesIsStoredInEightBytes) {
  beacl_s* stored = nullptr;
  uint32_t size = 0;
  ACL_2_membuf(acl_, &stored, &size);
  EXPECT_EQ(8U, size);
  EXPECT_EQ(0xCDEFCDEFU, stored->signature);
  EXPECT_EQ(0U, stored->num_aces);
  std::free(stored);
}

TEST_F(Acl, OfNothingIsStoredAsNothing) {
  beacl_s* stored = reinterpret_cast<beacl_s*>(this);
  uint32_t size = 0;
  EXPECT_EQ(SHM_MEMBE_OK, ACL_2_membuf(nullptr, &stored, &size));
  EXPECT_EQ(nullptr, stored);
}

TEST_F(Acl, ComesBackReversed) {
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  add_ace_to_acl(acl_, ACE_TYPE_GROUP, 2);
  beacl_s* stored = nullptr;
  uint32_t size = 0;
  ACL_2_membuf(acl_, &stored, &size);
  tavrix_acl_t* back = nullptr;
  EXPECT_EQ(SHM_MEMBE_OK, membuf_2_ACL(stored, 0, 1, &back));
  std::vector<uint32_t> ids;
  for (const tavrix_ace_s& ace : aces_of(*back)) {
    ids.push_back(ace.trustee.uid);
    EXPECT_EQ(1U, ace.ace_type);
  }
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), ids);
  EXPECT_EQ(2U, back->num_aces);
  free_ACL(back);
  std::free(back);
  std::free(stored);
}

TEST_F(Acl, OfAnotherVersionDoesNotComeBack) {
  beacl_s stored{ACLSIG, 0};
  tavrix_acl_t* back = nullptr;
  const long before = allocations();
  EXPECT_EQ(SHM_MEMBE_ERR_VERSION_MISMATCH, membuf_2_ACL(&stored, 1, 0, &back));
  EXPECT_EQ(before, allocations());
  EXPECT_EQ(nullptr, back);
}

TEST_F(Acl, WithAnOddInheritanceComesBackWithIt) {
  struct {
    beacl_s head{ACLSIG, 1};
    beace_s ace{IDTYPE_UID, 5, 3, 0};
  } stored;
  const auto convert = [&] {
    tavrix_acl_t* back = nullptr;
    membuf_2_ACL(&stored.head, 0, 9, &back);
    EXPECT_EQ(9U, (*aces_of(*back).begin()).ace_type);
    free_tavrix_acl(back);
    std::free(back);
  };
  EXPECT_EQ(0, level_of("Invalid inheritance type 9", convert));
}

TEST_F(Acl, AbortsOnMisuse) {
  struct {
    beacl_s head{ACLSIG, 1};
    beace_s ace{3, 5, 3, 0};
  } odd;
  tavrix_acl_t* none = nullptr;
  const Misuse misuses[] = {
      {"*acl == NULL", "", [&] { create_empty_acl(&acl_); }},
      {"*acl != NULL", "malloc failure ",
       [&] {
         fail_call("malloc", ENOMEM);
         fail_call("calloc", ENOMEM);
         create_empty_acl(&none);
       }},
      {"acl != NULL", "Null ACL ", [&] { add_ace_to_acl(nullptr, ACE_TYPE_USER, 1); }},
      {"acl != NULL", "Null ACL ", [&] { add_ace_mask(nullptr, ACE_TYPE_USER, 1, 1); }},
      {"found == 1", "", [&] { add_ace_mask(acl_, ACE_TYPE_USER, 1, 1); }},
      {"0", "Invalid trustee type 3",
       [&] {
         add_ace_to_acl(acl_, ACE_TYPE_ALL, 0);
         beacl_s* stored = nullptr;
         uint32_t size = 0;
         ACL_2_membuf(acl_, &stored, &size);
       }},
      {"0", "Invalid trustee type 3", [&] { membuf_2_ACL(&odd.head, 0, 0, &none); }},
  };
  for (const Misuse& misuse : misuses) {
    const Outcome outcome = in_child([&] {
      std::signal(SIGABRT, [](int) {
        for (const auto& text : messages()) std::fprintf(stderr, "<%s>\n", text.c_str());
      });
      misuse.call();
    });
    EXPECT_TRUE(outcome.aborted_with(misuse.condition)) << misuse.condition << "\n" << outcome.err;
    EXPECT_NE(std::string::npos, outcome.err.find(misuse.message)) << outcome.err;
  }
}

TEST_F(Acl, NeedsAnEmptyContainerToComeBack) {
  beacl_s stored{ACLSIG, 0};
  for (tavrix_acl_t** container : {static_cast<tavrix_acl_t**>(nullptr), &acl_}) {
    const Outcome outcome = in_child([&] {
      std::signal(SIGABRT, [](int) { std::fprintf(stderr, "<%s>\n", messages().back().c_str()); });
      membuf_2_ACL(&stored, 0, 0, container);
    });
    EXPECT_EQ(SIGABRT, outcome.signal);
    const char* expected =
        container == nullptr ? "<Empty tavrix_acl container>" : "<non empty tavrix_acl_t >";
    EXPECT_NE(std::string::npos, outcome.err.find(expected)) << outcome.err;
  }
}

TEST_F(Acl, OfNothingIsFreedSilently) {
  free_ACL(nullptr);
  free_tavrix_acl(nullptr);
}

std::string printed(const std::function<void()>& print) {
  testing::internal::CaptureStdout();
  print();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST_F(Acl, IsPrinted) {
  add_ace_to_acl(acl_, ACE_TYPE_GROUP, 7);
  add_ace_mask(acl_, ACE_TYPE_GROUP, 7, 15);
  const std::string text = printed([this] { print_acl(acl_); });
  EXPECT_TRUE(text.starts_with("ACL Version 0 Num ACES 1")) << text;
  EXPECT_NE(std::string::npos,
            text.find("ACE version: 0\nACE Type: Explicit\nACE trustee_type: GROUP\nACE gid: 7\n"
                      "ACE perm mask: RDWRDEL\nACE perm mask: NAVIGATE\nACE Container ACL "))
      << text;
}

TEST_F(Acl, IsPrintedWithTheNamesOfItsMasks) {
  const std::pair<uint32_t, const char*> rows[] = {
      {7, "RDWRDEL"},      {3, "RDWR"},   {1, "RDONLY"},   {5, "RDONLY"},
      {16, "VIEWER_ONLY"}, {0, "NOPERM"}, {8, "NAVIGATE"}, {19, "RDWR"}};
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  for (const auto& [mask, name] : rows) {
    add_ace_mask(acl_, ACE_TYPE_USER, 1, mask);
    const std::string text = printed([this] { print_acl(acl_); });
    EXPECT_NE(std::string::npos, text.find(std::string("ACE perm mask: ") + name + "\n")) << mask;
    EXPECT_EQ(text.find("perm mask"), text.rfind("perm mask")) << mask;
  }
}

TEST_F(Acl, IsPrintedInItsStoredForm) {
  struct {
    beacl_s head{ACLSIG, 1};
    beace_s ace{2, 42, 0x1f, 0};
  } stored;
  const std::string text = printed([&] { print_bacl(&stored.head); });
  EXPECT_NE(std::string::npos, text.find("Acl numaces 1")) << text;
  EXPECT_NE(std::string::npos, text.find("Ace Type: 2 id 42 maks 1f")) << text;
  EXPECT_NE(std::string::npos, printed([] { print_bacl(nullptr); }).find("Null ACL"));
}

// --- lists ---------------------------------------------------------------------------------------

TEST(OnewayList, IsLinkedAtItsHead) {
  oneway_list_head_s head{};
  oneway_list_elem_s one{}, two{};
  EXPECT_EQ(TXLIST_ERR_OK, oneway_list_insert_head(&head, &one));
  EXPECT_EQ(TXLIST_ERR_OK, oneway_list_insert_head(&head, &two));
  EXPECT_EQ(&two, head.first_elem);
  EXPECT_EQ(&one, two.next_elem);
  EXPECT_EQ(&two.next_elem, one.ptr2prev);
  EXPECT_EQ(TXLIST_ERR_OK, oneway_list_remove(&two));
  EXPECT_EQ(&head.first_elem, one.ptr2prev);
}

TEST(OnewayList, RefusesWhatItCannotDo) {
  oneway_list_head_s head{};
  oneway_list_elem_s one{};
  oneway_list_elem_s* out = nullptr;
  EXPECT_EQ(TXLIST_ERR_NULL_HEAD, oneway_list_insert_head(nullptr, &one));
  EXPECT_EQ(TXLIST_ERR_NULLELEM, oneway_list_insert_head(&head, nullptr));
  EXPECT_EQ(TXLIST_ERR_NULLELEM, oneway_list_remove(nullptr));
  EXPECT_EQ(TXLIST_ERR_UNITIALIZED_ELEM, oneway_list_remove(&one));
  EXPECT_EQ(TXLIST_ERR_LIST_EMPTY, oneway_list_pop_head(&head, &out));
  EXPECT_EQ(TXLIST_ERR_NULL_HEAD, oneway_list_pop_head(nullptr, &out));
}

}  // namespace
}  // namespace tavrix::test
