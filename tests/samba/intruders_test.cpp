// SPDX-License-Identifier: LGPL-3.0-or-later
// Clients that try only forbidden things, briefly and with fixed seeds. The storm runs them too.

#include "tests/samba/intruders.hpp"

#include <memory>

namespace tavrix::test {
namespace {

class Intruders : public Appliance {
 protected:
  static constexpr int kTries = 150;

  void SetUp() override {
    Appliance::SetUp();
    write_file("/scratch/data.txt", "some data\n");
    publish_map(map_with_vault());
    make_vault();
    let_guests_in();
    start_smbd();
  }
  static void intrude_all(unsigned seed) {
    std::vector<std::unique_ptr<Child>> clients;
    for (const Intruder& intruder : intruders()) {
      clients.push_back(std::make_unique<Child>([&] { intrude(intruder, seed, kTries); }));
    }
    for (auto& client : clients) EXPECT_TRUE(client->wait().ok());
    EXPECT_EQ("", trouble_of_smbd());
  }
};

TEST_F(Intruders, ChangeNothing) {
  const auto before = vault_snapshot();
  intrude_all(1);
  expect_same_vault(before);
  for (const std::string& line : event_lines()) EXPECT_FALSE(is_of_the_vault(line)) << line;
}

TEST_F(Intruders, AreToldNoNameThatIsHiddenFromThem) {
  Child worker([] {
    for (int i = 0; !exists("/scratch/stop"); ++i) {
      smb(kAdministrator, "cd Shared\\Team\\Secret; put /scratch/data.txt hidden" +
                              std::to_string(i % 7) + "; rm hidden" + std::to_string(i % 7));
    }
  });
  intrude_all(2);
  write_file("/scratch/stop", "");
  EXPECT_TRUE(worker.wait().ok());
  EXPECT_EQ(Lines{}, told_in_spite_of_the_map());
}

}  // namespace
}  // namespace tavrix::test
