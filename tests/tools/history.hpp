// SPDX-License-Identifier: LGPL-3.0-or-later
// A small history for tests of the commands.
#pragma once

#include <gtest/gtest.h>
#include <string>

#include "tools/history/database.hpp"

namespace tavrix::test {

// Ben (1002) renames a folder twice and deletes a file in it that Anna (1001) made.
inline void write_history(const std::string& file) {
  history::Problem problem;
  const history::Database database = history::open_to_write(file, problem);
  ASSERT_NE(nullptr, database) << problem.sentence;
  const bool is_done = history::execute(
      database.get(),
      "INSERT INTO dumps VALUES (1, 0, 'events.pending_1', 1, 1, 1, x'00', 1, 9, 1, NULL);"
      "INSERT INTO records VALUES"
      " (1, 1700000000000001, 3, 1, 1001, 7, '/tavrix/Shared/Plans', NULL, NULL, NULL, NULL, 1),"
      " (2, 1700000001000000, 10, 0, 1001, 7, '/tavrix/Shared/Plans/a,\"b\".txt', NULL, NULL, NULL,"
      "  NULL, 1),"
      " (3, 1700000002000000, 5, 0, 1001, 7, '/tavrix/Shared/Plans/a,\"b\".txt', NULL, NULL, NULL,"
      "  NULL, 1),"
      " (4, 1700000003000000, 64, 0, 1002, NULL, '/tavrix/Shared/Plans/a,\"b\".txt', NULL, NULL,"
      "  '10.0.0.2', 12, 1),"
      " (5, 1700000004000000, 7, 1, 1002, 8, '/tavrix/Shared/Plans', '/tavrix/Shared/Old', NULL,"
      "  NULL, NULL, 1),"
      " (6, 1700000005000000, 7, 1, 1002, 8, '/tavrix/Shared/Old', '/tavrix/Shared/Older', NULL,"
      "  NULL, NULL, 1),"
      " (7, 1700000006000000, 8, 0, 1002, 8, '/tavrix/Shared/Older/a,\"b\".txt', NULL, 'ben', NULL,"
      "  NULL, 1),"
      " (8, 1700000007000000, 10, 0, 1001, 7, CAST(x'2f7461767269782f5368617265642f636166e9' AS "
      "TEXT),"
      "  NULL, NULL, NULL, NULL, 1),"
      " (9, 1700000008000000, 64, 0, 1002, NULL,"
      "  CAST(x'2f7461767269782f5368617265642f636166e9' AS TEXT), NULL, NULL, '10.0.0.2', 3, 1);"
      "INSERT INTO notices VALUES (1, 1700000006000000, 'mass-delete', 1002, 12,"
      " '12 deletions by user 1002 within 60 seconds <b>');");
  ASSERT_TRUE(is_done) << sqlite3_errmsg(database.get());
}

}  // namespace tavrix::test
