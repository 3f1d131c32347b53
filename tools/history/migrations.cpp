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

bool add_nodes(sqlite3* database) {
  return execute(database, "ALTER TABLE dumps ADD COLUMN node TEXT");
}

// The step at index N leads from version N + 1 to the next one.
using Step = bool (*)(sqlite3*);
constexpr std::array<Step, kSchemaVersion - 1> kSteps = {add_nodes};

// Takes the step, and writes down to which version it leads, both or neither.
bool lead_to(int version, sqlite3* database, Step step) {
  Transaction transaction(database);
  const std::string mark = "PRAGMA user_version = " + std::to_string(version);
  return transaction.begun() && step(database) && execute(database, mark.c_str()) &&
         transaction.commit();
}

}  // namespace

bool migrate(sqlite3* database, int version) {
  if (version == 0) return lead_to(kSchemaVersion, database, make_tables);
  for (int next = version; next < kSchemaVersion; ++next) {
    if (!lead_to(next + 1, database, kSteps.at(static_cast<std::size_t>(next - 1)))) return false;
  }
  return true;
}

}  // namespace tavrix::history
