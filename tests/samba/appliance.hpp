// SPDX-License-Identifier: LGPL-3.0-or-later
// A real smbd with the reference module in a private world with its own network, users, settings,
// map and event store, and real clients.
#pragma once

#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/session.hpp"

namespace tavrix::test {

using Lines = std::vector<std::string>;

class Appliance : public Hooks {
 protected:
  void SetUp() override {
    Hooks::SetUp();
    share_settings();
    ASSERT_EQ(0, unshare(CLONE_NEWNET));
    bash("prepare_samba_world " + module_file());
    configure({});
    for (const Caller& caller : all_callers()) set_password(caller.name);
    set_password("pc7$");
  }
  void TearDown() override { stop_smbd(); }

  // The debug build of the module aborts when a hook returns with another identity.
  static std::string module_name() { return "tavrix_debug"; }
  static std::string module_file() {
    return std::string(TAVRIX_BUILD_DIR) + "/samba/" + module_name() + ".so";
  }
  // Runs shell commands that may use the functions of scripts/lib/samba_world.sh.
  static Outcome run_bash(const std::string& commands) {
    return run_program(
        {"bash", "-euo", "pipefail", "-c",
         "cd " TAVRIX_SOURCE_DIR "; source scripts/lib/samba_world.sh; " + commands});
  }
  static void bash(const std::string& commands) {
    const Outcome outcome = run_bash(commands);
    ASSERT_TRUE(outcome.ok()) << commands << "\n" << outcome.out << outcome.err;
  }
  // Sets options of the share for the next start of smbd.
  static void configure(const Lines& options, const std::string& module = module_name()) {
    std::string words;
    for (const std::string& option : options) words += " '" + option + "'";
    bash("write_smb_conf '" + module + "'" + words);
  }
  static void set_password(const std::string& user) { bash("set_samba_password '" + user + "'"); }
  static void start_smbd() { bash("start_smbd"); }
  static void stop_smbd() { run_bash("stop_smbd"); }
  // Kills smbd and every process that serves a client, by SIGKILL.
  static void kill_smbd() { bash("kill_smbd"); }

  // The second number of the server's version: 17 of 4.17.12.
  static int samba_minor() {
    static const std::string kBefore = "Version 4.";
    return std::stoi(run_program({"smbd", "-V"}).out.substr(kBefore.size()));
  }
  // Servers that follow a link before the module sees its name: removing it removes its target, and
  // writing to it makes a target that was missing.
  static bool follows_links_itself() { return samba_minor() >= 18; }
  // The output of smbclient for commands of that user.
  static std::string smb(const std::string& user, const std::string& commands) {
    const Outcome outcome =
        run_program({"smbclient", "-s", "/scratch/samba/smb.conf", "//127.0.0.1/tavrix", "-U",
                     user + "%" + user, "-c", commands});
    return without_word_about_snapshots(outcome.out + outcome.err);
  }
  static std::string smb(const Caller& caller, const std::string& commands) {
    return smb(caller.name, commands);
  }
  // Some clients say at the end of "allinfo" that the server has no snapshots.
  static std::string without_word_about_snapshots(const std::string& said) {
    std::string text;
    std::istringstream in(said);
    for (std::string line; std::getline(in, line);) {
      if (line.find("getting shadow copy data for") == std::string::npos) text += line + "\n";
    }
    return text;
  }
  // The names in a folder that the user sees.
  static std::set<std::string> listing(const std::string& user, const std::string& folder) {
    std::set<std::string> names;
    std::istringstream in(smb(user, "ls \"" + folder + "\\*\""));
    for (std::string line; std::getline(in, line);) {
      if (!line.starts_with("  ")) continue;
      const std::string name = line.substr(2, line.find_first_of(" ", 2) - 2);
      if (name != "." && name != "..") names.insert(name);
    }
    return names;
  }
  // The events since the last call, in order, with paths below the share.
  Lines new_events() {
    Lines all;
    for (const std::string& line : event_lines()) {
      std::string text;
      std::istringstream words(line);
      for (std::string word; words >> word;) {
        if (word == "FILE" || word == "DIR") continue;
        const std::string share = "/tavrix/";
        text += (text.empty() ? "" : " ") +
                (word.starts_with(share) ? word.substr(share.size()) : word);
      }
      all.push_back(text);
    }
    const Lines fresh(all.begin() + static_cast<std::ptrdiff_t>(told_), all.end());
    told_ = all.size();
    return fresh;
  }
  // Both put the answer into the failure message.
  static testing::AssertionResult denied(const std::string& answer) {
    return testing::AssertionResult(answer.find("NT_STATUS_ACCESS_DENIED") != std::string::npos)
           << answer;
  }
  static testing::AssertionResult succeeded(const std::string& answer) {
    return testing::AssertionResult(answer.find("NT_STATUS_") == std::string::npos) << answer;
  }
  static std::string smbd_log() { return read_file("/scratch/samba/log/smbd.log"); }
  // The lines of the server's log around an unexpected end of a process.
  static std::string trouble_of_smbd() {
    const std::string log = smbd_log();
    for (const char* trouble : {"PANIC", "INTERNAL ERROR", "identity left", "Assertion"}) {
      const std::size_t at = log.find(trouble);
      if (at != std::string::npos) return log.substr(at < 1000 ? 0 : at - 1000, 4000);
    }
    return "";
  }

 private:
  std::size_t told_ = 0;
};

// A connection that stays open while commands are sent one by one.
class Client {
 public:
  explicit Client(const std::string& user);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  // Sends a command and returns its answer.
  std::string say(const std::string& command);
  // The server processes that serve clients.
  static std::vector<pid_t> servers();

 private:
  pid_t pid_ = 0;
  int in_ = -1;
  int out_ = -1;
  int said_ = 0;
  bool send(const std::string& line);
  std::string read_until(const std::string& mark);
};

}  // namespace tavrix::test
