// SPDX-License-Identifier: LGPL-3.0-or-later
// A history of a test's own.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tools/history/database.hpp"
#include "tools/history/record.hpp"
#include "tools/history/schema.hpp"
#include "vfs_common.h"

namespace tavrix::test {

constexpr int kConnect = VFSEVENT__OP_TYPE__OPTYPE_CONNECT;
constexpr int kMkdir = VFSEVENT__OP_TYPE__OPTYPE_MKDIR;
constexpr int kRmdir = VFSEVENT__OP_TYPE__OPTYPE_RMDIR;
constexpr int kOpen = VFSEVENT__OP_TYPE__OPTYPE_OPEN;
constexpr int kRename = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
constexpr int kUnlink = VFSEVENT__OP_TYPE__OPTYPE_UNLINK;
constexpr int kCreate = VFSEVENT__OP_TYPE__OPTYPE_CREATE;

class HistoryWorld : public Isolated {
 protected:
  static constexpr const char* kFile = "/scratch/history.db";

  void SetUp() override {
    Isolated::SetUp();
    history::Problem problem;
    writer_ = history::open_to_write(kFile, problem);
    ASSERT_NE(nullptr, writer_) << problem.sentence;
    reader_ = history::open_to_read(kFile, problem);
    ASSERT_NE(nullptr, reader_) << problem.sentence;
    const bool has_dump = history::execute(
        writer_.get(),
        "INSERT INTO dumps VALUES (1, 0, 'events.pending_1', 1, 1, 1, x'00', 1, 1, 1, NULL)");
    ASSERT_TRUE(has_dump);
  }
  // Writes a record, under its id unless that is 0.
  void write(const history::Record& record) {
    history::Statement insert(writer_.get(),
                              "INSERT INTO records VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, 1)");
    const auto bind_text = [&insert](int place, const std::string& text) {
      if (text.empty()) {
        insert.bind_null(place);
      } else {
        insert.bind(place, std::string_view(text));
      }
    };
    if (record.at.id == 0) {
      insert.bind_null(1);
    } else {
      insert.bind(1, record.at.id);
    }
    insert.bind(2, record.at.time);
    insert.bind(3, int64_t{record.operation});
    insert.bind(4, int64_t{record.is_folder ? 1 : 0});
    insert.bind(5, int64_t{record.uid});
    insert.bind(6, record.pid.value_or(4242));
    insert.bind(7, std::string_view(record.path));
    bind_text(8, record.target);
    bind_text(9, record.user);
    bind_text(10, record.address);
    if (record.size) {
      insert.bind(11, *record.size);
    } else {
      insert.bind_null(11);
    }
    ASSERT_TRUE(insert.run()) << sqlite3_errmsg(writer_.get());
  }
  void write_all(const std::vector<history::Record>& records) {
    history::Transaction transaction(writer_.get());
    for (const history::Record& record : records) write(record);
    ASSERT_TRUE(transaction.commit());
  }
  // A record as most tests want one.
  static history::Record record(int64_t seconds, int operation, const std::string& path,
                                const std::string& target = "", bool is_folder = false) {
    const bool makes_folder = operation == kMkdir || operation == kRmdir;
    return {.at = {seconds * 1'000'000, 0},
            .operation = operation,
            .is_folder = is_folder || makes_folder,
            .uid = 1001,
            .path = path,
            .target = target};
  }

  history::Database writer_, reader_;
};

}  // namespace tavrix::test
