// SPDX-License-Identifier: LGPL-3.0-or-later
// Puts dump files into the database, each once: its records and its row in `dumps` come in one
// transaction, and a file whose row is there is not taken again.
#pragma once

#include <cstdint>
#include <string>

#include "tools/historian/dump_rows.hpp"
#include "tools/historian/links.hpp"
#include "tools/history/database.hpp"
#include "tools/history/statement.hpp"

namespace tavrix::historian {

// The prepared statements of one connection. The caller has the transaction.
class Taker {
 public:
  explicit Taker(sqlite3* database);

  enum class Result { kTaken, kSeen, kFailed };  // kFailed: the connection says why
  [[nodiscard]] Result take(const Link& link, const Content& content, const DumpRows& dump,
                            int64_t now);

 private:
  [[nodiscard]] Result find(const Content& content, std::span<const std::byte> hash);
  [[nodiscard]] bool insert_dump(const Link& link, const Content& content,
                                 std::span<const std::byte> hash, const DumpRows& dump,
                                 int64_t now);
  [[nodiscard]] bool insert_rows(const DumpRows& dump, int64_t number);

  sqlite3* database_;
  history::Statement find_;
  history::Statement insert_dump_;
  history::Statement insert_row_;
  history::Statement set_taken_;
  int64_t last_taken_ = 0;
};

}  // namespace tavrix::historian
