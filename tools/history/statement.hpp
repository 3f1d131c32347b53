// SPDX-License-Identifier: LGPL-3.0-or-later
// A prepared statement of SQLite.
#pragma once

#include <sqlite3.h>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace tavrix::history {

// Failures do not throw: `step()` answers no, and `failed()` tells that from the end of the rows.
// Texts and blobs are not copied: they must live until the statement is reset or bound anew.
class [[nodiscard]] Statement {
 public:
  Statement(sqlite3* database, std::string_view sql);
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(Statement&& other) noexcept;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  Statement& operator=(Statement&&) = delete;

  // Parameters count from 1.
  void bind(int place, int64_t value);
  void bind(int place, std::string_view bytes);  // as a text, whatever its bytes
  void bind(int place, std::span<const std::byte> bytes);
  void bind_null(int place);

  // Goes to the next row; false at the end and on a failure.
  [[nodiscard]] bool step();
  // Runs a statement without rows and resets it. Returns false on a failure.
  [[nodiscard]] bool run();
  void reset();
  [[nodiscard]] bool failed() const { return code_ != SQLITE_OK && code_ != SQLITE_DONE; }
  [[nodiscard]] int code() const { return code_; }  // of SQLite, extended

  // Columns count from 0. Texts live until the next step.
  [[nodiscard]] bool is_null(int column) const;
  [[nodiscard]] int64_t number(int column) const;
  [[nodiscard]] std::string_view text(int column) const;

 private:
  void note(int code);

  sqlite3_stmt* statement_ = nullptr;
  int code_ = SQLITE_OK;
};

// The number in the first column of the first row; nothing without a row and on a failure.
[[nodiscard]] std::optional<int64_t> number_of(sqlite3* database, std::string_view sql);

}  // namespace tavrix::history
