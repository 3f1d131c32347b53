// SPDX-License-Identifier: LGPL-3.0-or-later
// The logs of an ordinary session at the level that is shipped.

#include <syslog.h>
#include <memory>
#include <regex>

#include "tests/samba/appliance.hpp"
#include "tests/support/system_log.hpp"

namespace tavrix::test {
namespace {

class Logs : public Appliance {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    write_file("/scratch/data.txt", "some data\n");
    write_file("/etc/tavrix/exception_patterns",
               read_file(TAVRIX_SOURCE_DIR "/packaging/exception_patterns"));
    std::strcpy(global_params[PARAM_REGEX_FILE_NAME].value.strval,
                "/etc/tavrix/exception_patterns");
    global_params[PARAM_CHECK_REGEX_UNLINK].value.intval = 1;
    log_ = std::make_unique<SystemLog>();
    set_debug_level(0);
    share_settings();
    set_debug_level(-1);
    start_smbd();
    log_->take();
    before_ = smbd_log();
  }
  // The messages of one connection, from its begin to its end, with these commands in the team's
  // folder.
  Lines messages_of(const Caller& caller, const std::string& commands) {
    smb(caller, "cd Shared\\Team; " + commands);
    while (!Client::servers().empty()) usleep(10000);
    Lines texts;
    for (const SystemLine& line : log_->take()) {
      EXPECT_EQ(LOG_INFO, LOG_PRI(line.priority)) << line.message;
      EXPECT_EQ("smbd", line.program);
      texts.push_back(line.message);
    }
    return texts;
  }
  static bool is(const std::string& text, const std::string& pattern) {
    return std::regex_match(text, std::regex(pattern));
  }
  // The server's log without the group list, which the library's reader prints on standard error.
  std::string new_in_smbd_log() {
    static const std::regex kGroups(
        "New gid list begins for user .* = 0x[0-9a-f]+|"
        "(gid\\[\\d+\\] = \\d+\t)+|End of Gid List|");
    std::istringstream in(smbd_log().substr(before_.size()));
    std::string text;
    for (std::string line; std::getline(in, line);) {
      if (!std::regex_match(line, kGroups)) text += line + "\n";
    }
    return text;
  }

 private:
  std::unique_ptr<SystemLog> log_;
  std::string before_;
};

TEST_F(Logs, OfAConnectionThatOnlyLooksHaveOneLine) {
  for (const Caller& caller : {kAdministrator, kAnna, kBen, kOlga, kStandardUser}) {
    const Lines said = messages_of(
        caller, "ls; du; volume; allinfo report.txt; get report.txt /scratch/got." + caller.name);
    EXPECT_EQ((Lines{"audit is disabled"}), said) << caller.name;
  }
  EXPECT_EQ("", new_in_smbd_log());
}

TEST_F(Logs, OfASessionThatChangesHaveALineForEachEventCloseAndDeletion) {
  const Lines said = messages_of(
      kAnna, "put /scratch/data.txt a; rename a b; rm b; mkdir C; rmdir C; setmode report.txt +r");
  Lines others;
  std::size_t events = 0;
  for (const std::string& text : said) {
    const bool is_event = is(
        text, "pop_vfs_event: Time stamp=\\d+\\(secs\\) \\d+\\(msecs\\) uid=1005 path=/tavrix/.*");
    if (is_event) ++events;
    if (!is_event) others.push_back(text);
  }
  EXPECT_EQ(new_events().size(), events);
  const Lines patterns{"audit is disabled",
                       "close_preprocess\\(\\d+\\):VFS event close /tavrix/.*/a was modified ",
                       "unlink_postprocess\\(\\d+\\):wrote VFS event unlink /tavrix/.*/b",
                       "rmdir_postprocess\\(\\d+\\):wrote VFS event rmdir  /tavrix/.*/C"};
  ASSERT_EQ(patterns.size(), others.size());
  for (std::size_t i = 0; i < patterns.size(); ++i) {
    EXPECT_TRUE(is(others[i], patterns[i])) << others[i];
  }
  EXPECT_EQ("", new_in_smbd_log());
}

TEST_F(Logs, OfRefusalsHaveALineForEachRequest) {
  const Lines said =
      messages_of(kBen, "put /scratch/data.txt a; rm report.txt; mkdir C; ls; cd Nowhere");
  for (const std::string& text : said) {
    EXPECT_TRUE(text == "audit is disabled" ||
                text.starts_with("create_file_preprocess:PERM DENIED path=/tavrix/Shared/Team/") ||
                text.starts_with("create_dir_preprocess: PERMISSION DENIED for directory path="))
        << text;
  }
  EXPECT_GT(said.size(), 2U);
  EXPECT_EQ("", new_in_smbd_log());
}

// The log filter of the manual drops the ordinary lines and keeps the errors.
TEST_F(Logs, TheFilterOfTheManualLeavesErrorsOnly) {
  const std::string guide = read_file(TAVRIX_SOURCE_DIR "/docs/troubleshooting.md");
  std::smatch filter;
  ASSERT_TRUE(std::regex_search(guide, filter, std::regex("--grep='([^']*)'")));
  write_file("/scratch/filter", filter[1].str() + "\n");
  Lines said = messages_of(kAnna, "put /scratch/data.txt a; rm a; mkdir C; rmdir C");
  for (const std::string& text : messages_of(kBen, "put /scratch/data.txt a; mkdir C")) {
    said.push_back(text);
  }
  std::string all;
  for (const std::string& text : said) all += "file.cpp:12(function) " + text + "\n";
  EXPECT_EQ("", run_program({"grep", "-P", "-f", "/scratch/filter"}, all).out);
  const std::string error = "file.cpp:12(f) Failed to get eventstore semaphore, retrying\n";
  EXPECT_EQ(error, run_program({"grep", "-P", "-f", "/scratch/filter"}, error).out);
}

}  // namespace
}  // namespace tavrix::test
