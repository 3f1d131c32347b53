// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/history/migrations.hpp"

#include <array>
#include <chrono>
#include <string>

#include "tools/history/database.hpp"
#include "tools/history/schema.hpp"
#include "tools/history/statement.hpp"

namespace tavrix::history {
namespace {

bool make_tables(sqlite3* database) {
  if (!execute(database, kSchema)) return false;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  Statement since(database, "INSERT INTO meta VALUES (?, ?)");
  since.bind(1, std::string_view(kMetaSince));
  since.bind(2, std::chrono::duration_cast<std::chrono::microseconds>(now).count());
  return since.run();
}

// The step at index N leads from version N to N + 1.
using Step = bool (*)(sqlite3*);
constexpr std::array<Step, kSchemaVersion> kSteps = {make_tables};

}  // namespace

bool migrate(sqlite3* database, int version) {
  for (int next = version; next < kSchemaVersion; ++next) {
    Transaction transaction(database);
    const std::string mark = "PRAGMA user_version = " + std::to_string(next + 1);
    if (!transaction.begun() || !kSteps.at(static_cast<std::size_t>(next))(database) ||
        !execute(database, mark.c_str()) || !transaction.commit()) {
      return false;
    }
  }
  return true;
}

}  // namespace tavrix::history
