// SPDX-License-Identifier: LGPL-3.0-or-later
// A damaged table: a reader answers, or ends with an assertion; it never reads beside the segment.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstring>

#include "mkperms_shm.h"
#include "perm_map.h"
#include "permissions/map/image_lookup.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

class Damage : public Share {
 protected:
  // Three levels, names of several lengths, folders with and without entries and children.
  static Folder small_map() {
    const Folder deep{.name = "Deep", .users = {{kAnna.uid, 7}}};
    const Folder docs{.name = "Docs", .children = {deep, {.name = "ab"}}};
    const Folder team{.name = "Team", .groups = {{kWriters, 3}, {kReaders, 1}}, .children = {docs}};
    return {.name = "/",
            .groups = {{kPeople, 1}},
            .children = {{.name = "Shared", .children = {team}}}};
  }
  // Both ACLs of a few paths of the current table, twice: with hints and absences the second time.
  static void look_at_everything() {
    void* map = get_perm_map_addr();
    for (const char* path : {"Shared/Team/Docs/Deep", "Shared/Team/Docs/missing", "Shared/Team",
                             "other/x", "Shared/Team/Docs/Deep/file", "Shared/Team/Docs/ab"}) {
      for (int round = 0; round < 2; ++round) {
        AclPtr self;
        AclPtr parent;
        ASSERT_EQ(0, governing_acls(map, path, self, parent));
        tavrix_acl_t* acl = nullptr;
        get_tavrix_acl(map, path, &acl);
        const AclPtr owner(acl);
      }
    }
    put_perm_map_addr(map);
  }
  // Looks as a child: an answer, or the end by an assertion.
  static void expect_answer_or_assertion(const std::string& damage) {
    const pid_t child = fork();
    if (child == 0) {
      signal(SIGALRM, SIG_DFL);
      alarm(20);
      const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
      dup2(nowhere, STDERR_FILENO);
      look_at_everything();
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    EXPECT_TRUE(signal == 0 || signal == SIGABRT) << damage << ": signal " << signal;
  }
  // The bytes of the current table, to be damaged in place.
  static std::byte* table() {
    const int key = get_current_perm_table_index() == 0 ? 0x70657269 : 0x7065726a;
    return static_cast<std::byte*>(shmat(shmget(key, 0, 0), nullptr, 0));
  }
};

TEST_F(Damage, OfAnyBitEndsInAnAnswerOrAnAssertion) {
  const auto image = build_image(small_map());
  publish(image);
  std::byte* bytes = table();
  for (std::size_t at = 0; at < image.size(); ++at) {
    if (at < offsetof(tavrix_be_header, total_fselems) && at % 16 != 0) continue;  // names, times
    for (int bit = 0; bit < 8; ++bit) {
      bytes[at] ^= static_cast<std::byte>(1 << bit);
      expect_answer_or_assertion("byte " + std::to_string(at) + " bit " + std::to_string(bit));
      bytes[at] = image[at];
    }
  }
  shmdt(bytes);
}

TEST_F(Damage, OfARegionsPlaceIsNamed) {
  const auto image = build_image(small_map());
  for (const std::size_t field :
       {offsetof(tavrix_be_header, fselem_offset), offsetof(tavrix_be_header, nameelem_offset),
        offsetof(tavrix_be_header, acl_offset), offsetof(tavrix_be_header, list_offset)}) {
    auto damaged = image;
    const uint32_t far = 0x80000000U;
    std::memcpy(damaged.data() + field, &far, sizeof far);
    publish(damaged);
    EXPECT_TRUE(in_child(look_at_everything).aborted_with("region lies inside the image")) << field;
  }
}

TEST_F(Damage, OfARecordsPlaceIsNamed) {
  auto image = build_image(small_map());
  const auto* header = reinterpret_cast<const tavrix_be_header*>(image.data());
  auto* root = reinterpret_cast<fs_elem_s*>(image.data() + header->fselem_offset);
  root->name_elem_offset = 0x7FFFFFFF;
  publish(image);
  EXPECT_TRUE(in_child(look_at_everything).aborted_with("record lies inside the image"));
}

}  // namespace
}  // namespace tavrix::test
