// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/historian/taker.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

#include "tools/files/checksum.hpp"
#include "tools/history/schema.hpp"

namespace tavrix::historian {
namespace {

using history::Statement;
using Hash = std::array<std::byte, 32>;

Hash hash_of(const std::string& bytes) {
  const files::Digest digits = files::digest_of(std::string_view(bytes));
  Hash hash{};
  for (std::size_t i = 0; i < hash.size() && 2 * i + 2 <= digits.size(); ++i) {
    unsigned value = 0;
    std::from_chars(digits.data() + 2 * i, digits.data() + 2 * i + 2, value, 16);
    hash[i] = static_cast<std::byte>(value);
  }
  return hash;
}

template <typename Value>
void bind_optional(Statement& statement, int place, const std::optional<Value>& value) {
  if (!value) {
    statement.bind_null(place);
  } else if constexpr (std::is_integral_v<Value>) {
    statement.bind(place, static_cast<int64_t>(*value));
  } else {
    statement.bind(place, *value);
  }
}

}  // namespace

Taker::Taker(sqlite3* database)
    : database_(database),
      find_(database,
            "SELECT id FROM dumps WHERE inode = ? AND mtime = ? AND size = ? AND hash = ?"),
      insert_dump_(
          database,
          "INSERT INTO dumps (kind, name, inode, mtime, size, hash, taken, records, newest, node) "
          "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
      insert_row_(database,
                  "INSERT INTO records (time, op, folder, uid, pid, path, target, user, address, "
                  "size, dump) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
      set_taken_(database, "INSERT OR REPLACE INTO meta VALUES ('taken', ?)"),
      last_taken_(history::number_of(database, "SELECT taken FROM dumps ORDER BY id DESC LIMIT 1")
                      .value_or(0)) {}

Taker::Result Taker::find(const Content& content, std::span<const std::byte> hash) {
  find_.reset();
  find_.bind(1, static_cast<int64_t>(content.inode));
  find_.bind(2, content.mtime);
  find_.bind(3, static_cast<int64_t>(content.bytes.size()));
  find_.bind(4, hash);
  const bool is_there = find_.step();
  const bool is_failed = find_.failed();
  if (!is_failed) find_.reset();  // an open read would keep the WAL
  if (is_failed) return Result::kFailed;
  return is_there ? Result::kSeen : Result::kTaken;
}

bool Taker::insert_dump(const Link& link, const Content& content, std::span<const std::byte> hash,
                        const DumpRows& dump, int64_t now) {
  insert_dump_.bind(1, static_cast<int64_t>(link.is_audit));
  insert_dump_.bind(2, std::string_view(link.name));
  insert_dump_.bind(3, static_cast<int64_t>(content.inode));
  insert_dump_.bind(4, content.mtime);
  insert_dump_.bind(5, static_cast<int64_t>(content.bytes.size()));
  insert_dump_.bind(6, hash);
  insert_dump_.bind(7, now);
  insert_dump_.bind(8, static_cast<int64_t>(dump.rows.size()));
  insert_dump_.bind(9, dump.newest);
  if (link.node.empty()) {
    insert_dump_.bind_null(10);
  } else {
    insert_dump_.bind(10, std::string_view(link.node));
  }
  return insert_dump_.run();
}

bool Taker::insert_rows(const DumpRows& dump, int64_t number) {
  for (const Row& row : dump.rows) {
    insert_row_.bind(1, row.time);
    insert_row_.bind(2, static_cast<int64_t>(row.op));
    insert_row_.bind(3, static_cast<int64_t>(row.is_folder));
    insert_row_.bind(4, static_cast<int64_t>(row.uid));
    bind_optional(insert_row_, 5, row.pid);
    insert_row_.bind(6, row.path);
    bind_optional(insert_row_, 7, row.target);
    bind_optional(insert_row_, 8, row.user);
    bind_optional(insert_row_, 9, row.address);
    bind_optional(insert_row_, 10, row.size);
    insert_row_.bind(11, number);
    if (!insert_row_.run()) return false;
  }
  return true;
}

Taker::Result Taker::take(const Link& link, const Content& content, const DumpRows& dump,
                          int64_t now) {
  const Hash hash = hash_of(content.bytes);
  const Result found = find(content, hash);
  if (found != Result::kTaken) return found;
  // The clock may go back; retention relies on this order.
  last_taken_ = std::max(last_taken_, now);
  set_taken_.bind(1, now);
  if (!insert_dump(link, content, hash, dump, last_taken_) ||
      !insert_rows(dump, sqlite3_last_insert_rowid(database_)) || !set_taken_.run()) {
    return Result::kFailed;
  }
  return Result::kTaken;
}

}  // namespace tavrix::historian
