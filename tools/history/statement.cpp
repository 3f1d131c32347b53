// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/history/statement.hpp"

#include <utility>

namespace tavrix::history {

Statement::Statement(sqlite3* database, std::string_view sql) {
  note(
      sqlite3_prepare_v2(database, sql.data(), static_cast<int>(sql.size()), &statement_, nullptr));
}

Statement::Statement(Statement&& other) noexcept
    : statement_(std::exchange(other.statement_, nullptr)), code_(other.code_) {}

// The first failure counts: a statement that could not be prepared only misuses what follows.
void Statement::note(int code) {
  if (!failed()) code_ = code;
}

void Statement::bind(int place, int64_t value) {
  note(sqlite3_bind_int64(statement_, place, value));
}

void Statement::bind(int place, std::string_view bytes) {
  // A null pointer would bind NULL, and an empty view may have one.
  const char* start = bytes.data() == nullptr ? "" : bytes.data();
  note(sqlite3_bind_text64(statement_, place, start, bytes.size(), SQLITE_STATIC, SQLITE_UTF8));
}

void Statement::bind(int place, std::span<const std::byte> bytes) {
  note(sqlite3_bind_blob64(statement_, place, bytes.data(), bytes.size(), SQLITE_STATIC));
}

void Statement::bind_null(int place) { note(sqlite3_bind_null(statement_, place)); }

bool Statement::step() {
  if (failed()) return false;
  const int code = sqlite3_step(statement_);
  code_ = code == SQLITE_ROW ? SQLITE_OK : code;
  return code == SQLITE_ROW;
}

bool Statement::run() {
  while (step()) {
  }
  const bool is_done = !failed();
  const int code = code_;
  reset();
  if (!is_done) code_ = code;
  return is_done;
}

void Statement::reset() {
  sqlite3_reset(statement_);
  if (statement_ != nullptr) code_ = SQLITE_OK;
}

bool Statement::is_null(int column) const {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

int64_t Statement::number(int column) const { return sqlite3_column_int64(statement_, column); }

std::string_view Statement::text(int column) const {
  const auto* start = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  if (start == nullptr) return {};
  return {start, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

std::optional<int64_t> number_of(sqlite3* database, std::string_view sql) {
  Statement statement(database, sql);
  if (!statement.step() || statement.is_null(0)) return std::nullopt;
  return statement.number(0);
}

}  // namespace tavrix::history
