// SPDX-License-Identifier: LGPL-3.0-or-later
// Attempts to get round the rules: other spellings of hidden names, handles of other users, and
// information that the server gives out apart from files.

#include "tests/samba/matrix/account.hpp"
#include "tests/samba/matrix/judge.hpp"
#include "tests/samba/matrix/world.hpp"

namespace tavrix::test {
namespace {

const std::vector<const Caller*> kOutsiders{&kBen, &kVera, &kNina, &kStan, &kStandardUser, &kGuest};

class Attacks : public MatrixWorld {
 protected:
  // Runs the steps as the caller; they must change nothing and show no hidden name.
  Json try_as(const Caller& caller, const Json& steps) {
    Account account{
        .caller = &caller, .map = &map_, .request = {{"as", caller.name}, {"steps", steps}}};
    account.before = Disk::now(kShareRoot);
    account.answer = robot().run(account.request);
    account.after = Disk::now(kShareRoot);
    account.events = take_events();
    for (const std::string& complaint : complaints_about(account)) {
      ADD_FAILURE() << caller.name << ": " << complaint << "\n" << account.request.dump();
    }
    EXPECT_TRUE(changes_between(account.before, account.after).empty()) << account.request.dump();
    return account.answer;
  }
  static Json open(const std::string& name, uint32_t access = 0x120089) {
    return {{"do", "create"}, {"name", name}, {"access", access}};
  }
  // Adds more fields to the step.
  static Json with(Json step, const Json& more) {
    step.update(more);
    return step;
  }

 private:
  Folder map_ = matrix_map();
};

class Spellings : public Attacks, public testing::WithParamInterface<const char*> {
 protected:
  Lines options() override { return {std::string("case sensitive = ") + GetParam()}; }
};

// Requests for a hidden file and a hidden folder.
const std::vector<std::string> kSpellings{
    "Shared\\Team\\Secret\\hidden.txt",
    "Shared\\Team\\Docs\\..\\Secret\\hidden.txt",
    "Shared\\Team\\file.txt\\..\\Secret\\hidden.txt",
    "Shared/Team/Secret/hidden.txt",
    "Shared\\\\Team\\\\Secret\\\\hidden.txt",
    "Shared\\Team\\.\\Secret\\hidden.txt",
    "Shared\\Team\\Secret.\\hidden.txt",
    "Shared\\Team\\Secret \\hidden.txt ",
    "Shared\\Team\\Secret\\hidden.txt.",
    "SHARED\\TEAM\\SECRET\\HIDDEN.TXT",
    "shared\\team\\secret\\hidden.txt",
    "Shared\\Team\\SECRET~1\\HIDDEN~1.TXT",
    "Shared\\Team\\Secret\\hidden.txt::$DATA",
    "Shared\\Team\\Secret::$INDEX_ALLOCATION\\hidden.txt",
    "Shared\\Team\\Secret:$I30:$INDEX_ALLOCATION",
    "@GMT-2020.01.01-00.00.00\\Shared\\Team\\Secret\\hidden.txt",
    "Shared\\Team\\Secret\\@GMT-2020.01.01-00.00.00\\hidden.txt",
    "tavrix\\Shared\\Team\\Secret\\hidden.txt",
    "127.0.0.1\\tavrix\\Shared\\Team\\Secret\\hidden.txt",
    "Shared\\Team\\secret.lnk\\hidden.txt",
    "Shared\\Team\\Docs\\peek.lnk",
    "Shared\\Team\\x.sb-y\\..\\Secret\\hidden.txt",
    ".DS_Store\\..\\Shared\\Team\\Secret\\hidden.txt",
    "..\\tavrix\\Shared\\Team\\Secret\\hidden.txt",
    "Shared\\..\\Private\\olga\\diary.txt",
    "private\\olga\\diary.txt",
    "PRIVATE\\OLGA\\DIARY.TXT",
    "Shared\\Team\\..\\..\\.conf\\staging",
    ".conf\\staging",
    ".CONF\\STAGING",
    "top.txt",
    "Shared\\stray.txt",
    "hex:53006800610072006500640000d8",
};

TEST_P(Spellings, OfOtherNamesReachNothingHidden) {
  for (const Caller* caller : kOutsiders) {
    for (const std::string& name : kSpellings) {
      for (const uint32_t access : {0x120089U, 0x80U, 0x2000000U, 0x12019FU}) {
        const Json answer = try_as(*caller, {open(name, access),
                                             {{"do", "read"}},
                                             {{"do", "list"}},
                                             {{"do", "query"}, {"level", 9}},
                                             {{"do", "write"}},
                                             {{"do", "set"}, {"level", 13}}});
        EXPECT_NE("OK", status_of(answer, 0)) << caller->name << " " << name << " " << access;
      }
    }
  }
}
INSTANTIATE_TEST_SUITE_P(CaseMatters, Spellings, testing::Values("yes", "no"));

TEST_F(Attacks, ADurableHandleIsItsUsers) {
  const Json opened =
      robot().run("Anna", {with(open("Shared\\Team\\file.txt", 0x12019F),
                                {{"oplock", 9}, {"contexts", {{"DHnQ", std::string(32, '0')}}}}),
                           {{"do", "drop"}}});
  ASSERT_EQ("OK", status_of(opened, 0)) << opened.dump();
  const std::string identity = opened["steps"][0]["identity"];
  const Json again = with(open("Shared\\Team\\file.txt", 0x12019F),
                          {{"oplock", 9}, {"contexts", {{"DHnC", identity}}}});
  for (const Caller* caller : kOutsiders) {
    EXPECT_NE("OK", status_of(try_as(*caller, Json::array({again, {{"do", "write"}}})), 0))
        << caller->name;
  }
  EXPECT_NE("OK", status_of(robot().run("Eddy", Json::array({again})), 0))
      << "may write, and is somebody else";
  EXPECT_EQ("OK", status_of(robot().run("Anna", Json::array({again})), 0));
}

TEST_F(Attacks, CreateContextsTellNoHiddenName) {
  for (const Caller* caller : kOutsiders) {
    for (const char* folder : {"", "Shared", "Shared\\Team"}) {
      const Json contexts{
          {"MxAc", ""}, {"QFid", ""}, {"AAPL", "010000000000000007000000000000000000000000000000"}};
      try_as(*caller, {with(open(folder, 0x81), {{"contexts", contexts}}),
                       {{"do", "list"}, {"level", "both ids"}},
                       {{"do", "list"}, {"pattern", "*e*"}},
                       {{"do", "list"}, {"pattern", "S<"}},
                       {{"do", "list"}, {"level", "names"}, {"pattern", "Secret"}}});
    }
  }
}

// A user who may see the hidden folder works there first, and then in a folder that everybody sees.
TEST_F(Attacks, ANoticeTellsNoHiddenName) {
  for (const Caller* caller : {&kBen, &kEddy}) {
    const Json watch{{"do", "create"}, {"on", "w"}, {"name", "Shared\\Team"}, {"access", 0x81}};
    const auto make = [&](const std::string& name) {
      return with(open("Shared\\Team\\" + name + caller->name, 0x12019F),
                  {{"as", "Administrator"}, {"disposition", 2}, {"on", name}});
    };
    const Json answer =
        robot().run(caller->name, {watch,
                                   {{"do", "notify"}, {"on", "w"}, {"filter", 0x17}},
                                   make("Secret\\news"),
                                   {{"do", "close"}, {"on", "Secret\\news"}},
                                   make("seen"),
                                   {{"do", "noticed"}, {"on", "w"}, {"wait", true}}});
    const Json told = answer["steps"].back()["names"];
    EXPECT_EQ(Json::array({"Shared/Team/seen" + caller->name}), told) << answer.dump();
  }
}

TEST_F(Attacks, PipesTellNoOpenFile) {
  Robot holder;
  holder.run("Administrator",
             Json::array({open("Shared\\Team\\Secret\\hidden.txt"), {{"do", "keep"}}}));
  for (const char* user : {"Ben", "Stan", "StandardUser"}) {
    for (const char* question : {"netfileenum", "netsessenum",
                                 "netfilegetsec tavrix \\\\Shared\\\\Team\\\\Secret\\\\hidden.txt",
                                 "netfilegetsec tavrix \\\\Shared"}) {
      const Outcome outcome =
          run_program({"rpcclient", "-s", "/scratch/samba/smb.conf", "127.0.0.1", "-U",
                       std::string(user) + "%" + user, "-c", question});
      const std::string said = outcome.out + outcome.err;
      EXPECT_EQ(std::string::npos, said.find("hidden")) << question << ": " << said;
    }
  }
  EXPECT_EQ(std::string::npos, smbd_log().find("PANIC")) << "no pipe ends the server's process";
}

}  // namespace
}  // namespace tavrix::test
