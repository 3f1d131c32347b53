// SPDX-License-Identifier: LGPL-3.0-or-later
// The data file into the image: whole documents, compared with images built apart.

#include <gtest/gtest.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "mkperms_shm.h"
#include "permissions/map/image.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/importer.hpp"

namespace tavrix::test {
namespace {

class DataPass : public Importer {};

Folder team_map() {
  const Folder projects{.name = "Projects", .users = {{1001, 7}, {1002, 3}}, .groups = {{2001, 1}}};
  const Folder shared{.name = "Shared", .groups = {{2001, 8}}, .children = {projects}};
  return {.name = "/",
          .users = {{1, 1}},
          .groups = {{2, 3}},
          .children = {shared, {.name = "Private"}}};
}

TEST_F(DataPass, MakesTheImageOfItsDocument) {
  EXPECT_EQ(build_image(team_map()), import(team_map()));
}

TEST_F(DataPass, MakesTheImageOfARootAlone) {
  const Folder root{.name = "/"};
  const auto image = import(root);
  EXPECT_EQ(build_image(root), image);
  const ImageView view(image.data());
  EXPECT_EQ(3U, view.fselem(0).flags);
  EXPECT_EQ(0xFFFFFFFEU, view.fselem(0).parent_offset);
}

TEST_F(DataPass, MakesTheImagesOfRandomTrees) {
  for (uint32_t seed = 100; seed < 112; ++seed) {
    const Folder tree = random_tree(seed, 300, Bytes::kUtf8);
    ASSERT_EQ(build_image(tree), import(tree)) << "seed " << seed;
  }
}

TEST_F(DataPass, MakesTheImageOfADeepTree) {
  Folder tree{.name = "bottom"};
  for (int i = 0; i < 2000; ++i) tree = {.name = "d" + std::to_string(i), .children = {tree}};
  tree.name = "/";
  EXPECT_EQ(build_image(tree), import(tree));
}

TEST_F(DataPass, TakesMembersInAnyOrder) {
  const std::string reordered = R"([{"NUMCHILDREN":1},{"CHILDREN":[{"NUMCHILDREN":0}],
      "ACL":[{"NUMUSERS":9},{"NUMGROUPS":9},{"USERS":{"5":7}},{"GROUPS":{}}], "DIR":"/"}])";
  const Folder root{.name = "/", .users = {{5, 7}}};
  EXPECT_EQ(build_image(root), import_text(count(root), reordered));
}

TEST_F(DataPass, TakesCommentsAndOddNumbers) {
  const std::string text = R"([{"NUMCHILDREN":1.5},/* root */{"DIR":"/",
      "ACL":[{"NUMUSERS":1},{"NUMGROUPS":0},{"USERS":{"007x":65543}},{"GROUPS":{}}],
      "CHILDREN":[{"NUMCHILDREN":0}]}])";
  const Folder root{.name = "/", .users = {{7, 7}}};
  EXPECT_EQ(build_image(root), import_text(count(root), text));
}

TEST_F(DataPass, TakesAnIdOfLettersForZero) {
  const Folder root{.name = "/", .users = {{0, 7}}, .groups = {{4294967295U, 1}}};
  const std::string text = R"([{"NUMCHILDREN":1},{"DIR":"/",
      "ACL":[{"NUMUSERS":1},{"NUMGROUPS":0},{"USERS":{"anna":7}},{"GROUPS":{"-1":1}}],
      "CHILDREN":[{"NUMCHILDREN":0}]}])";
  EXPECT_EQ(build_image(root), import_text(count(root), text));
}

TEST_F(DataPass, KeepsTwoEntriesOfOneId) {
  const Folder root{.name = "/", .users = {{5, 7}, {5, 1}}};
  EXPECT_EQ(build_image(root), import(root));
}

TEST_F(DataPass, LeavesOutWhatTheDocumentLeavesOut) {
  const Counts counts{1, 0, 2};
  const auto image = import_text(counts, R"([{"NUMCHILDREN":1},{"CHILDREN":[{"NUMCHILDREN":0}]}])");
  const ImageView view(image.data());
  EXPECT_EQ(0U, view.header().next_free_nameelem);
  EXPECT_EQ(0U, view.header().next_free_acl);
  EXPECT_EQ(3U, view.fselem(0).flags);
}

TEST_F(DataPass, MarksALeafByItsCount) {
  const auto image = import(team_map());
  const ImageView view(image.data());
  EXPECT_EQ(0U, view.fselem(24).flags);
  EXPECT_EQ(2U, view.fselem(48).flags);
  EXPECT_EQ(0U, view.fselem(48).clist_offset);
}

TEST_F(DataPass, TakesASecondTopFolderForAChildOfTheRoot) {
  const std::string folder = R"("CHILDREN":[{"NUMCHILDREN":0}]})";
  const Counts counts{3, 0, 10};
  const auto image = import_text(
      counts, R"([{"NUMCHILDREN":2},{"DIR":"/","CHILDREN":[{"NUMCHILDREN":2},{"DIR":"a",)" +
                  folder + R"(]},{"DIR":"b",)" + folder + "]");
  const ImageView view(image.data());
  const child_list_s& children = view.children_of(view.fselem(0));
  EXPECT_EQ(2U, children.next_index);
  EXPECT_EQ(48U, ImageView::child_at(children, 1));
  EXPECT_EQ("b", ImageView::text_of(view.name_of(view.fselem(48))));
}

// --- documents that cancel -----------------------------------------------------------------------

TEST_F(DataPass, CancelsAtAKeyThatFitsNowhere) {
  const Counts counts{1, 0, 2};
  const auto image = import_text(counts, R"([{"NUMCHILDREN":1},{"DIR":"/","OWNER":5,"ACL":7}])");
  EXPECT_TRUE(logged("Invalid state OWNER state 27 curst 1"));
  EXPECT_EQ("/",
            ImageView::text_of(ImageView(image.data()).name_of(ImageView(image.data()).fselem(0))));
}

TEST_F(DataPass, CancelsAtAnArrayThatFitsNowhere) {
  import_text({1, 0, 2}, R"([{"NUMCHILDREN":[1]}])");
  EXPECT_TRUE(logged("Invalid state 18"));
  import_text({1, 0, 2}, R"([[1]])");
  EXPECT_TRUE(logged("Invalid state 0"));
}

// Only the elements of deep folders are heap blocks.
TEST_F(DataPass, CancelsWithoutMemoryForAFolder) {
  Folder tree{.name = "bottom", .has_acl = false};
  for (std::size_t i = 0; i < kArrayElements / 4 + 20; ++i) {
    tree = {.name = "d", .has_acl = false, .children = {tree}};
  }
  tree.name = "/";
  bool seen = false;
  for (int nth = 1; nth < 60; ++nth) {
    const Outcome outcome = in_child([&] {
      prepare(count(tree), data_json(tree));
      fail_call("malloc", ENOMEM, nth);
      run();
      if (logged("Error creating fselem ")) _exit(7);
    });
    seen |= outcome.exit_code == 7;
    EXPECT_TRUE(outcome.ok() || outcome.exit_code == 7 || outcome.signal == SIGABRT)
        << nth << outcome.out << outcome.err;
  }
  EXPECT_TRUE(seen);
}

TEST_F(DataPass, FreesEverythingWhateverComes) {
  const Counts counts = count(team_map());
  prepare(counts, data_json(team_map()));
  run();  // makes what is allocated once
  for (const char* text :
       {"[{\"NUMCHILDREN\":1},{\"DIR\":\"/\",\"ACL\":[{\"NUMUSERS\":1},{\"NUMGROUPS\":1},"
        "{\"USERS\":{\"5\":1,\"6\":2",
        "[{\"NUMCHILDREN\":1},{\"DIR\":\"/\",\"x\":1", "[", "{", ""}) {
    const Outcome outcome = in_child([&] {
      prepare(counts, text);
      const long blocks = live_allocations();
      run();
      EXPECT_EQ(blocks, live_allocations()) << text;
    });
    EXPECT_TRUE(outcome.ok() || outcome.signal == SIGABRT) << text << outcome.out;
  }
}

// --- documents that end the process --------------------------------------------------------------

struct Broken {
  const char* condition;
  const char* text;
};

TEST_F(DataPass, AbortsOnABrokenGrammar) {
  const Broken documents[] = {
      {"stelem != NULL", R"({"NUMCHILDREN":1})"},
      {"curstate == PERMDATA_STATE_STCHILDMAP", R"([{"DIR":"x"}])"},
      {"curstate == PERMDATA_STATE_STCHILDMAP", R"([{"ACL":[]}])"},
      {"curstate == PERMDATA_STATE_STCHILDMAP", R"([{"CHILDREN":[]}])"},
      {"curstate == PERMDATA_STATE_STNUMCHILDRENMAP", R"([{"NUMCHILDREN":1},{"NUMCHILDREN":1}])"},
      {"curstate == PERMDATA_STATE_STNUMUSERMAP", R"([{"NUMUSERS":1}])"},
      {"curstate == PERMDATA_STATE_STNUMGROUPMAP", R"([{"NUMGROUPS":1}])"},
      {"curstate == PERMDATA_STATE_STUSERMAP", R"([{"USERS":1}])"},
      {"curstate == PERMDATA_STATE_STGROUPMAP", R"([{"GROUPS":1}])"},
      // The groups come before the users.
      {"curstate == PERMDATA_STATE_STGROUPMAP",
       R"([{"NUMCHILDREN":1},{"ACL":[{"NUMUSERS":0},{"NUMGROUPS":0},{"GROUPS":{}},{"USERS":{}}]}])"},
      {"stelem->state == PERMDATA_STATE_NAME", R"([{"NUMCHILDREN":"1"}])"},
      {"0", R"([{"NUMCHILDREN":1},{"DIR":5}])"},
      {"name != NULL && len > 0", R"([{"NUMCHILDREN":1},{"DIR":""}])"},
      {"fselem->name_elem_offset == 0",
       R"([{"NUMCHILDREN":1},{"DIR":"/","CHILDREN":[{"NUMCHILDREN":1},{"DIR":"a","DIR":"b"}]}])"},
      {"0", "[]"},
      {"0", R"([{"NUMCHILDREN":1},{"ACL":[]}])"},
      {"0", R"([{"NUMCHILDREN":1},{"CHILDREN":[]}])"},
      {"0", R"([{"NUMCHILDREN":1},{"DIR":{}}])"},
      {"0", R"([{"NUMCHILDREN":1},{"ACL":[{"NUMUSERS":0},{"NUMGROUPS":0}]}])"},
      {"0", R"([1])"},
      {"curstate == PERMDATA_STATE_ENDNUMCHILDRENMAP", nullptr},
      // A folder after a count of 0 has no place for its name.
      {"stelem->stetype == STELEM_TYPE_FSELEM",
       R"([{"NUMCHILDREN":1},{"DIR":"/","CHILDREN":[{"NUMCHILDREN":0},{"DIR":"a"}]}])"},
  };
  for (const Broken& document : documents) {
    if (document.text == nullptr) continue;
    const Outcome outcome = in_child([&] { import_text({4, 4, 60}, document.text); });
    EXPECT_TRUE(outcome.aborted_with(document.condition)) << document.text << "\n"
                                                          << outcome.signal << outcome.err;
  }
}

TEST_F(DataPass, ToleratesAnObjectInAnOddPlace) {
  import_text({1, 0, 2}, R"([{"NUMCHILDREN":1},{"DIR":"/","ACL":[{"NUMUSERS":0},{"NUMGROUPS":0},
      {"USERS":{}},{"GROUPS":{}}],"CHILDREN":[{"NUMCHILDREN":0}]}])");
  EXPECT_FALSE(logged("Invalid state state 0"));
}

TEST_F(DataPass, EndsTheProcessBeforeItLeavesTheImage) {
  const Outcome outcome = in_child([] {
    import_text({1, 0, 2}, R"([{"NUMCHILDREN":4000000000},{"DIR":"/"}])");
  });
  EXPECT_TRUE(outcome.aborted_with("record lies inside the image")) << outcome.err;
}

// --- every event in every state ------------------------------------------------------------------

// The effect of an event on a stack with one element of that state on top, written independently.
enum class Answer { kPush, kNothing, kCancel, kAbort, kOther };

Answer start_of_array_in(int state) {
  return state == 17 || state == 23 ? Answer::kPush : Answer::kCancel;
}
Answer start_of_object_in(int state) {
  switch (state) {
    case 0:
    case 2:
    case 4:
    case 8:
    case 10:
    case 22:
    case 25:
      return Answer::kPush;
    case 16:
      return Answer::kOther;
    default:
      return Answer::kNothing;
  }
}
Answer end_of_object_in(int state) {
  switch (state) {
    case 3:
    case 7:
    case 9:
      return Answer::kPush;
    case 0:
    case 2:
    case 4:
    case 6:
    case 8:
    case 10:
    case 12:
    case 14:
      return Answer::kNothing;
    case 15:
      return Answer::kOther;  // swaps the element
    default:
      return Answer::kAbort;  // 1, 5, 11 and 13 miss the element below them
  }
}

class EveryState : public DataPass {
 protected:
  // The stack's growth, or the way the event ended.
  static Answer answer_of(int state, int (*event)(void*)) {
    const Outcome outcome = in_child([&] {
      prepare({2, 0, 10}, "[");
      run();
      memsummary_s& sum = *summary();
      if (push_stackelem_wstatedata(&sum, state, 0, nullptr, STELEM_TYPE_INVALID) != 0) _exit(60);
      clear_log();
      const unsigned before = sum.sth.totalelems;
      if (event(nullptr) == 0) _exit(50);
      _exit(static_cast<int>(sum.sth.totalelems - before) == 1 ? 51 : 52);
    });
    if (outcome.signal == SIGABRT) return Answer::kAbort;
    switch (outcome.exit_code) {
      case 50:
        return Answer::kCancel;
      case 51:
        return Answer::kPush;
      case 52:
        return Answer::kNothing;
      default:
        return Answer::kOther;
    }
  }
};

TEST_F(EveryState, AnswersTheStartOfAnArray) {
  for (int state = 0; state <= 27; ++state) {
    EXPECT_EQ(start_of_array_in(state), answer_of(state, readperm_start_array)) << state;
  }
}

TEST_F(EveryState, AnswersTheStartOfAnObject) {
  for (int state = 0; state <= 27; ++state) {
    const Answer expected = start_of_object_in(state);
    if (expected == Answer::kOther) continue;
    EXPECT_EQ(expected, answer_of(state, readperm_start_map)) << state;
  }
}

TEST_F(EveryState, AnswersTheEndOfAnObject) {
  for (int state = 0; state <= 27; ++state) {
    const Answer expected = end_of_object_in(state);
    if (expected == Answer::kOther) continue;
    EXPECT_EQ(expected, answer_of(state, readperm_end_map)) << state;
  }
}

TEST_F(EveryState, AnswersTheEndOfAnArray) {
  for (int state = 0; state <= 27; ++state) {
    if (state == 16) continue;  // looks at the element below
    EXPECT_EQ(Answer::kAbort, answer_of(state, readperm_end_array)) << state;
  }
}

TEST_F(EveryState, AnswersAText) {
  const auto text = [](void* context) {
    return readperm_string(context, reinterpret_cast<const unsigned char*>("x"), 1);
  };
  for (int state = 0; state <= 27; ++state) {
    EXPECT_EQ(Answer::kAbort, answer_of(state, text)) << state;  // 21 carries no folder here
  }
}

TEST_F(EveryState, AnswersAnUnknownKey) {
  const auto key = [](void* context) {
    return readperm_map_key(context, reinterpret_cast<const unsigned char*>("x"), 1);
  };
  for (int state = 0; state <= 27; ++state) {
    const bool is_ids = state == 11 || state == 13;  // no ACL to add to here
    EXPECT_EQ(is_ids ? Answer::kAbort : Answer::kCancel, answer_of(state, key)) << state;
  }
}

TEST_F(EveryState, AnswersANumber) {
  const auto number = [](void* context) { return readperm_number(context, "1", 1); };
  for (int state = 0; state <= 27; ++state) {
    const bool is_ignored = state == 19 || state == 20;
    EXPECT_EQ(is_ignored ? Answer::kNothing : Answer::kAbort, answer_of(state, number)) << state;
  }
}

}  // namespace
}  // namespace tavrix::test
