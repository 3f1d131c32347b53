// SPDX-License-Identifier: LGPL-3.0-or-later
// The instruments of scripts/bench-samba.sh.

#include "tests/samba/appliance.hpp"

namespace tavrix::test {
namespace {

class Measurements : public Appliance {
 protected:
  // Runs Python that may use scripts/lib/smb_session.py.
  static Outcome measure(const std::string& script) {
    return run_program({"/usr/bin/python3", "-c", script}, {},
                       {{"PYTHONPATH", TAVRIX_SOURCE_DIR "/scripts/lib"}});
  }
};

TEST_F(Measurements, HaveAllOfALongProcessorTime) {
  const Outcome outcome = measure(
      "import os, time, smb_session\n"
      "while time.process_time() < 2.3: pass\n"
      "print(smb_session.cpu_of(os.getpid()))\n");
  ASSERT_TRUE(outcome.ok()) << outcome.err;
  EXPECT_GE(std::stoll(outcome.out), 2'300'000'000) << "not cut at 2,147,483,647";
}

TEST_F(Measurements, AreOfTheProcessThatServesTheClient) {
  start_smbd();
  const Client other("Ben");
  std::set<pid_t> all;
  for (const pid_t process : Client::servers()) all.insert(process);
  const Outcome outcome = measure(
      "import smb_session\n"
      "with smb_session.Session('Anna') as first, smb_session.Session('Anna') as second:\n"
      "    print(first.server, second.server)\n");
  ASSERT_TRUE(outcome.ok()) << outcome.err;
  std::istringstream in(outcome.out);
  for (pid_t process = 0; in >> process;) all.insert(process);
  EXPECT_EQ(3U, all.size()) << "three clients, three processes";
}

TEST_F(Measurements, EndWhenTheClientIsNotLetIn) {
  start_smbd();
  const Outcome outcome = measure("import smb_session; smb_session.Session('nobody')\n");
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_NE(std::string::npos, outcome.err.find("NT_STATUS_LOGON_FAILURE")) << outcome.err;
}

TEST_F(Measurements, EndWhenTheServerRefusesACommand) {
  start_smbd();
  const Outcome outcome = measure(
      "import smb_session\n"
      "smb_session.Session('Ben').say(['mkdir Shared/Team/New', 'ls'])\n");
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_NE(std::string::npos, outcome.err.find("NT_STATUS_ACCESS_DENIED")) << outcome.err;
}

}  // namespace
}  // namespace tavrix::test
